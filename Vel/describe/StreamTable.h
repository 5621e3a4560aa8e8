#pragma once

#include "Vel/describe/GenericIf.h"
#include "Vel/describe/Value.h"
#include "Vel/text/OutSm.h"

#include <concepts>
#include <span>
#include <vector>

// The parts of an entity type that are sent to replicas, as functions derived from the type's description.
namespace Vel {

struct StreamTable;

namespace NboAttrLog {

class FlowConnection;
class FlowOut;

// The keys of a collection that are still to be flowed out. The collection may change meanwhile. The bookmark gives
// every key that stays in the collection, but may give or miss one that comes or goes: its user must check that a key
// is still there, and must send changes separately.
class VEL_API Bookmark {
public:
    virtual ~Bookmark();
    virtual std::size_t left() const = 0;  // number of keys that are noted; 0 if all were given
    virtual void next(Out& key) = 0;  // appends the encoding of the next key, and removes it. REQUIRES: left() != 0
};

// A bookmark that is a list of keys. Used directly, it has all keys from the start: a collection that is visited by a
// function can't be visited in parts. It allocates nothing while there are none, since most collections are empty.
template <class Key> class velFlowOutBookmarkDeq : public Bookmark {
public:
    struct Noted {  // a member, so that bool is a key like any other
        Key key;
    };
    void add(Key key) { keys_.push_back({std::move(key)}); }
    std::span<Noted const> keys() const { return std::span<Noted const>(keys_).subspan(given_); }
    std::size_t left() const override { return keys_.size() - given_; }
    void next(Out& key) override {
        key << keys_[given_++].key;
        if (left() != 0) return;
        keys_.clear();
        given_ = 0;
    }

private:
    std::vector<Noted> keys_;
    std::size_t given_ = 0;  // number of these that next() has given
};

// If a collection can be visited from where the last visit stopped, a bookmark notes only this many keys at a time, and
// looks for the next ones later. So it takes little time and memory to make, however many keys there are.
inline constexpr std::size_t fewKeys = 64;

// A map or a set in the order of its keys. It has a function that returns the first element after a key: upper_bound()
// in std::map, upperBound() in Vel::OrderedMap.
template <class Range, class Key>
concept OrderedRange = requires(Range const& range, Key const& key) {
    range.upper_bound(key);
}
|| requires(Range const& range, Key const& key) { range.upperBound(key); };

// REQUIRES: the range outlives it.
template <class Key, class Range> class OrderedBookmark final : public velFlowOutBookmarkDeq<Key> {
public:
    explicit OrderedBookmark(Range const& range) : range_(range) { note(range.begin()); }
    void next(Out& key) override {
        if (this->left() != 1) return velFlowOutBookmarkDeq<Key>::next(key);
        Key const given = this->keys().front().key;  // the last that was noted: behind it the next few are looked for
        velFlowOutBookmarkDeq<Key>::next(key);
        if constexpr (requires { range_.upper_bound(given); })
            note(range_.upper_bound(given));
        else
            note(range_.upperBound(given));
    }

private:
    template <class At> void note(At at) {
        for (; this->left() < fewKeys && at != range_.end(); ++at) {
            if constexpr (requires { (*at).first; })
                this->add((*at).first);
            else if constexpr (requires { (*at).key; })
                this->add((*at).key);
            else
                this->add(*at);
        }
    }
    Range const& range_;
};

// A map without order whose iterators stay valid while it changes, such as Vel::HashMap.
template <class Range>
concept SteadyRange = requires(Range const& range) {
    { range.begin().exists() } -> std::same_as<bool>;
    range.begin().key();
    range.begin().atEnd();
};

// Gives the keys that are there when it is made and still there when their turn comes. REQUIRES: the range outlives it.
template <class Key, class Range> class SteadyBookmark final : public velFlowOutBookmarkDeq<Key> {
public:
    explicit SteadyBookmark(Range const& range) : at_(range.begin()) { note(); }
    void next(Out& key) override {
        velFlowOutBookmarkDeq<Key>::next(key);
        if (this->left() == 0) note();
    }

private:
    void note() {
        for (; this->left() < fewKeys && !at_.atEnd(); ++at_)
            if (at_.exists()) this->add(at_.key());
    }
    decltype(std::declval<Range const&>().begin()) at_;
};

// A range without order that can be visited in parts. visitPart(part, f) calls f(member) for each member of the part,
// and returns the next part. The first part is 0; visitPart() returns 0 after the last. A member that stays in the
// range is visited in at least one part.
template <class Range>
concept RangeOfParts = requires(Range const& range) {
    range.visitPart(U64(0), [](auto const&) {});
};

// REQUIRES: the collection that the range visits outlives it.
template <class Key, class Range> class PartsBookmark final : public velFlowOutBookmarkDeq<Key> {
public:
    explicit PartsBookmark(Range range) : range_(std::move(range)) { note(); }
    void next(Out& key) override {
        velFlowOutBookmarkDeq<Key>::next(key);
        if (this->left() == 0 && part_ != 0) note();
    }

private:
    void note() {
        do part_ = range_.visitPart(part_, [this](auto const& member) { this->add(member->name()); });
        while (part_ != 0 && this->left() < fewKeys);
    }
    Range range_;
    U64 part_ = 0;
};

// Receives the values of an entity's attributes, as messages.
class VEL_API SerializeSink {
public:
    // Bits of attrLogFlags().
    static constexpr U32 multicastBit = 0x4000;     // changes may be delivered by doMessageMulticast(), not by the log
    static constexpr U32 flowingOutBit = 0x80000;   // suspends multicastBit while it is flowed out to one reader
    static constexpr U32 fromRemoteBit = 0x100000;  // suspends multicastBit while a reader's change is applied

