#include "Mox/PrefixTrie.h"

#include "Mox/internal/Override.h"
#include "Mox/internal/PathIndex.h"
#include "Mox/internal/TriePath.h"

#include "Vel/base/Assert.h"
#include "Vel/describe/Module.h"

#include <algorithm>
#include <utility>

namespace Mox {

using Detail::PathScan;
using Detail::PathStep;
using Vel::Ptr;

namespace {

using Collection = Detail::TrieMembers<PrefixTrie>::Collection;

constexpr char trieSource[] = "/src/Mox/PrefixTrie";
constinit Vel::TraceHandle traceHandle("PrefixTrie");

// Level 8 traces each operation that is entered, level 9 details.
template <class... Parts>
VEL_COLD void traceRecord(unsigned level, unsigned line, char const* function, Parts const&... parts) {
    Vel::TraceHelper helper(traceHandle, level, trieSource, line, function);
    (helper.stream() << ... << parts);
}

String outputFormOf(Ptr<PrefixTrieState> const& state) { return state ? state->outputForm() : String("None"); }

[[noreturn]] VEL_COLD void notImplemented(char const* condition, unsigned line, char const* function) {
    Vel::assertionFailed(condition, trieSource, line, function);
}

}  // namespace

// --- states ---

PrefixTrieState::PrefixTrieState() : EntityOf(String()) {}
PrefixTrieState::~PrefixTrieState() = default;

Ptr<PrefixTrieState> PrefixTrieState::PrefixTrieStateIs() { return prefixTrieStateFactory(); }
Ptr<PrefixTrieState> prefixTrieStateFactory() { return PrefixTrieState::newEntity(); }

bool PrefixTrieState::upgradeState(Ptr<PrefixTrieState> const&, bool) {
    notImplemented("false && \"Need to implement upgradeState in a derived class\"", __LINE__,
        "virtual bool Mox::PrefixTrieState::upgradeState(const Vel::Ptr<Mox::PrefixTrieState>&, bool)");
}

String PrefixTrieState::outputForm() {
    notImplemented("false && \"Need to implement outputForm in a derived class\"", __LINE__,
        "virtual Vel::String Mox::PrefixTrieState::outputForm()");
}

// --- nodes ---

PrefixTrie::PrefixTrie(String const& name) : EntityOf(name) {}

PrefixTrie::~PrefixTrie() {
    if (inIndex_ == InIndex::root) dropIndex();
    members_.releaseAll(
        [this](PrefixTrie& member, Collection which) {
            if (which == Collection::prefixChild) disown(member);
        },
        [](PrefixTrie* member) { member->deleteRef(); });
}

Ptr<PrefixTrie> PrefixTrie::PrefixTrieIs(String const& name) { return prefixTrieFactory(name); }
Ptr<PrefixTrie> prefixTrieFactory(String const& name) { return PrefixTrie::newEntity(name); }

Ptr<PrefixTrieState> PrefixTrie::newStateIs() {
    notImplemented("false && \"Need to implement newStateIs in a derived class\"", __LINE__,
        "virtual Vel::Ptr<Mox::PrefixTrieState> Mox::PrefixTrie::newStateIs()");
}

Ptr<PrefixTrie> PrefixTrie::newChildIs(String const& key) {
    auto const [known, inBoth] = members_.findOwned(key);
    if (inBoth) return known;
    Ptr<PrefixTrie> c = prefixChildIs(key);
    childIs(c);
    return c;
}

bool PrefixTrie::emptyIs(bool value) {
    if (traceHandle.enabled(8))
        traceRecord(8, __LINE__, "emptyIs", "virtual bool Mox::PrefixTrie::emptyIs(bool)", ": value = ", value);
    if (value) {
        stateIs(nullptr);
        mountPointIs(false);
        presentIs(false);
        childDelAll();
        prefixChildDelAll();
    }
    return value;
}

void PrefixTrie::childInstanceDel(String const&) {}

// --- collections ---

Ptr<PrefixTrie> PrefixTrie::child(std::string_view key) const { return members_.find(key, Collection::child); }
Ptr<PrefixTrie> PrefixTrie::prefixChild(std::string_view key) const {
    return members_.find(key, Collection::prefixChild);
}
Ptr<Vel::Entity> PrefixTrie::velChild(std::string_view name) const { return prefixChild(name); }

void PrefixTrie::childIs(Ptr<PrefixTrie> const& c) {
    if (!c) Vel::throwMutatorArgNullPointerException(fwkType(), childAttribute);
    putMember<Collection::child>(*c, Members::hashOf(c->velKey()));
}

Ptr<PrefixTrie> PrefixTrie::prefixChildIs(String const& key) {
    if (PrefixTrie* const found = members_.find(key, Collection::prefixChild)) return found;
    Ptr<PrefixTrie> made = newEntity(key);
    putMember<Collection::prefixChild>(*made, Members::hashOf(made->velKey()));
    return made;
}

void PrefixTrie::velPrefixChildIs(Ptr<PrefixTrie> const& c) {
    if (!c) Vel::throwMutatorArgNullPointerException(fwkType(), prefixChildAttribute);
    putMember<Collection::prefixChild>(*c, Members::hashOf(c->velKey()));
}

template <Collection which> inline void PrefixTrie::putMember(PrefixTrie& member, U32 hash) {
    auto const [taken, changed] = members_.put(member, which, hash);
    if (!changed) return;
    auto const before = Ptr<PrefixTrie>::adopted(taken);
    ++changes_;
    if constexpr (which == Collection::prefixChild) {
        if (before) disown(*before);
        member.parentIs(this);
    } else if (inIndex_ != InIndex::no) {
        if (before) indexMember(*before, false);
        if (inIndex_ != InIndex::no) indexMember(member, true);
    }
    velNotify(which == Collection::child ? childAttribute : prefixChildAttribute, member.velName());
}

void PrefixTrie::putMembers(PrefixTrie& member, String const& key, U32 hash) {
    if (!member.velName().sharesStorageWith(key)) hash = Members::hashOf(member.velKey());
    putMember<Collection::prefixChild>(member, hash);
    putMember<Collection::child>(member, hash);
}

// Called after `member`, which somebody holds, has left the collection.
template <Collection which> inline void PrefixTrie::memberGone(PrefixTrie& member) {
    ++changes_;
    if constexpr (which == Collection::prefixChild)
        disown(member);
    else if (inIndex_ != InIndex::no)
        indexMember(member, false);
    velNotify(which == Collection::child ? childAttribute : prefixChildAttribute, member.velName());
}

template <Collection which> inline Ptr<PrefixTrie> PrefixTrie::memberDel(std::string_view key) {
    auto member = Ptr<PrefixTrie>::adopted(members_.take(key, which));
    if (member) memberGone<which>(*member);
    return member;
}

Ptr<PrefixTrie> PrefixTrie::childDel(std::string_view key) { return memberDel<Collection::child>(key); }
Ptr<PrefixTrie> PrefixTrie::prefixChildDel(std::string_view key) { return memberDel<Collection::prefixChild>(key); }

void PrefixTrie::childDelAll() {
    for (Ptr<PrefixTrie> const member : childMembers()) childDel(member->velKey());
}
void PrefixTrie::prefixChildDelAll() {
    for (Ptr<PrefixTrie> const member : prefixChildMembers()) prefixChildDel(member->velKey());
}

// --- adding and deleting ---

namespace {

// Names that nodes were given lately, by their hash. Most components recur, and then nodes share the string. A longer
// name is not kept: a thread keeps these strings for as long as it runs, whoever chose them.
struct Names {
    static constexpr std::size_t count = 1024;
    static constexpr std::size_t maxLength = 64;  // bytes
    String names[count];
};
thread_local Names* lateNames = nullptr;
thread_local bool exits = false;
struct NamesOwner {
    ~NamesOwner() {
        exits = true;  // tries may be used after this
        delete std::exchange(lateNames, nullptr);
    }
};

// The place for a name with this hash; null if the name is too long to be kept, or while the thread exits.
String* lateName(std::string_view text, U32 hash) {
    if (text.size() > Names::maxLength) return nullptr;
    if (!lateNames) [[unlikely]] {
        if (exits) return nullptr;
        thread_local NamesOwner const owner;
        lateNames = new Names;
    }
    return &lateNames->names[hash % Names::count];
}

constexpr char prefixIsSignature[] =
    "virtual void Mox::PrefixTrie::prefixIs(const Vel::String&, const Vel::Ptr<Mox::PrefixTrieState>&)";
}

// Loops over the components while the child's class does not override prefixIs. A child whose class does is given the
// rest of the path.
void PrefixTrie::prefixIs(String const& path, Ptr<State> const& newState) {
    static auto* const plain =
        new Ptr<PrefixTrie>(prefixTrieFactory(String()));  // never destroyed: tries may be used during exit
    if (!newState) Vel::throwMutatorArgNullPointerException(fwkType(), Vel::attributeId<PrefixTrie>("prefixIs"));
    PrefixTrie* at = this;
    Ptr<PrefixTrie> held;  // holds `at`, unless that is this node
    for (std::string_view rest = path;;) {
        if (traceHandle.enabled(8))
            traceRecord(8, __LINE__, "prefixIs", prefixIsSignature, " adding ", String(rest), " to ", at->velName(),
                ", state: ", newState->outputForm());
        auto [c, left] = at->addStep(rest);
        if (left.empty()) {
            c->presentIs(true);
            c->upgradeState(newState, false);
            return;
        }
        newState->upgradeState(c->state(), true);
        if (Detail::overrides(*c, **plain, &PrefixTrie::prefixIs)) return c->prefixIs(String(left), newState);
        held = std::move(c);
        at = held.get();
        rest = left;
    }
}

// The string of a component. The name that another node was given lately, or that an existing child has, saves a copy.
inline String PrefixTrie::nameOf(std::string_view component) const {
    U32 const hash = Members::hashOf(component);
    String* const late = lateName(component, hash);
    if (late && Detail::sameShortText(late->view(), component)) return *late;
    if (PrefixTrie const* const known = members_.find(component, hash, Collection::prefixChild))
        return known->velName();
    String made(component);
    if (late) *late = made;
    return made;
}

// Returns the node of the path's first component, which is made if need be, and the rest of the path.
std::pair<Ptr<PrefixTrie>, std::string_view> PrefixTrie::addStep(std::string_view path) {
    PathStep const step(path);
    if (step.last && path.find('*') != std::string_view::npos)
        Vel::assertionFailed("starPos == Vel::String::npos", trieSource, __LINE__, prefixIsSignature);
    Ptr<PrefixTrie> c = newChildIs(nameOf(step.head));
    if (step.starred) c->mountPointIs(true);
    if (!c->state_) {
        c->stateIs(c->newStateIs());
        if (traceHandle.enabled(9))
            traceRecord(9, __LINE__, "prefixIs", " Uninitialized state. New: ", outputFormOf(c->state_));
    }
    return {std::move(c), step.rest};
}

// A step from a node to a member of its `child`, as it was before anything was changed.
struct PrefixTrie::Level {
    PrefixTrie* parent;
    PrefixTrie* child;
    Members::Place place;  // of `child`, while the parent's changes_ is the same
    U32 changes;
};

// The levels of a path. Holds the children from hold() on. Allocates nothing for paths of usual depth.
class PrefixTrie::Way {
public:
    Way() = default;
    Way(Way const&) = delete;
    Way& operator=(Way const&) = delete;
    ~Way() {
        if (held_)
            for (Level const& level : *this) level.child->deleteRef();
        if (levels_ != inPlace_) delete[] levels_;
    }

