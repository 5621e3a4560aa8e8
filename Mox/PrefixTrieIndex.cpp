#include "Mox/PrefixTrie.h"
#include "Mox/internal/PathIndex.h"

#include <new>

// The index that a trie makes when it is asked often: all prefixes below one node, its root, by the hash of their whole
// path.
//
// An index covers the nodes to which a path leads from its root, through `child` only, if IndexedPath accepts the path.
// Invariants:
// 1. The root has inIndex_ root, and index_. A covered node has inIndex_ below, and above_ is the node whose `child`
//    has it. All other nodes have inIndex_ no. The parents of nodes play no role.
// 2. A node is covered by at most one index, and by one path only. If a change breaks that, the index is dropped.
//    Making an index drops the indexes that it meets.
// 3. The paths in the index are those of the present nodes that it covers.
namespace Mox {

using Detail::IndexedPath;
using Detail::IndexUse;
using Detail::PathIndex;
using Detail::PathScan;
using Collection = Detail::TrieMembers<PrefixTrie>::Collection;

class PrefixTrie::Indexing {
public:
    enum class Next { below, beside, end };

    // Calls f(node, above, path) for the node, if IndexedPath accepts its path, and for those below it.
    template <class F> static Next visit(PrefixTrie& node, PrefixTrie& above, IndexedPath& path, F const& f) {
        U32 const length = path.length();
        if (!path.push(node.velKey())) return Next::beside;
        Next next = f(node, above, path);
        if (next == Next::below) next = visitBelow(node, path, f);
        path.lengthIs(length);
        return next;
    }
    template <class F> static Next visitBelow(PrefixTrie& node, IndexedPath& path, F const& f) {
        Next next = Next::below;
        node.members_.visit(Collection::child, [&](PrefixTrie& member) {
            if (next != Next::end) next = visit(member, node, path, f);
        });
        return next == Next::end ? next : Next::beside;
    }

    // The root of the index that the node is in. The second function also appends the components from there to the
    // node.
    static PrefixTrie& rootOf(PrefixTrie& node) {
        auto* at = &node;
        while (at->inIndex_ == InIndex::below) at = at->above_;
        return *at;
    }
    static PrefixTrie& rootOf(PrefixTrie& node, IndexedPath& path) {
        if (node.inIndex_ == InIndex::root) return node;
        PrefixTrie& root = rootOf(*node.above_, path);
        path.push(node.velKey());
        return root;
    }

    static Next enter(PrefixTrie& node, PrefixTrie& above, IndexedPath const& path, PathIndex& index) {
        if (node.inIndex_ != InIndex::no) {
            PrefixTrie& root = rootOf(node);
            if (root.index_ == &index) return Next::end;
            root.dropIndex();
        }
        node.inIndex_ = InIndex::below;
        node.above_ = &above;
        return !node.present_ || index.add(PathScan(path.text()), node) ? Next::below : Next::end;
    }
    static Next leave(PrefixTrie& node, PrefixTrie const& above) {
        if (node.inIndex_ != InIndex::below || node.above_ != &above) return Next::beside;
        node.inIndex_ = InIndex::no;
        node.asked_ = 0;
        return Next::below;
    }
};

// Returns false if there are too many nodes for the number of questions, if two paths lead to one of them, or without
// memory.
bool PrefixTrie::makeIndex() noexcept {
    using Next = Indexing::Next;
    U64 const maxNodes = PathIndex::use == IndexUse::always ? 4096 : 64 * asked_;
    U64 nodes = 0;
    U64 paths = 0;
    U64 words = 0;
    IndexedPath path;
    Next next = Indexing::visitBelow(*this, path, [&](PrefixTrie const& node, PrefixTrie&, IndexedPath const& to) {
        paths += node.present_ ? 1 : 0;
        words += node.present_ ? 1 + PathScan::wordsOf(to.length()) : 0;
        return ++nodes < maxNodes ? Next::below : Next::end;
    });
    if (next == Next::end) return false;
    auto* const made = new (std::nothrow) PathIndex;
    if (!made) return false;
    inIndex_ = InIndex::root;
    index_ = made;
    next = Next::end;
    if (made->reserve(paths, words))
        next = Indexing::visitBelow(*this, path, [&](PrefixTrie& node, PrefixTrie& above, IndexedPath const& to) {
            return Indexing::enter(node, above, to, *made);
        });
    if (next == Next::end)
        dropIndex();
    else
        made->countStart();
    return next != Next::end;
}

std::size_t PrefixTrie::velIndexMemory() const noexcept {
    return inIndex_ == InIndex::root ? sizeof(PathIndex) + index_->memory() : 0;
}

void PrefixTrie::dropIndex() noexcept {
    delete index_;
    inIndex_ = InIndex::no;
    asked_ = 0;
    IndexedPath path;
    Indexing::visitBelow(*this, path,
        [](PrefixTrie& node, PrefixTrie const& above, IndexedPath const&) { return Indexing::leave(node, above); });
}

// Called before this node becomes present, or ceases to be. REQUIRES: it is covered by an index.
void PrefixTrie::indexPresence(bool present) noexcept {
    IndexedPath path;
    PrefixTrie& root = Indexing::rootOf(*this, path);
    PathScan const scan(path.text());
    bool good = true;
    if (present)
        good = root.index_->add(scan, *this);
    else
        root.index_->remove(scan);
    if (!good || !root.index_->countChanges(1)) root.dropIndex();
}

// Called after `member` has come into this node's `child`, or has left it. REQUIRES: this node is covered by an index,
// or its root.
void PrefixTrie::indexMember(PrefixTrie& member, bool comes) noexcept {
    using Next = Indexing::Next;
    IndexedPath path;
    PrefixTrie& root = Indexing::rootOf(*this, path);
    PathIndex& index = *root.index_;
    U64 changes = 0;
    Next const next =
        Indexing::visit(member, *this, path, [&](PrefixTrie& node, PrefixTrie& above, IndexedPath const& to) {
            changes += node.present_ ? 1 : 0;
            if (comes) return Indexing::enter(node, above, to, index);
            if (node.present_) index.remove(PathScan(to.text()));
            return Indexing::leave(node, above);
        });
    if (next == Next::end || !index.countChanges(changes)) root.dropIndex();
}

}  // namespace Mox