    virtual ~SerializeSink();
    U32 attrLogFlags() const { return attrLogFlags_; }
    void attrLogFlagsIs(U32 bits, bool on) { attrLogFlags_ = on ? attrLogFlags_ | bits : attrLogFlags_ & ~bits; }

    // Writes one message with the attribute's value: to the connection, or if that is null, for all readers of the log.
    template <class T> void handleValueSerialization(AttributeId id, T const& value, FlowConnection* to) {
        if ((attrLogFlags_ & multicastBit) && !(attrLogFlags_ & (flowingOutBit | fromRemoteBit)))
            if (doMessageMulticast(id)) return;
        OutSm* const sm = singletonSerializeCheck(id, to, true, attrLogSize(&value), false);
        if (!sm) return;
        sm->out() << value;
        Impl::outSmCommitMessage(*sm);
    }

    // The same for one value of a collection of values; `key` is the encoding of its key.
    template <class T>
    void handleKeySerialization(AttributeId id, std::span<U8 const> key, T const& value, FlowConnection* to) {
        OutSm* const sm = singletonSerializeCheck(id, to, false, key.size() + attrLogSize(&value), true);
        if (!sm) return;
        std::memcpy(sm->out().append(key.size()), key.data(), key.size());
        sm->out() << value;
        Impl::outSmCommitMessage(*sm);
    }

    // Delivers the attribute's change, if it can. Returns whether it has, so that no message is needed.
    virtual bool doMessageMulticast(AttributeId id) = 0;
    // Begins a message for a value of `encodedSize` bytes, and returns its output. Returns null if nobody wants it.
    // `whole` says that the message has the whole attribute, `isKey` that it has the value at one key.
    virtual OutSm* singletonSerializeCheck(
        AttributeId id, FlowConnection* to, bool whole, std::size_t encodedSize, bool isKey) = 0;

private:
    U32 attrLogFlags_ = 0;
};

// Throws StreamException unless the entity's type is `declared` or derives from it.
VEL_API void ensureCorrectType(VelType type, VelType declared);

}  // namespace NboAttrLog

enum class StreamKind : U32 { value, pointer, references, instances, values };

struct StreamAttribute;

// The functions of a streamed attribute. Each is passed the attribute first: a function that is derived from a
// description does not need it, but one function serves all attributes that a peer has described.
struct StreamFunctions {
    using Attribute = StreamAttribute const&;
    VelType (*type)(Attribute attribute);
    void (*serialize)(Attribute attribute, NboAttrLog::SerializeSink& sink, AttributeId id, Entity const& entity,
        NboAttrLog::FlowConnection* to);
    void (*apply)(Attribute attribute, Entity& entity, NboAttrLog::In& in);
    Entity* (*target)(Attribute attribute, Entity const& entity);
    void (*targetIs)(Attribute attribute, Entity& entity, Entity* target);
    NboAttrLog::Bookmark* (*bookmark)(Attribute attribute, Entity const& entity);
    std::size_t (*count)(Attribute attribute, Entity const& entity);
    void (*writeKey)(Attribute attribute, NboAttrLog::Out& out, void const* key);
    void (*skipKey)(Attribute attribute, NboAttrLog::In& in);
    void (*memberDel)(Attribute attribute, Entity& entity, NboAttrLog::In& key);
    void (*visit)(
        Attribute attribute, Entity const& entity, void (*visit)(void* context, Entity& member), void* context);
    Entity* (*member)(Attribute attribute, Entity const& entity, NboAttrLog::In& key);
    void (*memberIs)(Attribute attribute, Entity& entity, NboAttrLog::In& key, Entity& member);
    Entity* (*memberNew)(Attribute attribute, Entity& entity, NboAttrLog::In& key);
    bool (*holds)(Attribute attribute, Entity const& entity, NboAttrLog::In& key);
    void (*serializeKey)(Attribute attribute, NboAttrLog::SerializeSink& sink, AttributeId id, Entity const& entity,
        std::span<U8 const> key, NboAttrLog::FlowConnection* to);
    void (*applyKey)(Attribute attribute, Entity& entity, NboAttrLog::In& key, NboAttrLog::In& value);
};

// One streamed attribute. Keys are passed as their encoding. A function that takes an In reads all of it, or throws
// StreamException before it has changed anything.
struct StreamAttribute {
    AttributeId id;
    StreamKind kind;
    bool varies;          // whether the encodings of its values differ in length
    bool adopts;          // for instances: whether memberIs can insert a member that was made elsewhere
    bool keyIsName;       // whether the key of a member is its name
    bool skips;           // a peer's attribute that this process does not copy: its messages are read and ignored
    AttributeId localId;  // in the table of the entity's own type; differs from `id` if a peer numbers it otherwise
    StreamFunctions functions;
    void const* context;  // of functions that serve several attributes; null for derived ones

