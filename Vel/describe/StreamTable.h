#pragma once

#include "Vel/describe/GenericIf.h"
#include "Vel/describe/Value.h"
#include "Vel/text/OutSm.h"

#include <deque>
#include <span>

// What of an entity type travels to its replicas, as functions derived from the type's description.
namespace Vel {

struct StreamTable;

namespace NboAttrLog {

class FlowConnection;
class FlowOut;

// How far a collection has been flowed out. It gives every key that is there all the time. What comes or goes meanwhile
// it may give or not: whoever lets the collection change looks after that, and looks whether a key is there.
class VEL_API Bookmark {
public:
    virtual ~Bookmark();
    virtual std::size_t left() const = 0;  // keys that are noted; 0: there are no more
    virtual void next(Out& key) = 0;  // appends the encoding of the next key, and removes it. REQUIRES: left() != 0
};

// Keys that are noted: all that there were, of a collection that a function visits, for only a whole visit gives all.
template <class Key> class velFlowOutBookmarkDeq : public Bookmark {
public:
    void add(Key key) { keys_.push_back(std::move(key)); }
    std::deque<Key> const& keys() const { return keys_; }
    std::size_t left() const override { return keys_.size(); }
    void next(Out& key) override {
        key << keys_.front();
        keys_.pop_front();
    }

private:
    std::deque<Key> keys_;
};

// Of collections that can be visited from where a visit stopped, the next few keys are noted, and behind them comes
// whatever is there then: to begin takes no time, and no memory to speak of, however many keys there are.
inline constexpr std::size_t fewKeys = 64;

// A map or a set, in the order of its keys; std::map calls the first element behind a key so, and Vel::OrderedMap.
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
        Key const given = this->keys().front();  // the last that was noted: behind it the next few are looked for
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

// A range in no order that can be visited in parts: visitPart(part, f) calls f(member) for each of the part, and gives
// the next part; the first is 0, and so is what follows the last. Whatever is in the range all the time is in one part
// or more.
template <class Range>
concept RangeOfParts = requires(Range const& range) {
    range.visitPart(U64(0), [](auto const&) {});
};

// REQUIRES: what the range is of outlives it.
template <class Key, class Range> class PartsBookmark final : public velFlowOutBookmarkDeq<Key> {
public:
    explicit PartsBookmark(Range range) : range_(std::move(range)) { note(); }
    void next(Out& key) override {
        velFlowOutBookmarkDeq<Key>::next(key);
        if (this->keys().empty() && part_ != 0) note();
    }

private:
    void note() {
        do part_ = range_.visitPart(part_, [this](auto const& member) { this->add(member->name()); });
        while (part_ != 0 && this->left() < fewKeys);
    }
    Range range_;
    U64 part_ = 0;
};

// Where the values of an entity's attributes are written to.
class VEL_API SerializeSink {
public:
    // Bits of attrLogFlags(). The first: the entity's changes may be delivered by multicastIs() instead of the log. The
    // others suspend it, while the entity is flowed out to one reader, and while a reader's change is applied.
    static constexpr U32 multicastBit = 0x4000;
    static constexpr U32 flowingOutBit = 0x80000;
    static constexpr U32 fromRemoteBit = 0x100000;

    virtual ~SerializeSink();
    U32 attrLogFlags() const { return attrLogFlags_; }
    void attrLogFlagsIs(U32 bits, bool on) { attrLogFlags_ = on ? attrLogFlags_ | bits : attrLogFlags_ & ~bits; }

    // Writes one message with the attribute's value to the connection; null: to all that read along.
    template <class T> void handleValueSerialization(AttributeId id, T const& value, FlowConnection* to) {
        if ((attrLogFlags_ & multicastBit) && !(attrLogFlags_ & (flowingOutBit | fromRemoteBit)))
            if (doMessageMulticast(id)) return;
        OutSm* const sm = singletonSerializeCheck(id, to, true, attrLogSize(&value), false);
        if (!sm) return;
        sm->out() << value;
        Impl::outSmCommitMessage(*sm);
    }

