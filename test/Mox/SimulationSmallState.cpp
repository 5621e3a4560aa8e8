// What of a small world its future depends on. This looks at what the classes keep to themselves, and so is compiled
// with -fno-access-control: by what can be seen from outside, two worlds that go on in different ways may look alike.
//
// Two worlds are the same that differ only in what nothing asks for in so few steps:
// * Ids. They are compared with each other, as equal or less, and nothing else: each counts by its rank among those
//   that are in use. A new one is larger than all. (All stay below 64, so that their encodings have one length.)
// * Free slots at the end: the next slot is the same whether a slot was used and freed there, or never used.
// * What waits in a queue and has gone: it is passed over.
// * The owner of a member that has gone: it equals none, as does 0.
// * The order of a copy's members: whoever visits them sorts them.
// * What of the log was read, but for how much fits into its last chunk.
// * Counters of changes and of messages; sizes, of which none comes near a limit; flags that are counted, which are
//   few; how many references were dropped, which stay below the 64 of a sweep.
// What has a name of its own, "k" and "l", "a" and "b", is not exchanged for another: maps are in the order of keys.
#include "SimulationSmall.h"

#include "Mox/PrefixTrieFlowOut.h"

#include "Vel/stream/internal/AttrLogReplicaImpl.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <stdexcept>

namespace Simulation {

using Mox::PrefixTrie;
using Vel::AttrLogReader;
using Vel::EntityId;
using Vel::NboAttrLog::FlowConnection;
using Vel::NboAttrLog::In;
using Vel::NboAttrLog::MessageKind;
using Vel::NboAttrLog::nextCompact;
using Bookmark = Vel::NboAttrLog::velFlowOutBookmarkDeq<String>;

namespace {

std::string_view viewOf(String const& text) { return text.view(); }
std::string_view viewOf(std::string const& text) { return text; }
std::string_view viewOf(Bookmark::Noted const& noted) { return noted.key.view(); }

// Bytes that are equal where what was put is.
class Sink {
public:
    void put(std::size_t number) {
        bytes_.push_back(static_cast<U8>(std::min<std::size_t>(number, 255)));
        if (number < 255) return;
        for (unsigned i = 0; i < 64; i += 8) bytes_.push_back(static_cast<U8>(number >> i));
    }
    void put(std::string_view text) {
        put(text.size());
        bytes_.insert(bytes_.end(), text.begin(), text.end());
    }
    template <class Keys> void putKeys(Keys const& keys) {
        put(keys.size());
        for (auto const& key : keys) put(viewOf(key));
    }
    friend bool operator==(Sink const&, Sink const&) = default;

    U64 hash() const {
        U64 h = bytes_.size();
        for (std::size_t at = 0; at < bytes_.size(); at += 8) {
            U64 word = 0;
            std::memcpy(&word, bytes_.data() + at, std::min<std::size_t>(8, bytes_.size() - at));
            h = Random(h ^ word).next();
        }
        return h;
    }

private:
    std::vector<U8> bytes_;
};

std::string_view textOf(std::span<U8 const> bytes) {
    return {reinterpret_cast<char const*>(bytes.data()), bytes.size()};
}

// Tries, numbered from 1 on in the order in which they are asked for.
class Tries {
public:
    std::size_t number(Vel::Entity const* entity) {  // 0: none
        if (!entity) return 0;
        std::size_t i = 0;
        while (i < all_.size() && all_[i] != entity) ++i;
        if (i == all_.size()) all_.push_back(static_cast<PrefixTrie const*>(entity));
        return i + 1;
    }
    std::size_t size() const { return all_.size(); }
    PrefixTrie const& operator[](std::size_t i) const { return *all_[i]; }

private:
    std::vector<PrefixTrie const*> all_;
};

// Ids by their rank among those in use.
class Ranks {
public:
    void add(EntityId id) {
        if (id >= isUsed_.size()) throw std::length_error("a small world with large ids");
        isUsed_[id] = true;
    }
    std::size_t of(EntityId id) const {
        return id == 0 ? 0 : static_cast<std::size_t>(std::count(isUsed_.begin(), isUsed_.begin() + id + 1, true));
    }

private:
    std::array<bool, 64> isUsed_{};
};

// Calls id(number) for what of the message are ids, and rest(bytes) for what is not, in an order that its kind says.
template <class Id, class Rest> void splitMessage(std::span<U8 const> message, Id id, Rest rest) {
    In in(message.subspan(1));
    auto const kind = static_cast<MessageKind>(message[0]);
    rest(message.first(1));
    if (kind != MessageKind::welcome && kind != MessageKind::type && kind != MessageKind::synced) id(nextCompact(in));
    auto const upTo = [&](auto read) {
        U8 const* const from = in.data();
        read();
        rest({from, static_cast<std::size_t>(in.data() - from)});
    };
    if (kind == MessageKind::announce) {
        upTo([&] { nextCompact(in); });
        id(nextCompact(in));
    } else if (kind == MessageKind::keySet) {
        upTo([&] {
            nextCompact(in);
            in.nextString();
        });
        id(nextCompact(in));
    }
    rest({in.data(), in.left()});
}

}  // namespace

class Small::StateBytes {
public:
    explicit StateBytes(Small& small)
        : source_(small.pair_.source.impl()),
          replica_(small.pair_.replica),
          reader_(static_cast<AttrLogReader*>(small.pair_.reader.get())) {
        findIds();
        originals_.number(small.root_.get());
        for (std::size_t i = 0; i < originals_.size(); ++i) putOriginal(originals_[i]);
        putSource();
        if (reader_) putReader();
        putReplica();
    }
    U64 hash() const { return out_.hash(); }

