#include "Vel/base/Exception.h"
#include "Vel/describe/GenericIf.h"
#include "Vel/describe/Module.h"
#include "Vel/text/NboAttrLog.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

// The attribute log's reader, through the registry: the first byte chooses a registered value type, and values of it
// are read until the bytes end. Whatever is read must be written back as the very bytes that were consumed.

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

// A set of ids keeps its buckets sorted, whatever order they come in.
bool mayReorder(std::string_view name) { return name == "Mox::IdSet"; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    if (size == 0) return 0;
    Vel::VelType const type = valueTypes()[data[0] % valueTypes().size()];
    Vel::NboAttrLog::In in({data + 1, size - 1});
    Vel::NboAttrLog::Out out;
    try {
        while (in.left() != 0) {
            std::size_t const from = in.offset();
            Vel::GenericValue const value(type, in);
            out.clear();
            type.glue().write(out, value.data());
            std::size_t const consumed = in.offset() - from;
            bool const same =
                out.size() == consumed &&
                (mayReorder(type.name()) || std::equal(out.data(), out.data() + consumed, data + 1 + from));
            if (!same || value.attrLogSize() != consumed) {
                std::fprintf(stderr, "%s at offset %zu is written back differently\n", type.name(), from);
                std::abort();
            }
        }
    } catch (Vel::StreamException const&) {}
    return 0;
}
