#include "Vel/stream/internal/ReplicaSize.h"

#include <unordered_set>
#include <vector>

namespace Vel::ReplicaSize {

namespace {

class SizeSink final : public NboAttrLog::SerializeSink {
public:
    std::size_t size = 0;
    bool doMessageMulticast(AttributeId) override { return false; }
    NboAttrLog::OutSm* singletonSerializeCheck(
        AttributeId, NboAttrLog::FlowConnection*, bool, std::size_t encodedSize, bool) override {
        size = encodedSize;
        return nullptr;
    }
};

}  // namespace

std::size_t ofValue(StreamAttribute const& attribute, Entity const& entity) {
    SizeSink sink;
    attribute.serialize(sink, attribute.id, entity, nullptr);
    return sink.size;
}

std::size_t ofKey(StreamAttribute const& attribute, Entity const& entity, std::span<U8 const> key) {
    if (!attribute.varies || attribute.kind != StreamKind::values) return keyCost + key.size();
    SizeSink sink;
    attribute.serializeKey(sink, attribute.id, entity, key, nullptr);
    return keyCost + sink.size;
}

std::size_t ofAll(Entity& top) {
    std::size_t size = 0;
    std::unordered_set<Entity*> seen{&top};
    std::vector<Entity*> left{&top};
    auto add = [&](Entity& next) {
        if (next.fwkType().glue().stream && seen.insert(&next).second) left.push_back(&next);
    };
    while (!left.empty()) {
        Entity& entity = *left.back();
        left.pop_back();
        size += of(entity, entity.fwkType().glue().stream(), [](StreamAttribute const&, std::span<U8 const>) {});
        for (StreamAttribute const& attribute : entity.fwkType().glue().stream().attributes) {
            Entity* const target = attribute.kind == StreamKind::pointer ? attribute.target(entity) : nullptr;
            if (target) add(*target);
            if (!attribute.holdsEntities()) continue;
            attribute.visit(
                entity, [](void* to, Entity& member) { (*static_cast<decltype(add)*>(to))(member); }, &add);
        }
    }
    return size;
}

}  // namespace Vel::ReplicaSize
