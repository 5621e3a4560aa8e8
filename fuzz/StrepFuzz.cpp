#include "Vel/base/Exception.h"
#include "Vel/describe/GenericIf.h"
#include "Vel/describe/Module.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string_view>

// The text parsers: the first byte chooses a registered value type, the rest is parsed as its text. What parses must be
// exactly what the printer writes, and read back as the same text.

namespace {

std::vector<Vel::VelType> const& valueTypes() {
    static auto const types = [] {
        std::vector<Vel::VelType> result;
        for (Vel::VelType const type : Vel::Registry::types())
            if (!type.isEntity()) result.push_back(type);
        return result;
    }();
    return types;
}

// These read more than they write: a suffix, or a number that reads as absent; a fresh id for all ones.
bool isLenient(std::string_view name) { return name == "Mox::MaybeU63" || name == "Mox::UniqueId"; }

[[noreturn]] void fail(char const* what, Vel::VelType type, std::string_view text) {
    std::fprintf(stderr, "%s: %s: %.*s\n", what, type.name(), static_cast<int>(text.size()), text.data());
    std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    if (size == 0) return 0;
    Vel::VelType const type = valueTypes()[data[0] % valueTypes().size()];
    // A copy of exactly this size, so that reading behind it is found.
    auto const copy = std::make_unique<char[]>(size - 1);
    std::copy_n(reinterpret_cast<char const*>(data) + 1, size - 1, copy.get());
    std::string_view const text(copy.get(), size - 1);
    try {
        Vel::GenericValue const value(type, text);
        auto const room = std::make_unique<char[]>(text.size());
        value.toChars(room.get(), room.get() + text.size());
        if (!isLenient(type.name()) && std::string_view(room.get(), text.size()) != text)
            fail("the text in the caller's memory is another", type, text);
        Vel::String const printed = value.strep();
        if (printed != text && !isLenient(type.name())) fail("the text is not canonical", type, text);
        if (!isLenient(type.name()) && Vel::GenericValue(type, printed).strep() != printed)
            fail("the printed text reads as something else", type, printed);
    } catch (Vel::RangeException const&) {}
    return 0;
}
