#include "Vel/base/Exception.h"
#include "Vel/text/Trace.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

// The grammar of VELTRACE, and the line of a record of any text: one line, whatever bytes the text holds.

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    std::string_view const text(reinterpret_cast<char const*>(data), size);
    try {
        Vel::Trace::levelsIs(text);
    } catch (Vel::RangeException const&) {}
    double time = 0;
    if (size >= sizeof time) std::memcpy(&time, data, sizeof time);
    std::string const line = Vel::Trace::line({time, 1, "Fuzz", 0, "file", 1, "function", text});
    if (line.find('\n') != line.size() - 1) std::abort();
    return 0;
}