    // The type of the value or values, or the declared type of the target or the members.
    VelType type() const { return functions.type(*this); }

    // Of a value:
    void serialize(
        NboAttrLog::SerializeSink& sink, AttributeId as, Entity const& entity, NboAttrLog::FlowConnection* to) const {
        functions.serialize(*this, sink, as, entity, to);
    }
    void apply(Entity& entity, NboAttrLog::In& in) const { functions.apply(*this, entity, in); }
    // Of a pointer:
    Entity* target(Entity const& entity) const { return functions.target(*this, entity); }
    void targetIs(Entity& entity, Entity* target) const {  // `target` may be null
        functions.targetIs(*this, entity, target);
    }
    // Of a collection:
    NboAttrLog::Bookmark* bookmark(Entity const& entity) const {  // makes a bookmark for all keys
        return functions.bookmark(*this, entity);
    }
    std::size_t count(Entity const& entity) const {  // counts the keys; visits all if there is no Count
        return functions.count(*this, entity);
    }
    void writeKey(NboAttrLog::Out& out, void const* key) const { functions.writeKey(*this, out, key); }
    void skipKey(NboAttrLog::In& in) const { functions.skipKey(*this, in); }
    void memberDel(Entity& entity, NboAttrLog::In& key) const { functions.memberDel(*this, entity, key); }
    // Of entities:
    void visit(Entity const& entity, void (*visit)(void* context, Entity& member), void* to) const {
        functions.visit(*this, entity, visit, to);
    }
    Entity* member(Entity const& entity, NboAttrLog::In& key) const {  // null if no member has the key
        return functions.member(*this, entity, key);
    }
    void memberIs(Entity& entity, NboAttrLog::In& key, Entity& member) const {
        functions.memberIs(*this, entity, key, member);
    }
    Entity* memberNew(Entity& entity, NboAttrLog::In& key) const {  // for instances: makes the member
        return functions.memberNew(*this, entity, key);
    }
    // Of values:
    bool holds(Entity const& entity, NboAttrLog::In& key) const { return functions.holds(*this, entity, key); }
    void serializeKey(NboAttrLog::SerializeSink& sink, AttributeId as, Entity const& entity, std::span<U8 const> key,
        NboAttrLog::FlowConnection* to) const {
        functions.serializeKey(*this, sink, as, entity, key, to);
    }
    void applyKey(Entity& entity, NboAttrLog::In& key, NboAttrLog::In& value) const {
        functions.applyKey(*this, entity, key, value);
    }

    bool holdsEntities() const { return kind == StreamKind::references || kind == StreamKind::instances; }
    bool isCollection() const { return holdsEntities() || kind == StreamKind::values; }
};

// The functions of an attribute that `skips`. An entity has nothing there, whatever its type. The context points to the
// type of the keys; if it is null, all that is left of a message is taken for the key.
VEL_API StreamFunctions const& skippedFunctions();

struct StreamTable {
    std::span<StreamAttribute const> attributes;  // in the order of their ids
    bool takesName;                               // whether the constructor takes the name
    bool isCreatable;                             // whether a replica can make an entity of the type
    // Makes the type's own FlowOut; null if the type uses the default one.
    NboAttrLog::FlowOut* (*newFlowOut)(StreamTable const& table, AttributeId from);

    StreamAttribute const* find(AttributeId id) const {
        if (attributes.size() > few) return findOfMany(id);
        for (StreamAttribute const& attribute : attributes)
            if (attribute.id == id) return &attribute;
        return nullptr;
    }
    // Finds the attribute by its number in the entity's own type.
    StreamAttribute const* findLocal(AttributeId id) const {
        for (StreamAttribute const& attribute : attributes)
            if (attribute.localId == id && !attribute.skips) return &attribute;
        return nullptr;
    }
    std::size_t index(StreamAttribute const& attribute) const {
        return static_cast<std::size_t>(&attribute - attributes.data());
    }

private:
    static constexpr std::size_t few = 16;  // attributes, which are looked through one after the other
    VEL_API StreamAttribute const* findOfMany(AttributeId id) const;
};

}  // namespace Vel
