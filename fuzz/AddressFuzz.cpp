#include "Mount/Address.h"

#include "Vel/base/Exception.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

// Texts of addresses, which come from configurations and command lines. What is accepted reads back from its own text
// as the same, and whatever is not says what it was.

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    std::string_view const text(reinterpret_cast<char const*>(data), size);
    try {
        Mount::Address const address{Vel::String(text)};
        Mount::Address const again(address.text());
        if (again == address && again.text() == address.text()) return 0;
        std::fprintf(stderr, "%s reads back as %s\n", address.text().charPtr(), again.text().charPtr());
        std::abort();
    } catch (Vel::RangeException const& error) {
        if (error.text().view().find(" is no address: ") == std::string_view::npos) std::abort();
    }
    return 0;
}
