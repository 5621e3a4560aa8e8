#include "Vel/describe/StreamTable.h"

#include "Vel/base/Exception.h"

namespace Vel::NboAttrLog {

Bookmark::~Bookmark() = default;
SerializeSink::~SerializeSink() = default;

void ensureCorrectType(VelType type, VelType declared) {
    if (!type.isDerived(declared))
        throw StreamException(format("an entity of type %s came where %s belongs", type.name(), declared.name()), 0);
}

}  // namespace Vel::NboAttrLog
