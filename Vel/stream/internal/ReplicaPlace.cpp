#include "Vel/stream/internal/ReplicaPlace.h"

#include "Vel/base/Exception.h"

namespace Vel {

using NboAttrLog::In;
using NboAttrLog::Out;

Entity* ReplicaPlace::there() const {
    if (attribute->kind == StreamKind::pointer) return attribute->target(*entity);
    In in(key);
    return attribute->member(*entity, in);
}

bool ReplicaPlace::holdsValue() const {
    In in(key);
    return attribute->holds(*entity, in);
}

void ReplicaPlace::del() const {
    In in(key);
    attribute->memberDel(*entity, in);
}

bool ReplicaPlace::owns(Entity const& member) const {
    if (entity != member.parent()) return false;
    if (attribute->kind == StreamKind::instances) return true;
    Out name;
    name << member.name();
    for (StreamAttribute const& other : entity->fwkType().glue().stream().attributes) {
        if (other.kind != StreamKind::instances || !other.keyIsName) continue;
        In in(name.bytes());
        if (other.member(*entity, in) == &member) return false;
    }
    return true;
}

void ReplicaPlace::replacementIs(Entity& member) const {
    auto const put = [&] {
        In in(key);
        attribute->memberIs(*entity, in, member);
    };
    Ptr<Entity> const before = there();
    try {
        put();
        if (!before || there() != before.get()) return;
    } catch (NameInUseException const&) {}
    del();
    put();
}

}  // namespace Vel