    // The same for what a collection of values holds at a key, of which `key` is the encoding.
    template <class T>
    void handleKeySerialization(AttributeId id, std::span<U8 const> key, T const& value, FlowConnection* to) {
        OutSm* const sm = singletonSerializeCheck(id, to, false, key.size() + attrLogSize(&value), true);
        if (!sm) return;
        std::memcpy(sm->out().append(key.size()), key.data(), key.size());
        sm->out() << value;
        Impl::outSmCommitMessage(*sm);
    }

    // Whether the attribute's change has been delivered, so that nothing is left to do.
    virtual bool doMessageMulticast(AttributeId id) = 0;
    // The output for a value of `encodedSize` bytes, a message begun in it; null when nobody wants it. `whole`: the
    // message holds the whole attribute, and not one key, which `isKey` says.
    virtual OutSm* singletonSerializeCheck(
        AttributeId id, FlowConnection* to, bool whole, std::size_t encodedSize, bool isKey) = 0;

private:
    U32 attrLogFlags_ = 0;
};

// Throws StreamException unless the entity's type is `declared` or derives from it.
VEL_API void ensureCorrectType(VelType type, VelType declared);

}  // namespace NboAttrLog

enum class StreamKind : U8 { value, pointer, references, instances, values };

// One streamed attribute. Keys are passed as their encoding. What reads takes the whole of its input or throws
// StreamException before anything has changed.
struct StreamAttribute {
    AttributeId id;
    StreamKind kind;
    VelType (*type)();  // of the value or values, or what the target or the members are declared as
    bool varies;        // the value, or those of a collection, take more bytes or fewer

    // Of a value:
    void (*serialize)(
        NboAttrLog::SerializeSink& sink, AttributeId id, Entity const& entity, NboAttrLog::FlowConnection* to);
    void (*apply)(Entity& entity, NboAttrLog::In& in);
    // Of a pointer:
    Entity* (*target)(Entity const& entity);
    void (*targetIs)(Entity& entity, Entity* target);  // null for none
    // Of a collection:
    NboAttrLog::Bookmark* (*bookmark)(Entity const& entity);  // of all keys that there are
    std::size_t (*count)(Entity const& entity);               // of them; takes as long where nothing else tells
    void (*writeKey)(NboAttrLog::Out& out, void const* key);
    void (*skipKey)(NboAttrLog::In& in);
    void (*memberDel)(Entity& entity, NboAttrLog::In& key);
    // Of entities:
    void (*visit)(Entity const& entity, void (*visit)(void* context, Entity& member), void* context);
    Entity* (*member)(Entity const& entity, NboAttrLog::In& key);  // or null
    void (*memberIs)(Entity& entity, NboAttrLog::In& key, Entity& member);
    Entity* (*memberNew)(Entity& entity, NboAttrLog::In& key);  // of instances
    bool adopts;                                                // of instances: memberIs takes what was made elsewhere
    bool keyIsName;                                             // members have their keys as names
    // Of values:
    bool (*holds)(Entity const& entity, NboAttrLog::In& key);
    void (*serializeKey)(NboAttrLog::SerializeSink& sink, AttributeId id, Entity const& entity, std::span<U8 const> key,
        NboAttrLog::FlowConnection* to);
    void (*applyKey)(Entity& entity, NboAttrLog::In& key, NboAttrLog::In& value);

    bool holdsEntities() const { return kind == StreamKind::references || kind == StreamKind::instances; }
    bool isCollection() const { return holdsEntities() || kind == StreamKind::values; }
};

struct StreamTable {
    std::span<StreamAttribute const> attributes;  // in the order of their ids
    bool takesName;                               // the constructor parameter
    bool isCreatable;                             // so that a replica can be made of it
    NboAttrLog::FlowOut* (*newFlowOut)(StreamTable const& table, AttributeId from);  // null: the plain one

    StreamAttribute const* find(AttributeId id) const {
        for (StreamAttribute const& attribute : attributes)
            if (attribute.id == id) return &attribute;
        return nullptr;
    }
    std::size_t index(StreamAttribute const& attribute) const {
        return static_cast<std::size_t>(&attribute - attributes.data());
    }
};

}  // namespace Vel
