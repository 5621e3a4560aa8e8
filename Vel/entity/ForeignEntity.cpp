#include "Vel/entity/ForeignEntity.h"

#include "Vel/base/Assert.h"
#include "Vel/base/Exception.h"

#include <algorithm>

namespace Vel {

using NboAttrLog::In;
using NboAttrLog::Out;

namespace {

std::span<U8 const> spanOf(std::string_view bytes) { return {reinterpret_cast<U8 const*>(bytes.data()), bytes.size()}; }
std::string_view viewOf(std::span<U8 const> bytes) {
    return {reinterpret_cast<char const*>(bytes.data()), bytes.size()};
}

// A value that is encoded already, for SerializeSink.
struct Encoded {
    std::string_view bytes;
};
[[maybe_unused]] std::size_t attrLogSize(Encoded const* value) { return value->bytes.size(); }
[[maybe_unused]] Out& operator<<(Out& out, Encoded const& value) {
    if (!value.bytes.empty()) std::memcpy(out.append(value.bytes.size()), value.bytes.data(), value.bytes.size());
    return out;
}

ForeignAttribute const& contextOf(StreamAttribute const& row) {
    return *static_cast<ForeignAttribute const*>(row.context);
}

// Reads a value or a key of the type, to the end, and returns its bytes, which are those of `in`.
std::string_view nextBytes(VelType type, In& in) {
    U8 const* const begin = in.data();
    skipValue(type, in);
    if (in.left() != 0) throw StreamException("a value is followed by bytes that are not its own", in.offset());
    return viewOf({begin, static_cast<std::size_t>(in.data() - begin)});
}

// The same of a value of an attribute, which need not be looked at if any bytes are one.
std::string_view nextValue(ForeignAttribute const& attribute, In& in) {
    if (attribute.plainSize == 0 || in.left() != attribute.plainSize) return nextBytes(attribute.type, in);
    U8 const* const begin = in.data();
    in.take(attribute.plainSize);
    return viewOf({begin, attribute.plainSize});
}

std::string defaultBytes(VelType type) {
    Out out;
    GenericValue const value(type);
    type.glue().write(out, value.data());
    return std::string(viewOf(out.bytes()));
}

constexpr std::size_t lengthOfText = 4;  // bytes before a text in the attribute log

// A key that is encoded already, for a bookmark.
class EncodedKey {
public:
    EncodedKey(std::string bytes) : bytes_(std::move(bytes)) {}
    operator std::string const&() const { return bytes_; }
    friend Out& operator<<(Out& out, EncodedKey const& key) { return out << Encoded{key.bytes_}; }

private:
    std::string bytes_;
};
template <class Map> NboAttrLog::Bookmark* bookmarkOf(Map const& map) {
    return new NboAttrLog::OrderedBookmark<EncodedKey, Map>(map);
}

}  // namespace

// --- the functions of the StreamTable ---

struct ForeignEntityGlue {
    using Attribute = StreamAttribute const&;
    using Self = ForeignEntity;
    static Self& self(Entity& entity) { return static_cast<Self&>(entity); }
    static Self const& self(Entity const& entity) { return static_cast<Self const&>(entity); }
    static std::string keyOf(Attribute row, In& in) { return std::string(nextBytes(contextOf(row).key, in)); }

