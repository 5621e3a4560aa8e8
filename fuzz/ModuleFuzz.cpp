#include "Vel/describe/Module.h"
#include "Vel/describe/internal/Records.h"

#include <cstdint>
#include <cstring>
#include <memory>

// A module's table with some bytes overwritten: each six bytes of the input are a place (16 bits), a width (one byte, 1
// to 4 used) and up to three new bytes. The judge of tables must find the fault, or none, and never read outside it.

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    static auto const modules = Vel::Registry::modules();
    if (size == 0) return 0;
    Vel::ModuleHeader const& original = *modules[data[0] % modules.size()];
    // As large as it says and no larger, so that the address sanitizer sees every step outside. The glue pointers are
    // copied as they are: nothing calls them.
    std::size_t const tableSize = original.size;
    auto const table = std::make_unique<std::uint64_t[]>((tableSize + 7) / 8);
    auto* const bytes = reinterpret_cast<std::uint8_t*>(table.get());
    std::memcpy(bytes, &original, tableSize);
    for (std::size_t i = 1; i + 6 <= size; i += 6) {
        std::size_t const place = (std::size_t(data[i]) << 8 | data[i + 1]) % tableSize;
        std::size_t const width = 1 + data[i + 2] % 3;
        for (std::size_t j = 0; j < width && place + j < tableSize; ++j) bytes[place + j] = data[i + 3 + j];
    }
    auto* const header = reinterpret_cast<Vel::ModuleHeader*>(bytes);
    if (header->size > tableSize)
        header->size = static_cast<Vel::U32>(tableSize);  // the loader has vouched for that much
    Vel::Registry::malformation(header);
    return 0;
}
