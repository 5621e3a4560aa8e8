#pragma once

#include "Mox/Types.h"
#include "Mox/internal/TrieMembers.h"

#include "Vel/entity/Entity.h"

#include <iterator>
#include <string_view>
#include <utility>

namespace Vel {
struct StreamTable;
namespace NboAttrLog {
class FlowOut;
}
}  // namespace Vel
namespace Mox::Detail {
class PathIndex;
}

// A set of path prefixes, each with a state, which everything below the prefix inherits.
//
// Both classes are meant as base classes. A derived state says what it holds, how it merges and how it prints. A
// derived trie says which states and which children it makes. docs/trie.md derives a pair from scratch.
namespace Mox {

// The state of a prefix. It applies to everything that the prefix encloses.
// Threads: as the trie to which it belongs.
class VEL_API PrefixTrieState : public Vel::EntityOf<PrefixTrieState> {
public:
    PrefixTrieState();
    ~PrefixTrieState() override;
    static Vel::Ptr<PrefixTrieState> PrefixTrieStateIs();  // as prefixTrieStateFactory

    // These follow Vel::Entity's virtual operations in this order. A derived class implements both; here they abort.

    // Merges `inheritedState` into this one. `inheritedOnly` says that it comes from an enclosing prefix, and was not
    // given for this prefix itself. Returns whether this state has changed; if not, nothing is passed on to the nodes
    // below.
    virtual bool upgradeState(Vel::Ptr<PrefixTrieState> const& inheritedState, bool inheritedOnly);
    virtual String outputForm();  // for traces, and only called while they are on

    static constexpr auto description() {
        return Vel::entity("Mox::PrefixTrieState",
            Vel::method<&PrefixTrieState::upgradeState>("upgradeState", "inheritedState", "inheritedOnly"),  // 258
            Vel::method<&PrefixTrieState::outputForm>("outputForm"));                                        // 259
    }
};

VEL_API Vel::Ptr<PrefixTrieState> prefixTrieStateFactory();

// A node of the trie, and the trie below it. A path such as "a/b.c" is cut before every "/" and ".", except at its
// beginning, into the components "a", "/b" and ".c". Each component is a node, a child of the one before it. The last
// component of a path is a mount point, and so is each other one with a single star that is at its end ("a*/b"). That
// star is no part of the key.
//
// Two collections have the children. `prefixChild` makes and owns them; `child` has those that queries look at. If the
// prefix of a child is deleted, and encloses no other prefix, the child leaves `child` only. When its path is added
// again, the same child is used, unless childInstanceDel has taken it out of `prefixChild` too.
//
// A node counts the questions that it is asked. When it has been asked n times, n a power of two from 64 on, it makes
// an index of the prefixes below it if there are fewer than 64 n nodes. The index answers questions about paths of up
// to 256 bytes without stars, while tracing is off; isLeaf does not use it. The index follows changes. It is dropped
// when changes have outnumbered questions by its size, and when a node becomes a member of two `child` collections.
//
// Queries allocate nothing but an index and a result that is a string. Queries, prefixDel and the release of a trie
// take any depth; so does adding, unless a derived class overrides prefixIs. append and upgradeState call themselves
// once for each component: 10 000 components are fine on a stack of 8 MB. REQUIRES, for all operations on paths: no
// node is below itself.
// Threads: a trie and the states in it are used by one thread at a time.
class VEL_API PrefixTrie : public Vel::EntityOf<PrefixTrie> {
    using Members = Detail::TrieMembers<PrefixTrie>;
    template <Members::Collection which, U32 hashConstant> class MemberRange;

public:
    using State = PrefixTrieState;
    using VelChild = MemberRange<Members::Collection::child, 1914818491>;
    using VelPrefixChild = MemberRange<Members::Collection::prefixChild, 2813198882>;

    explicit PrefixTrie(String const& name);
    ~PrefixTrie() override;
    static Vel::Ptr<PrefixTrie> PrefixTrieIs(String const& name);  // as prefixTrieFactory

    // --- hooks: these follow Vel::Entity's virtual operations in this order ---