    // What can be reached from a root, so that it is equal for equal trees.
    static Sink tree(PrefixTrie const& root) {
        Sink out;
        Tries tries;
        tries.number(&root);
        for (std::size_t i = 0; i < tries.size(); ++i) putTrie(out, tries, tries[i], true);
        return out;
    }

private:
    // --- tries ---

    static void putTrie(Sink& out, Tries& tries, PrefixTrie const& trie, bool sorts) {
        out.put(trie.fwkType() == Vel::typeOf<Trie>());
        out.put(trie.velName().view());
        out.put(trie.state() ? 1 : 0);
        out.put(2u * trie.present() + trie.mountPoint());
        std::array<U64, 32> slots;  // of a node and its collections; there are at most five
        std::size_t count = 0;
        if (auto* const table = trie.members_.table())
            count = static_cast<std::size_t>(std::copy(table->begin(), table->end(), slots.begin()) - slots.begin());
        else if (trie.members_.word_)
            slots[count++] = trie.members_.word_;
        if (sorts)
            std::sort(slots.begin(), slots.begin() + count, [](U64 x, U64 y) {
                std::string_view const keyX = Members::nodeOf(x)->velKey(), keyY = Members::nodeOf(y)->velKey();
                return keyX != keyY ? keyX < keyY : (x & Members::memberBits) < (y & Members::memberBits);
            });
        out.put(count);
        for (std::size_t i = 0; i < count; ++i) {
            out.put(tries.number(Members::nodeOf(slots[i])));
            out.put(slots[i] & Members::memberBits);
        }
    }
    using Members = Mox::Detail::TrieMembers<PrefixTrie>;

    void putOriginal(PrefixTrie const& trie) {
        putTrie(out_, originals_, trie, false);
        out_.put(originals_.number(trie.parent()));
        auto* const adapter = source_.adapter(trie);
        out_.put(adapter ? 1 : 0);
        if (!adapter) return;
        out_.put(ranks_.of(adapter->id()));
        out_.put(adapter->slot());  // and so is in the one view that there is
        out_.put(source_.adapter(adapter->owner()) ? ranks_.of(adapter->owner()) : 0);
    }

    // --- ids and messages ---

    void findIds() {
        for (auto const* const adapter : source_.demuxer().bySlot_)
            if (adapter) ranks_.add(adapter->id());
        for (auto const& [id, known] : replica_.impl_->entities_.known_) ranks_.add(id);
        if (!reader_) return;
        for (EntityId const id : reader_->gone_) ranks_.add(id);
        auto const add = [&](EntityId id) { ranks_.add(id); };
        eachWaiting([&](std::span<U8 const> message) { splitMessage(message, add, [](std::span<U8 const>) {}); });
    }
    // What the reader was written, and has not sent.
    template <class F> void eachWaiting(F f) {
        StreamTest::eachMessage(reader_->control_.bytes(), f);
        StreamTest::eachMessage(reader_->out_.bytes(), f);
        if (reader_->isLive_) source_.log_.scan(reader_->position_, f);
    }
    void putMessage(std::span<U8 const> message) {
        splitMessage(
            message, [&](EntityId id) { out_.put(ranks_.of(id)); },
            [&](std::span<U8 const> rest) { out_.put(textOf(rest)); });
    }

    // --- the source ---

