#pragma once

#include "Vel/base/Types.h"
#include "Vel/entity/internal/Collection.h"

#include <cstddef>
#include <string_view>

namespace Vel {

// The implementation of all ordered maps, which is compiled once: a red-black tree of nodes that the owner makes. It
// takes what it must know about nodes from a table of functions. It is one pointer wide; the first node takes one
// further allocation of 24 bytes.
//
// Invariants:
// 1. In-order, keys ascend strictly.
// 2. The root is black, and a red node's children are black (no child counts as black).
// 3. All paths down from a node to missing children have the same number of black nodes.
//
// Threads: nothing is locked. As with the standard containers, no other thread may use the map during a change.
class VEL_API RbTreeMapGeneric {
public:
    // The base of a node: 24 bytes. A copy is in no tree.
    class Node {
    public:
        constexpr Node() noexcept = default;
        constexpr Node(Node const&) noexcept {}
        Node& operator=(Node const&) noexcept { return *this; }

    private:
        friend RbTreeMapGeneric;
        Node* parent() const noexcept { return reinterpret_cast<Node*>(parentAndRed_ & ~U64(1)); }
        bool red() const noexcept { return parentAndRed_ & 1; }
        void parentIs(Node* p) noexcept { parentAndRed_ = reinterpret_cast<U64>(p) | (parentAndRed_ & 1); }
        void redIs(bool red) noexcept { parentAndRed_ = (parentAndRed_ & ~U64(1)) | U64(red); }

        U64 parentAndRed_ = 0;
        Node* child_[2] = {};  // less, greater
    };

    // What the tree must know about its nodes. A view is the form in which a key is looked up.
    struct Type {
        int (*compare)(void const* view, Node const* node);  // negative if the view is less than the node's key
        Node* (*clone)(Node const* node);
        void (*destroy)(Node* node) noexcept;
    };

    // The place where a key is, or where it belongs. It is valid until the next change.
    struct Place {
        Node* found = nullptr;
        Node* parent = nullptr;
        bool greater = false;  // whether it is the parent's greater child
    };

    constexpr RbTreeMapGeneric() noexcept = default;
    RbTreeMapGeneric(RbTreeMapGeneric&& other) noexcept;
    RbTreeMapGeneric& operator=(RbTreeMapGeneric&&) = delete;
    // REQUIRES: the tree is empty. The owner calls clear() before, since only it knows the type.
    ~RbTreeMapGeneric() = default;

    std::size_t size() const noexcept { return empty() ? 0 : anchor_.block()->size; }
    bool empty() const noexcept { return anchor_.block() == nullptr; }
    U64 changes() const noexcept { return anchor_.changes(); }

    Place place(Type const& type, void const* view) const;
    Node* find(Type const& type, void const* view) const { return place(type, view).found; }
    Node* bound(Type const& type, void const* view, bool orEqual) const;  // first node greater (or equal); or null
    Node* first() const noexcept { return empty() ? nullptr : outermost(false); }
    Node* last() const noexcept { return empty() ? nullptr : outermost(true); }
    static Node* next(Node* node) noexcept;  // null after the last

    // Throws std::bad_alloc; then nothing has changed. REQUIRES: `place` is valid, and its `found` is null; `node` is
    // in no tree.
    void insert(Place const& place, Node* node);
    void remove(Node* node) noexcept;  // the owner then destroys the node. REQUIRES: it is in this tree
    void clear(Type const& type) noexcept;
    void swap(RbTreeMapGeneric& other) noexcept;
    // Clones every node of `other`. Throws what cloning throws; then nothing has changed. REQUIRES: this tree is empty.
    void copyFrom(Type const& type, RbTreeMapGeneric const& other);

    // For tests: returns which invariant is broken, or an empty text. `ascends` returns whether the key of its first
    // node is less than that of the second.
    std::string_view brokenInvariant(bool (*ascends)(Node const*, Node const*)) const;

private:
    struct Tree {
        Node* root;
        U64 size;
        U64 counter;

        U64 changes() const { return counter; }
        void changesIs(U64 changes) { counter = changes; }
    };

    static bool isRed(Node const* node) noexcept { return node && node->red(); }
    static Node* cloneBelow(Type const& type, Node const* from, Node* parent);
    static void destroyBelow(Type const& type, Node* node) noexcept;
    static int blackHeight(Node const* node, Node const* parent);  // -1 if an invariant is broken
    Node* outermost(bool greatest) const noexcept;
    void replace(Node* old, Node* by) noexcept;
    void rotate(Node* node, bool greater) noexcept;
    void balanceInserted(Node* node) noexcept;
    void balanceRemoved(Node* node, Node* parent) noexcept;

    Detail::Anchor<Tree> anchor_;
};

}  // namespace Vel