    static VelType type(Attribute row) { return contextOf(row).type; }
    static void serialize(Attribute row, NboAttrLog::SerializeSink& sink, AttributeId id, Entity const& entity,
        NboAttrLog::FlowConnection* to) {
        sink.handleValueSerialization(id, Encoded{self(entity).at<Self::Bytes>(contextOf(row))}, to);
    }
    static void apply(Attribute row, Entity& entity, In& in) {
        std::string_view const bytes = nextValue(contextOf(row), in);
        auto& stored = self(entity).at<Self::Bytes>(contextOf(row));
        if (stored == bytes) return;
        stored = bytes;
        self(entity).velNotify(row.id);
    }
    static Entity* target(Attribute row, Entity const& entity) {
        return self(entity).at<Ptr<Entity>>(contextOf(row)).get();
    }
    static void targetIs(Attribute row, Entity& entity, Entity* target) {
        auto& stored = self(entity).at<Ptr<Entity>>(contextOf(row));
        if (stored.get() == target) return;
        Ptr<Entity> const before = std::exchange(stored, Ptr<Entity>(target));
        self(entity).velNotify(row.id);
    }
    static NboAttrLog::Bookmark* bookmark(Attribute row, Entity const& entity) {
        if (row.kind == StreamKind::values) return bookmarkOf(self(entity).at<Self::Values>(contextOf(row)));
        return bookmarkOf(self(entity).at<Self::Members>(contextOf(row)));
    }
    static std::size_t count(Attribute row, Entity const& entity) {
        if (row.kind == StreamKind::values) return self(entity).at<Self::Values>(contextOf(row)).size();
        return self(entity).at<Self::Members>(contextOf(row)).size();
    }
    static void writeKey(Attribute row, Out& out, void const* key) { contextOf(row).key.glue().write(out, key); }
    static void skipKey(Attribute row, In& in) { skipValue(contextOf(row).key, in); }
    static void memberDel(Attribute row, Entity& entity, In& in) {
        std::string const key = keyOf(row, in);
        if (row.kind != StreamKind::values) return self(entity).memberIs(row, key, nullptr);
        if (self(entity).at<Self::Values>(contextOf(row)).erase(key) != 0)
            self(entity).keyChanged(row.id, contextOf(row), key);
    }
    static void visit(Attribute row, Entity const& entity, void (*visit)(void*, Entity&), void* context) {
        for (auto const& [key, member] : Self::Members(self(entity).at<Self::Members>(contextOf(row))))
            visit(context, *member);
    }
    static Entity* member(Attribute row, Entity const& entity, In& in) {
        auto const& members = self(entity).at<Self::Members>(contextOf(row));
        auto const found = members.find(keyOf(row, in));
        return found == members.end() ? nullptr : found->second.get();
    }
    static void memberIs(Attribute row, Entity& entity, In& in, Entity& member) {
        self(entity).memberIs(row, keyOf(row, in), Ptr<Entity>(&member));
    }
    static Entity* memberNew(Attribute, Entity&, In&) { return nullptr; }  // it does not know of which type
    static bool holds(Attribute row, Entity const& entity, In& in) {
        return self(entity).at<Self::Values>(contextOf(row)).contains(keyOf(row, in));
    }
    static void serializeKey(Attribute row, NboAttrLog::SerializeSink& sink, AttributeId id, Entity const& entity,
        std::span<U8 const> key, NboAttrLog::FlowConnection* to) {
        auto const& values = self(entity).at<Self::Values>(contextOf(row));
        auto const found = values.find(std::string(viewOf(key)));
        sink.handleKeySerialization(id, key, Encoded{found->second}, to);
    }
    static void applyKey(Attribute row, Entity& entity, In& in, In& items) {
        std::string const key = keyOf(row, in);
        std::string_view const bytes = nextBytes(contextOf(row).type, items);
        auto& values = self(entity).at<Self::Values>(contextOf(row));
        auto const [place, isNew] = values.try_emplace(key);
        if (!isNew && place->second == bytes) return;
        place->second = bytes;
        self(entity).keyChanged(row.id, contextOf(row), key);
    }

    // --- reflection ---