    void putSource() {
        std::size_t slots = source_.demuxer().bySlot_.size();
        auto free = source_.demuxer().freeSlots_;  // the last is used first
        while (!free.empty() && free.front() + 1 == slots) {
            free.erase(free.begin());
            --slots;
        }
        out_.put(slots);
        out_.put(free.size());
        for (U32 const slot : free) out_.put(slot);
        out_.put(source_.demuxer().types_.size());
        for (Vel::VelType const type : source_.demuxer().types_) out_.put(type == Vel::typeOf<Trie>());
        auto const& log = source_.log_;
        auto const& last = *log.chunks_.back();
        out_.put(last.size() == 0 ? 254 : last.capacity() - last.size());
        out_.put(source_.live_.announced_.words_.empty() ? 0 : 1);
        if (source_.liveReaders_ == 0) return;
        putFlows(source_.live_);
        out_.put(source_.lastChunk_ == log.head().chunk);
        out_.put(source_.awaiting_.size());
    }
    void putFlows(FlowConnection const& flows) {
        for (U32 slot = 0; slot < source_.demuxer().bySlot_.size(); ++slot) {
            auto const* const adapter = source_.demuxer().bySlot_[slot];
            if (!adapter) continue;
            out_.put(4u * flows.announced_.has(slot) + 2u * flows.notBegun_.has(slot) + flows.instantiated_.has(slot));
            auto const* const flow = flows.flow(*adapter);
            out_.put(flow ? 1 : 0);
            if (flow) putFlow(static_cast<PrefixTrie::FlowOut const&>(*flow));
        }
        out_.put(flows.typesTold_.size());
        for (bool const told : flows.typesTold_) out_.put(told);
        for (EntityId const id : flows.waiting_)
            if (source_.adapter(id)) out_.put(ranks_.of(id));
        out_.put(0);
    }
    void putFlow(PrefixTrie::FlowOut const& flow) {
        out_.put(flow.resumeId());
        for (bool const flag : flow.flags_) out_.put(flag);
        out_.put(flow.bounds_ ? 1 : 0);
        out_.putKeys(flow.childDirtyKeys());
        out_.putKeys(flow.prefixChildDirtyKeys());
        out_.putKeys(flow.prefixChildEphemeralDirtyKeys());
        out_.put(flow.bookmark() ? 1 : 0);
        if (flow.bookmark()) out_.putKeys(dynamic_cast<Bookmark const&>(*flow.bookmark()).keys());
    }

    // --- the connection ---

    void putReader() {
        out_.put(reader_->source_ ? 1 : 0);
        out_.put(2u * reader_->isLive_ + reader_->isAwaiting_);
        for (EntityId const id : reader_->gone_) out_.put(ranks_.of(id));
        out_.put(0);
        if (reader_->source_ && !reader_->isLive_) putFlows(*reader_);
        eachWaiting([&](std::span<U8 const> message) { putMessage(message); });
        out_.put(0);
        if (!reader_->isLive_) return;
        out_.put(source_.log_.head().chunk - reader_->position_.chunk);
        for (auto at = reader_->position_.chunk; at <= source_.log_.head().chunk; ++at)
            out_.put(
                source_.log_.chunk({at, 0})->size() - (at == reader_->position_.chunk ? reader_->position_.offset : 0));
    }

    // --- the copy ---

    void putReplica() {
        out_.put(static_cast<std::size_t>(replica_.state()));
        out_.put(2u * replica_.wantsOutput() + replica_.impl_->welcomed_);
        copies_.number(replica_.root().get());
        std::vector<std::pair<std::size_t, Vel::Entity const*>> known;
        for (auto const& [id, one] : replica_.impl_->entities_.known_)
            known.emplace_back(ranks_.of(id), one.entity.get());
        std::sort(known.begin(), known.end());
        out_.put(known.size());
        for (auto const& [rank, entity] : known) {
            out_.put(rank);
            out_.put(copies_.number(entity));
        }
        for (std::size_t i = 0; i < copies_.size(); ++i) {
            putTrie(out_, copies_, copies_[i], true);
            auto const* const above = copies_[i].parent();
            out_.put(above && i != 0 ? copies_.number(above) : 0);
        }
        out_.put(0);
        for (auto const& [index, told] : replica_.impl_->types_.types_) out_.put(told.type == Vel::typeOf<Trie>());
        out_.put(replica_.impl_->unmentioned_.collections_.size());
        for (auto const& [at, unmentioned] : replica_.impl_->unmentioned_.collections_) {
            out_.put(ranks_.of(at.first));
            out_.put(at.second);
            out_.put(unmentioned.comesAgain);
            out_.putKeys(unmentioned.keys);
            out_.putKeys(unmentioned.mentioned);
        }
        out_.put(replica_.impl_->nesting_.blocked_.size());
        for (auto const& [at, member] : replica_.impl_->nesting_.blocked_) {
            auto const& [owner, attribute, key] = at;
            out_.put(ranks_.of(member));
            out_.put(ranks_.of(owner));
            out_.put(attribute);
            out_.put(key);
        }
    }

    Vel::AttrLogSource::Impl& source_;
    Vel::AttrLogReplica& replica_;
    AttrLogReader* reader_;
    Ranks ranks_;
    Tries originals_, copies_;
    Sink out_;
};

U64 Small::state() { return StateBytes(*this).hash(); }

void Small::end() {
    if (!pair_.reader) pair_.connect();
    pair_.reader->input(StreamTest::takeOutput(pair_.replica));
    pair_.replica.input(StreamTest::takeOutput(*pair_.reader));
    if (pair_.replica.isClosing()) {
        error = "the copy says: " + pair_.replica.error().stdString();
        return;
    }
    auto const copy = Vel::ptr_cast<PrefixTrie>(pair_.replica.root());
    if (StateBytes::tree(*copy) == StateBytes::tree(*root_)) return;
    error = "the copy has\n" + StreamTest::treeOf(*copy) + "\nwhere the source has\n" + StreamTest::treeOf(*root_);
}

}  // namespace Simulation
