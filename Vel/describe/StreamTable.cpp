#include "Vel/describe/StreamTable.h"

#include "Vel/base/Exception.h"

#include <algorithm>

namespace Vel::NboAttrLog {

Bookmark::~Bookmark() = default;
SerializeSink::~SerializeSink() = default;

void ensureCorrectType(VelType type, VelType declared) {
    if (!type.isDerived(declared))
        throw StreamException(format("an entity of type %s came where %s belongs", type.name(), declared.name()), 0);
}

}  // namespace Vel::NboAttrLog

namespace Vel {

using NboAttrLog::In;
using NboAttrLog::Out;

namespace {

class NoKeys final : public NboAttrLog::Bookmark {
public:
    std::size_t left() const override { return 0; }
    void next(Out&) override {}
};

struct Skipped {
    using Attribute = StreamAttribute const&;
    static void skipKey(Attribute attribute, In& in) {
        if (attribute.context)
            GenericValue(*static_cast<VelType const*>(attribute.context), in);
        else
            in.take(in.left());
    }
    static VelType type(Attribute) { return {}; }
    static void serialize(
        Attribute, NboAttrLog::SerializeSink&, AttributeId, Entity const&, NboAttrLog::FlowConnection*) {}
    static void apply(Attribute, Entity&, In&) {}
    static Entity* target(Attribute, Entity const&) { return nullptr; }
    static void targetIs(Attribute, Entity&, Entity*) {}
    static NboAttrLog::Bookmark* bookmark(Attribute, Entity const&) { return new NoKeys; }
    static std::size_t count(Attribute, Entity const&) { return 0; }
    static void writeKey(Attribute, Out&, void const*) {}
    static void memberDel(Attribute, Entity&, In&) {}
    static void visit(Attribute, Entity const&, void (*)(void*, Entity&), void*) {}
    static Entity* member(Attribute, Entity const&, In&) { return nullptr; }
    static void memberIs(Attribute, Entity&, In&, Entity&) {}
    static Entity* memberNew(Attribute, Entity&, In&) { return nullptr; }
    static bool holds(Attribute, Entity const&, In&) { return false; }
    static void serializeKey(Attribute, NboAttrLog::SerializeSink&, AttributeId, Entity const&, std::span<U8 const>,
        NboAttrLog::FlowConnection*) {}
    static void applyKey(Attribute, Entity&, In&, In&) {}
};

}  // namespace

StreamAttribute const* StreamTable::findOfMany(AttributeId id) const {
    auto const found = std::ranges::lower_bound(attributes, id, {}, &StreamAttribute::id);
    return found != attributes.end() && found->id == id ? &*found : nullptr;
}

StreamFunctions const& skippedFunctions() {
    using S = Skipped;
    static constexpr StreamFunctions functions{S::type, S::serialize, S::apply, S::target, S::targetIs, S::bookmark,
        S::count, S::writeKey, S::skipKey, S::memberDel, S::visit, S::member, S::memberIs, S::memberNew, S::holds,
        S::serializeKey, S::applyKey};
    return functions;
}

}  // namespace Vel