    static void assign(void* result, VelType type, std::string_view bytes) {
        In in(spanOf(bytes));
        if (ForeignType const* const foreign = type.glue().foreign)
            *static_cast<ForeignValue*>(result) = {foreign, foreign->types().shared_from_this(), std::string(bytes)};
        else
            type.glue().read(result, in);
    }
    static int ofCollection(void* result, Self& entity, Attribute row, AttributeOp op, void const* other) {
        ForeignAttribute const& attribute = contextOf(row);
        if (op == AttributeOp::count) {
            if (result) *static_cast<U32*>(result) = static_cast<U32>(row.count(entity));
            return static_cast<int>(AttributeResult::done);
        }
        if (!other || (op != AttributeOp::get && op != AttributeOp::exists))
            return static_cast<int>(AttributeResult::unsupported);
        Out out;
        row.writeKey(out, other);
        In key(out.bytes());
        bool const isValue = row.kind == StreamKind::values;
        if (op == AttributeOp::exists) {
            bool const exists = isValue ? row.holds(entity, key) : row.member(entity, key) != nullptr;
            if (result) *static_cast<bool*>(result) = exists;
        } else if (!isValue) {
            if (result) *static_cast<Ptr<Entity>*>(result) = row.member(entity, key);
        } else {
            auto const& values = entity.at<Self::Values>(attribute);
            auto const found = values.find(std::string(viewOf(out.bytes())));
            std::string const bytes = found == values.end() ? defaultBytes(attribute.type) : found->second;
            if (result) assign(result, attribute.type, bytes);
        }
        return static_cast<int>(AttributeResult::done);
    }
    // Whether what is stored at the row has the types of the attribute.
    static bool isAt(VelAttr attr, Attribute row) {
        ForeignAttribute const& stored = contextOf(row);
        if (row.isCollection() && !isSameType(attr.keyType(), stored.key)) return false;
        VelType const type = attr.valueType();
        return isSameType(type, stored.type) || (type && type.isEntity() && stored.type.isEntity());
    }
    static int attributeOp(
        void* result, void* object, VelAttr attr, AttributeOp op, void const* other, void const* arg) {
        auto& entity = static_cast<Self&>(static_cast<Entity&>(*static_cast<PtrInterface*>(object)));
        StreamAttribute const* const row = attr ? entity.fwkType().glue().stream().find(attr.attributeId()) : nullptr;
        if (!row || row->skips || !isAt(attr, *row)) return static_cast<int>(AttributeResult::unsupported);
        if (row->isCollection()) return ofCollection(result, entity, *row, op, other);
        if (op == AttributeOp::get && row->kind == StreamKind::pointer) {
            if (result) *static_cast<Ptr<Entity>*>(result) = row->target(entity);
        } else if (op == AttributeOp::get) {
            if (result) assign(result, row->type(), entity.at<Self::Bytes>(contextOf(*row)));
        } else if (op == AttributeOp::set && row->kind == StreamKind::value && arg) {
            Out out;
            row->type().glue().write(out, arg);
            In in(out.bytes());
            row->apply(entity, in);
        } else {
            return static_cast<int>(AttributeResult::unsupported);
        }
        return static_cast<int>(AttributeResult::done);
    }