    virtual Vel::Ptr<State> newStateIs();  // makes a state into which nothing was merged; aborts here
    virtual Vel::Ptr<PrefixTrie> newChildIs(String const& key);  // finds or makes the child, in both collections
    virtual bool emptyIs(bool value);  // if true, makes the node as constructed, but for its name. Returns `value`
    // Adds the prefix, or merges the state into that of the prefix if it is in the set already. Changes `newState` too:
    // the states of the nodes on the way are merged into it. REQUIRES: no star in the last component. Throws
    // MutatorArgNullPointerException for a null state.
    virtual void prefixIs(String const& path, Vel::Ptr<State> const& newState);
    // Merges the state into that of this node, if it is present, and passes the result on to the nodes below. REQUIRES:
    // a present node has a state; prefixIs and append see to that.
    virtual void upgradeState(Vel::Ptr<State> const& inheritedState, bool inheritedOnly);
    // Adds all prefixes of `target` to this trie, with their flags. Their states are merged as if they were given for
    // the prefixes here.
    virtual void append(Vel::Ptr<PrefixTrie const> const& target);
    virtual void childInstanceDel(String const& key);  // called when prefixDel has taken `key` out of `child`

    // --- paths ---

    // Removes the prefix, and each node on the way to it that is left without children and is not present. Prefixes
    // below it keep their states. A path that is not in the trie is no error.
    void prefixDel(std::string_view path);

    bool isPrefix(std::string_view path) const;         // the path itself is in the set
    bool isLeaf(std::string_view path) const;           // the path has a node, and that has no children
    bool hasPrefix(std::string_view path) const;        // the path or a prefix that encloses it is in the set
    bool hasProperPrefix(std::string_view path) const;  // a prefix that encloses it is in the set
    bool hasPrefixInternal(std::string_view path, bool proper) const;
    // The longest prefix of the path that is in the set, without stars that mark mount points; empty if there is none.
    String enclosingPrefix(std::string_view path) const;
    String properEnclosingPrefix(std::string_view path) const;  // shorter than the path
    String enclosingPrefixInternal(std::string_view path, bool proper) const;
    Vel::Ptr<State> prefixState(std::string_view path) const;  // null if the path itself is not in the set

    // One step of append: merges the node `other`, which stands for the same path, and all below it.
    void appendInternal(Vel::Ptr<PrefixTrie const> const& other, Vel::Ptr<State> const& inheritedState);

    // --- attributes ---

    String name() const final { return velName(); }  // this node's component; its key in the parent's collections
    Vel::Ptr<State> state() const { return state_; }
    bool mountPoint() const { return mountPoint_; }  // an added path ended here, or had a star here
    bool present() const { return present_; }        // a prefix of the set ends here
    void stateIs(Vel::Ptr<State> const& v) { velSet<&PrefixTrie::state_>(v); }
    void mountPointIs(bool v) { velSet<&PrefixTrie::mountPoint_>(v); }
    void presentIs(bool v) {
        if (v != present_ && inIndex_ == InIndex::below) [[unlikely]]
            indexPresence(v);
        velSet<&PrefixTrie::present_>(v);
    }
    bool empty() const { return children() == 0; }

    // --- collections ---

    Vel::Ptr<PrefixTrie> child(std::string_view key) const;  // or null
    // Adds the node under its name. Replaces a member that has this name. Throws MutatorArgNullPointerException for
    // null.
    void childIs(Vel::Ptr<PrefixTrie> const& c);
    Vel::Ptr<PrefixTrie> childDel(std::string_view key);  // removes and returns it, or null if there was none
    void childDelAll();
    U32 children() const { return members_.size(Members::Collection::child); }
    U32 childChangeCounter() const { return changes_; }
    bool childExists(std::string_view key) const { return members_.find(key, Members::Collection::child); }
    VelChild childMembers() const;  // for (Vel::Ptr<PrefixTrie> const& c : trie.childMembers())

    Vel::Ptr<PrefixTrie> prefixChild(std::string_view key) const;  // or null
    Vel::Ptr<PrefixTrie> prefixChildIs(String const& key);  // finds or makes it; a new one has this node as its parent
    Vel::Ptr<PrefixTrie> prefixChildDel(std::string_view key);  // removes and returns it, without a parent
    void prefixChildDelAll();
    U32 prefixChildren() const { return members_.size(Members::Collection::prefixChild); }
    U32 prefixChildChangeCounter() const { return changes_; }
    bool prefixChildExists(std::string_view key) const { return members_.find(key, Members::Collection::prefixChild); }
    VelPrefixChild prefixChildMembers() const;