    Level* begin() { return levels_; }
    Level* end() { return levels_ + size_; }
    bool empty() const { return size_ == 0; }
    Level const& back() const { return levels_[size_ - 1]; }
    void push(Level const& level) {
        if (size_ == capacity_) [[unlikely]]
            grow();
        levels_[size_++] = level;
    }
    Level pop() { return levels_[--size_]; }
    void hold() {
        held_ = true;
        for (Level const& level : *this) level.child->newRef();
    }

private:
    static constexpr std::size_t usualDepth = 16;

    VEL_COLD void grow() {
        auto* const larger = new Level[2 * capacity_];
        std::copy_n(levels_, size_, larger);
        if (levels_ != inPlace_) delete[] levels_;
        levels_ = larger;
        capacity_ *= 2;
    }

    bool held_ = false;
    std::size_t size_ = 0;
    std::size_t capacity_ = usualDepth;
    Level* levels_ = inPlace_;
    Level inPlace_[usualDepth];
};

// Takes the child out of `child`, and calls the hook. REQUIRES: the child is held.
void PrefixTrie::prune(Level const& level) {
    PrefixTrie& parent = *level.parent;
    auto const taken = Ptr<PrefixTrie>::adopted(level.changes == parent.changes_
                                                    ? parent.members_.take(level.place, Collection::child)
                                                    : parent.members_.take(level.child->velKey(), Collection::child));
    if (taken) parent.memberGone<Collection::child>(*taken);
    parent.childInstanceDel(level.child->velName());
}

void PrefixTrie::prefixDel(std::string_view path) {
    Way way;  // to the node of the path
    PrefixTrie* at = this;
    bool found = false;
    for (std::string_view rest = path;;) {
        if (traceHandle.enabled(8))
            traceRecord(8, __LINE__, "prefixDel", "void Mox::PrefixTrie::prefixDel(const Vel::String&)", " deleting ",
                String(rest), " from ", at->velName());
        PathStep const step(rest);
        Members::Place const place = at->members_.place(step.head, Collection::child);
        if (!place) {
            if (traceHandle.enabled(9))
                traceRecord(9, __LINE__, "prefixDel", String(rest), " already deleted from ", at->velName());
            break;
        }
        way.push({at, place.node(), place, at->changes_});
        if (step.last) {
            found = true;
            break;
        }
        at = place.node();
        rest = step.rest;
    }
    if (found) {
        way.hold();
        Level const last = way.pop();
        Ptr<PrefixTrie> const c = Ptr<PrefixTrie>::adopted(last.child);
        if (c->empty()) {
            prune(last);
        } else {
            c->presentIs(false);
            c->stateIs(c->newStateIs());
        }
    } else {
        if (way.empty() || !way.back().child->isVoid()) return;  // then no node above is without children either
        way.hold();
    }
    for (Level* level = way.end(); level != way.begin();)
        if ((--level)->child->isVoid()) prune(*level);
}

// --- queries ---

// Returns the index that answers questions to this node, or null: then a question goes from node to node.
inline Detail::PathIndex* PrefixTrie::index() const {
    using Detail::IndexUse;
    if (traceHandle.enabled(8)) return nullptr;
    if (inIndex_ == InIndex::root) {
        index_->countQuestion();
        return index_;
    }
    if (inIndex_ != InIndex::no) return nullptr;
    auto& self = const_cast<PrefixTrie&>(*this);
    U64 const asked = ++self.asked_;
    IndexUse const use = Detail::PathIndex::use;
    bool const now = use == IndexUse::itself ? asked >= 64 && (asked & (asked - 1)) == 0 : use == IndexUse::always;
    return now && self.makeIndex() ? index_ : nullptr;
}

// The node of the path, or null.
PrefixTrie const* PrefixTrie::node(char const* function, char const* signature, std::string_view path) const {
    PrefixTrie const* at = this;
    for (std::string_view rest = path;;) {
        if (traceHandle.enabled(8)) traceRecord(8, __LINE__, function, signature, String(rest), " in ", at->velName());
        PathStep const step(rest);
        at = at->members_.find(step.head, Collection::child);
        if (!at || step.last) return at;
        rest = step.rest;
    }
}

bool PrefixTrie::isPrefix(std::string_view path) const {
    if (auto const* const all = index())
        if (PathScan const scan(path); scan.usable()) return all->find(scan);
    auto const* const found = node("isPrefix", "bool Mox::PrefixTrie::isPrefix(const Vel::String&)", path);
    return found && found->present_;
}

bool PrefixTrie::isLeaf(std::string_view path) const {
    auto const* const found = node("isLeaf", "bool Mox::PrefixTrie::isLeaf(const Vel::String&) const", path);
    return found && found->empty();
}

Ptr<PrefixTrieState> PrefixTrie::prefixState(std::string_view path) const {
    if (auto const* const all = index())
        if (PathScan const scan(path); scan.usable()) {
            PrefixTrie const* const found = all->find(scan);
            return found ? found->state_ : nullptr;
        }
    auto const* const found =
        node("prefixState", "Vel::Ptr<Mox::PrefixTrieState> Mox::PrefixTrie::prefixState(const Vel::String&) ", path);
    return found && found->present_ ? found->state_ : nullptr;
}

bool PrefixTrie::hasPrefix(std::string_view path) const { return hasPrefixInternal(path, false); }
bool PrefixTrie::hasProperPrefix(std::string_view path) const { return hasPrefixInternal(path, true); }

bool PrefixTrie::hasPrefixInternal(std::string_view path, bool proper) const {
    if (auto const* const all = index())
        if (PathScan const scan(path, PathScan::Cuts::yes); scan.usable()) return all->longest(scan, proper) != 0;
    PrefixTrie const* at = this;
    for (std::string_view rest = path;;) {
        if (traceHandle.enabled(8))
            traceRecord(8, __LINE__, "hasPrefixInternal",
                "bool Mox::PrefixTrie::hasPrefixInternal(const Vel::String&, bool)", String(rest),
                proper ? " (proper)" : "", " in ", at->velName());
        PathStep const step(rest);
        at = at->members_.find(step.head, Collection::child);
        if (!at) return false;
        if (step.last) return !proper && at->present_;
        if (at->present_) return true;
        rest = step.rest;
    }
}

String PrefixTrie::enclosingPrefix(std::string_view path) const { return enclosingPrefixInternal(path, false); }
String PrefixTrie::properEnclosingPrefix(std::string_view path) const { return enclosingPrefixInternal(path, true); }

String PrefixTrie::enclosingPrefixInternal(std::string_view path, bool proper) const {
    if (auto const* const all = index())
        if (PathScan const scan(path, PathScan::Cuts::yes); scan.usable())
            return String(path.substr(0, all->longest(scan, proper)));
    PrefixTrie const* at = this;
    std::size_t used = 0;    // bytes of the path up to the deepest present node, with stars
    std::size_t length = 0;  // the same without stars: bytes of the result
    std::size_t walked = 0;
    for (std::string_view rest = path;;) {
        if (traceHandle.enabled(8))
            traceRecord(8, __LINE__, "enclosingPrefixInternal",
                "Vel::String Mox::PrefixTrie::enclosingPrefixInternal(const Vel::String&, bool)", String(rest), " in ",
                at->velName());
        PathStep const step(rest);
        if (step.last && proper) break;
        at = at->members_.find(step.head, Collection::child);
        if (!at) break;
        walked += step.head.size();
        if (at->present_) {
            used = path.size() - step.rest.size();
            length = walked;
        }
        if (step.last) break;
        rest = step.rest;
    }
    if (used == length) return String(path.substr(0, length));
    return String::withLength(length, [&](char* to) {
        std::string_view rest = path;
        for (char* const end = to + length; to != end;) {
            PathStep const step(rest);
            to = std::copy(step.head.begin(), step.head.end(), to);
            rest = step.rest;
        }
    });
}

// --- inheriting and merging ---

void PrefixTrie::upgradeState(Ptr<State> const& inheritedState, bool inheritedOnly) {
    constexpr char signature[] =
        "virtual void Mox::PrefixTrie::upgradeState(const Vel::Ptr<Mox::PrefixTrieState>&, bool)";
    if (traceHandle.enabled(8))
        traceRecord(8, __LINE__, "upgradeState", signature, " for ", velName(),
            ", inherited state:", outputFormOf(inheritedState));
    Ptr<State> passedOn = inheritedState;
    if (present_) {
        if (!state_) Vel::assertionFailed("state()", trieSource, __LINE__, signature);
        passedOn = state_;  // held, since upgradeState() may take it away from this node
        bool const changed = passedOn->upgradeState(inheritedState, inheritedOnly);
        if (!changed) return;
    }
    for (Ptr<PrefixTrie> const c : childMembers()) c->upgradeState(passedOn, true);
}

void PrefixTrie::append(Ptr<PrefixTrie const> const& target) {
    if (!target) Vel::throwMutatorArgNullPointerException(fwkType(), Vel::attributeId<PrefixTrie>("append"));
    appendInternal(target, newStateIs());
}

void PrefixTrie::appendInternal(Ptr<PrefixTrie const> const& other, Ptr<State> const& inheritedState) {
    if (!other) Vel::throwMutatorArgNullPointerException(fwkType(), Vel::attributeId<PrefixTrie>("appendInternal"));
    if (traceHandle.enabled(8))
        traceRecord(8, __LINE__, "appendInternal",
            "void Mox::PrefixTrie::appendInternal(const Vel::Ptr<const Mox::PrefixTrie>&, const "
            "Vel::Ptr<Mox::PrefixTrieState>&)",
            " inherited State:", outputFormOf(inheritedState), ", while merging ", velName());
    if (other->present()) presentIs(true);
    if (other->mountPoint()) mountPointIs(true);
    Ptr<State> passedOn = inheritedState;
    bool changed = true;
    if (present_) {
        if (!state_) stateIs(newStateIs());
        passedOn = state_;  // held, as above
        changed = passedOn->upgradeState(inheritedState, true);
        if (Ptr<State> const given = other->state()) changed = passedOn->upgradeState(given, false) || changed;
    }
    if (changed)
        for (Ptr<PrefixTrie> const c : childMembers())
            if (!other->childExists(c->velKey())) c->upgradeState(passedOn, true);
    for (Ptr<PrefixTrie> const d : other->childMembers()) newChildIs(d->velName())->appendInternal(d, passedOn);
}

}  // namespace Mox

VEL_MODULE(PrefixTrie, 9a69df417466d32c, Mox::PrefixTrieState, Mox::PrefixTrie);