    static constexpr StreamFunctions streamFunctions() {
        StreamFunctions f{};
        f.type = type;
        f.serialize = serialize;
        f.apply = apply;
        f.target = target;
        f.targetIs = targetIs;
        f.bookmark = bookmark;
        f.count = count;
        f.writeKey = writeKey;
        f.skipKey = skipKey;
        f.memberDel = memberDel;
        f.visit = visit;
        f.member = member;
        f.memberIs = memberIs;
        f.memberNew = memberNew;
        f.holds = holds;
        f.serializeKey = serializeKey;
        f.applyKey = applyKey;
        return f;
    }
};

ForeignEntityFunctions const& ForeignEntity::functions() {
    static constexpr ForeignEntityFunctions functions{
        ForeignEntityGlue::attributeOp, ForeignEntityGlue::streamFunctions(), sizeof(ForeignEntity), sizeof(Place)};
    return functions;
}

// --- the entity ---

Ptr<ForeignEntity> ForeignEntity::newEntity(VelType type, String const& name) {
    Ptr<ForeignEntity> entity(new ForeignEntity(*type.glue().foreign, name));
    entity->hasNotificationActiveIs(true);
    return entity;
}

ForeignEntity::ForeignEntity(ForeignType const& type, String const& name)
    : Entity(name), types_(type.types().shared_from_this()), type_(type) {
    for (StreamAttribute const& row : type.glue().stream().attributes) {
        if (row.skips) {
            places_.emplace_back();
            continue;
        }
        ForeignAttribute const& attribute = contextOf(row);
        KeyOrder const order{row.isCollection() && attribute.key == typeOf<String>() ? lengthOfText : 0};
        if (row.kind == StreamKind::value)
            places_.emplace_back(defaultBytes(attribute.type));
        else if (row.kind == StreamKind::pointer)
            places_.emplace_back(Ptr<Entity>());
        else if (row.kind == StreamKind::values)
            places_.emplace_back(Values(order));
        else
            places_.emplace_back(Members(order));
    }
}

ForeignEntity::~ForeignEntity() {
    for (Place& place : places_)
        if (auto* const members = std::get_if<Members>(&place))
            for (auto const& [key, member] : *members)
                if (member->parent() == this) member->parentIs(nullptr);
}

StreamAttribute const& ForeignEntity::row(AttributeId attribute, [[maybe_unused]] StreamKind kind) const {
    StreamAttribute const* const found = type_.glue().stream().find(attribute);
    if (!found || found->skips) throwRangeException(format("%s has no attribute %u", fwkType().name(), attribute));
    return *found;
}

Ptr<Entity> ForeignEntity::velChild(std::string_view name) const {
    Out out;
    out << String(name);
    for (StreamKind const kind : {StreamKind::instances, StreamKind::references})
        for (StreamAttribute const& row : type_.glue().stream().attributes) {
            if (row.kind != kind || !row.keyIsName) continue;
            In key(out.bytes());
            if (Entity* const found = row.member(*this, key)) return found;
        }
    return nullptr;
}

GenericValue ForeignEntity::value(AttributeId attribute) const {
    In in(spanOf(bytes(attribute)));
    return GenericValue(row(attribute, StreamKind::value).type(), in);
}
std::string_view ForeignEntity::bytes(AttributeId attribute) const {
    return at<Bytes>(contextOf(row(attribute, StreamKind::value)));
}
void ForeignEntity::valueIs(AttributeId attribute, GenericValue const& value) {
    StreamAttribute const& row = this->row(attribute, StreamKind::value);
    if (!isSameType(value.type(), row.type())) GenericIfImpl::throwTypeException(value.type());
    Out out;
    value.type().glue().write(out, value.data());
    In in(out.bytes());
    row.apply(*this, in);
}
Ptr<Entity> ForeignEntity::target(AttributeId attribute) const {
    return at<Ptr<Entity>>(contextOf(row(attribute, StreamKind::pointer)));
}
std::size_t ForeignEntity::members(AttributeId attribute) const {
    return row(attribute, StreamKind::values).count(*this);
}

void ForeignEntity::keyChanged(AttributeId id, ForeignAttribute const& attribute, std::string const& key) const {
    if (!hasNotificationActive()) return;
    In in(spanOf(key));
    velNotify(id, GenericValue(attribute.key, in));
}

// Puts the member at the key, or removes the one that is there if it is null.
void ForeignEntity::memberIs(StreamAttribute const& row, std::string const& key, Ptr<Entity> member) {
    Members& members = at<Members>(contextOf(row));
    auto const found = members.find(key);
    Ptr<Entity> const before = found == members.end() ? nullptr : found->second;
    if (before == member) return;
    if (!member)
        members.erase(found);
    else if (before)
        found->second = member;
    else
        members.emplace(key, member);
    if (row.kind == StreamKind::instances) {
        if (before && before->parent() == this) before->parentIs(nullptr);
        if (member) member->parentIs(this);
    }
    keyChanged(row.id, contextOf(row), key);
}

}  // namespace Vel