    Vel::Ptr<Vel::Entity> velChild(std::string_view name) const override;
    class FlowOut;  // what a reader still has to be sent of a node; see PrefixTrieFlowOut.h
    static Vel::NboAttrLog::FlowOut* velNewFlowOut(Vel::StreamTable const& table, Vel::AttributeId from);
    std::size_t velCollectionMemory() const noexcept { return members_.memory(); }  // bytes allocated for both
    std::size_t velIndexMemory() const noexcept;  // bytes of the index; 0 if this node is not the root of one

    static constexpr auto description() {
        using Vel::collection;
        using Vel::method;
        using T = PrefixTrie;
        using Node = Vel::Ptr<T>;
        return Vel::entity("Mox::PrefixTrie",                             //
            Vel::attribute<&T::state_, &T::state, &T::stateIs>("state"),  // 258
            Vel::attribute<&T::mountPoint_, &T::mountPoint, &T::mountPointIs>("mountPoint"),
            Vel::attribute<&T::present_, &T::present, &T::presentIs>("present"),
            Vel::references<&T::childMembers>(collection<String, Node, &T::child, &T::childIs, &T::childDel,
                &T::children, &T::childChangeCounter, &T::childExists>("child")),  // 261
            Vel::instances<&T::prefixChildMembers, &T::velPrefixChildIs>(
                collection<String, Node, &T::prefixChild, &T::prefixChildIs, &T::prefixChildDel, &T::prefixChildren,
                    &T::prefixChildChangeCounter, &T::prefixChildExists>("prefixChild")),
            method<&T::newStateIs>("newStateIs"),         // 263
            method<&T::newChildIs>("newChildIs", "key"),  //
            method<&T::childInstanceDel>("childInstanceDel", "key"),
            Vel::derived<&T::empty>("empty"),         // 266
            method<&T::emptyIs>("emptyIs", "value"),  //
            method<&T::hasPrefixInternal>("hasPrefixInternal", "path", "proper"),
            method<&T::enclosingPrefixInternal>("enclosingPrefixInternal", "path", "proper"),
            method<&T::prefixIs>("prefixIs", "path", "newState"),  // 270
            method<&T::prefixDel>("prefixDel", "path"),            //
            method<&T::hasPrefix>("hasPrefix", "path"), method<&T::hasProperPrefix>("hasProperPrefix", "path"),
            method<&T::enclosingPrefix>("enclosingPrefix", "path"),
            method<&T::properEnclosingPrefix>("properEnclosingPrefix", "path"),  // 275
            method<&T::isPrefix>("isPrefix", "path"),                            //
            method<&T::isLeaf>("isLeaf", "path"),                                //
            method<&T::prefixState>("prefixState", "path"),
            method<&T::upgradeState>("upgradeState", "inheritedState", "inheritedOnly"),
            method<&T::appendInternal>("appendInternal", "other", "inheritedState"),  // 280
            method<&T::append>("append", "target"));
    }
    static Vel::AttributeId const childAttribute, prefixChildAttribute;  // constants from the description

protected:
    // For newChildIs of a derived trie: finds the child, or makes a T, in both collections.
    template <class T> Vel::Ptr<PrefixTrie> newChildOf(String const& key) {
        U32 const hash = Members::hashOf(key.view());
        auto const [known, inBoth] = members_.findOwned(key.view(), hash);
        Vel::Ptr<PrefixTrie> c(known);
        if (inBoth) return c;
        if (!c)
            putMembers(*(c = T::newEntity(key)), key, hash);
        else
            childIs(c);
        return c;
    }
    void velPrefixChildIs(Vel::Ptr<PrefixTrie> const& c);  // adds it under its name; its parent is this node

private:
    friend Members;
    std::string_view velKey() const { return velName().view(); }
    struct Level;
    class Way;
    bool isVoid() const { return empty() && !present_; }  // a path that is deleted leaves no such node
    static void prune(Level const& level);
    template <Members::Collection which> Vel::Ptr<PrefixTrie> memberDel(std::string_view key);
    template <Members::Collection which> void memberGone(PrefixTrie& member);
    String nameOf(std::string_view component) const;
    std::pair<Vel::Ptr<PrefixTrie>, std::string_view> addStep(std::string_view path);
    template <Members::Collection which> void putMember(PrefixTrie& member, U32 hash);
    // Adds the new node `member`, whose name was to be `key`, to both collections. `hash` is the hash of `key`.
    void putMembers(PrefixTrie& member, String const& key, U32 hash);
    void disown(PrefixTrie& member) const {                     // called after `member` has left prefixChild
        if (member.parent() == this) member.parentIs(nullptr);  // another trie may have taken it over before
    }
    PrefixTrie const* node(char const* function, char const* signature, std::string_view path) const;

    // --- the index; see PrefixTrieIndex.cpp ---

    class Indexing;
    enum class InIndex : Vel::U8 { no, below, root };
    Detail::PathIndex* index() const;
    bool makeIndex() noexcept;
    void dropIndex() noexcept;
    void indexPresence(bool present) noexcept;
    void indexMember(PrefixTrie& member, bool comes) noexcept;

    Members members_;
    Vel::Ptr<State> state_;
    U32 changes_ = 0;  // number of changes of both collections together
    bool mountPoint_ = false;
    bool present_ = false;
    InIndex inIndex_ = InIndex::no;
    union {
        Vel::U64 asked_ = 0;        // InIndex::no: how often this node was asked
        PrefixTrie* above_;         // InIndex::below: the node whose `child` has this one
        Detail::PathIndex* index_;  // InIndex::root: the index
    };
};

inline constexpr Vel::AttributeId PrefixTrie::childAttribute = Vel::attributeId<PrefixTrie>("child");
inline constexpr Vel::AttributeId PrefixTrie::prefixChildAttribute = Vel::attributeId<PrefixTrie>("prefixChild");

VEL_API Vel::Ptr<PrefixTrie> prefixTrieFactory(String const& name);

// The members of one collection, for a range-based loop. The loop visits the members that existed when it began and
// that still exist when their turn comes. Members may come and go meanwhile. The trie must outlive the loop.
template <Detail::TrieMembers<PrefixTrie>::Collection which, U32 hashConstant> class PrefixTrie::MemberRange {
public:
    class Iterator {
    public:
        using value_type = Vel::Ptr<PrefixTrie>;
        using difference_type = std::ptrdiff_t;

        explicit Iterator(PrefixTrie const& trie)
            : trie_(&trie), changes_(trie.changes_), members_(trie.members_, which) {}

        Vel::Ptr<PrefixTrie> operator*() const { return &members_[at_]; }
        Iterator& operator++() {
            do ++at_;
            while (
                at_ < members_.size() && trie_->changes_ != changes_ && !trie_->members_.holds(members_[at_], which));
            return *this;
        }
        void operator++(int) { ++*this; }
        friend bool operator==(Iterator const& i, std::default_sentinel_t) { return i.at_ >= i.members_.size(); }

    private:
        PrefixTrie const* trie_;
        U32 changes_;
        Members::Snapshot members_;
        U32 at_ = 0;
    };

    explicit MemberRange(PrefixTrie const& trie) : trie_(&trie) {}
    Iterator begin() const { return Iterator(*trie_); }
    std::default_sentinel_t end() const { return {}; }
    U32 size() const { return trie_->members_.size(which); }
    bool empty() const { return size() == 0; }
    // Visits a part of the members: see Vel::NboAttrLog::RangeOfParts. REQUIRES: f changes neither collection.
    template <class F> U64 visitPart(U64 part, F f) const { return trie_->members_.visitPart(part, which, f); }
    static constexpr U32 velHashConstant = hashConstant;  // sets the collection apart from every other one

private:
    PrefixTrie const* trie_;
};

inline PrefixTrie::VelChild PrefixTrie::childMembers() const { return VelChild(*this); }
inline PrefixTrie::VelPrefixChild PrefixTrie::prefixChildMembers() const { return VelPrefixChild(*this); }

}  // namespace Mox
