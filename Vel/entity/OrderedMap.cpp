#include "Vel/entity/OrderedMap.h"

#include <new>

namespace Vel {

static_assert(sizeof(RbTreeMapGeneric) == sizeof(void*) && sizeof(RbTreeMapGeneric::Node) == 24);

RbTreeMapGeneric::RbTreeMapGeneric(RbTreeMapGeneric&& other) noexcept { anchor_.swap(other.anchor_); }
void RbTreeMapGeneric::swap(RbTreeMapGeneric& other) noexcept { anchor_.swap(other.anchor_); }

RbTreeMapGeneric::Place RbTreeMapGeneric::place(Type const& type, void const* view) const {
    Place place;
    Tree const* const t = anchor_.block();
    for (Node* n = t ? t->root : nullptr; n; n = n->child_[place.greater]) {
        int const order = type.compare(view, n);
        if (order == 0) {
            place.found = n;
            break;
        }
        place.parent = n;
        place.greater = order > 0;
    }
    return place;
}

RbTreeMapGeneric::Node* RbTreeMapGeneric::bound(Type const& type, void const* view, bool orEqual) const {
    Tree const* const t = anchor_.block();
    Node* result = nullptr;
    for (Node* n = t ? t->root : nullptr; n;) {
        int const order = type.compare(view, n);
        bool const after = order > 0 || (order == 0 && !orEqual);
        if (!after) result = n;
        n = n->child_[after];
    }
    return result;
}

RbTreeMapGeneric::Node* RbTreeMapGeneric::outermost(bool greatest) const noexcept {
    Node* n = anchor_.block()->root;
    while (n->child_[greatest]) n = n->child_[greatest];
    return n;
}

RbTreeMapGeneric::Node* RbTreeMapGeneric::next(Node* node) noexcept {
    if (Node* n = node->child_[1]) {
        while (n->child_[0]) n = n->child_[0];
        return n;
    }
    Node* parent = node->parent();
    while (parent && parent->child_[1] == node) {
        node = parent;
        parent = node->parent();
    }
    return parent;
}

// Makes `by`, which may be null, the child of old's parent in place of `old`. Does not change the children of either.
void RbTreeMapGeneric::replace(Node* old, Node* by) noexcept {
    Node* const parent = old->parent();
    if (parent)
        parent->child_[parent->child_[1] == old] = by;
    else
        anchor_.block()->root = by;
    if (by) by->parentIs(parent);
}

// Rotates: the child on the side opposite to `greater` takes the node's place, and the node becomes that child's child
// on the side `greater`.
void RbTreeMapGeneric::rotate(Node* node, bool greater) noexcept {
    Node* const up = node->child_[!greater];
    Node* const across = up->child_[greater];
    replace(node, up);
    node->child_[!greater] = across;
    if (across) across->parentIs(node);
    up->child_[greater] = node;
    node->parentIs(up);
}

void RbTreeMapGeneric::insert(Place const& place, Node* node) {
    Tree* t = anchor_.block();
    if (!t) {
        t = new Tree{nullptr, 0, anchor_.changes()};
        anchor_.blockIs(t);
    }
    node->child_[0] = node->child_[1] = nullptr;
    node->parentIs(place.parent);
    node->redIs(true);
    if (place.parent)
        place.parent->child_[place.greater] = node;
    else
        t->root = node;
    balanceInserted(node);
    ++t->size;
    ++t->counter;
}

// Restores invariant 2, which alone may be broken: `node` is red, and its parent may be red, too.
void RbTreeMapGeneric::balanceInserted(Node* node) noexcept {
    while (isRed(node->parent())) {
        Node* parent = node->parent();
        Node* const grandparent = parent->parent();  // there is one: the root is black
        bool const side = grandparent->child_[1] == parent;
        Node* const uncle = grandparent->child_[!side];
        if (isRed(uncle)) {
            parent->redIs(false);
            uncle->redIs(false);
            grandparent->redIs(true);
            node = grandparent;
            continue;
        }
        if (parent->child_[!side] == node) {
            rotate(parent, side);
            parent = node;
        }
        parent->redIs(false);
        grandparent->redIs(true);
        rotate(grandparent, !side);
        break;
    }
    anchor_.block()->root->redIs(false);
}

void RbTreeMapGeneric::remove(Node* node) noexcept {
    Tree* const t = anchor_.block();
    Node* below;   // the node, or null, that moves into the place that becomes free
    Node* parent;  // the parent of that place
    bool red;      // whether the node that left that place was red
    if (!node->child_[0] || !node->child_[1]) {
        below = node->child_[node->child_[0] == nullptr];
        parent = node->parent();
        red = node->red();
        replace(node, below);
    } else {
        Node* const successor = next(node);  // has no lesser child; takes the node's place and colour
        below = successor->child_[1];
        red = successor->red();
        if (successor->parent() == node) {
            parent = successor;
        } else {
            parent = successor->parent();
            replace(successor, below);
            successor->child_[1] = node->child_[1];
            successor->child_[1]->parentIs(successor);
        }
        successor->child_[0] = node->child_[0];
        successor->child_[0]->parentIs(successor);
        replace(node, successor);
        successor->redIs(node->red());
    }
    if (!red) balanceRemoved(below, parent);
    --t->size;
    ++t->counter;
    if (t->size == 0) {
        anchor_.emptyIs(t->counter);
        delete t;
    }
}

// Restores invariant 3, which alone may be broken: the paths through `node`, or through the missing child in its place,
// lack one black node.
void RbTreeMapGeneric::balanceRemoved(Node* node, Node* parent) noexcept {
    while (parent && !isRed(node)) {
        bool const side = parent->child_[1] == node;
        Node* sibling = parent->child_[!side];  // not null, since its side has one more black node
        if (sibling->red()) {
            sibling->redIs(false);
            parent->redIs(true);
            rotate(parent, side);
            sibling = parent->child_[!side];
        }
        if (!isRed(sibling->child_[0]) && !isRed(sibling->child_[1])) {
            sibling->redIs(true);
            node = parent;
            parent = node->parent();
            continue;
        }
        if (!isRed(sibling->child_[!side])) {
            rotate(sibling, !side);
            sibling = parent->child_[!side];  // the two nodes get their colours below
        }
        sibling->redIs(parent->red());
        parent->redIs(false);
        sibling->child_[!side]->redIs(false);
        rotate(parent, side);
        return;
    }
    if (node) node->redIs(false);
}

void RbTreeMapGeneric::clear(Type const& type) noexcept {
    Tree* const t = anchor_.release();
    if (!t) return;
    destroyBelow(type, t->root);
    delete t;
}

void RbTreeMapGeneric::destroyBelow(Type const& type, Node* node) noexcept {
    while (node) {
        destroyBelow(type, node->child_[0]);
        Node* const greater = node->child_[1];
        type.destroy(node);
        node = greater;
    }
}

void RbTreeMapGeneric::copyFrom(Type const& type, RbTreeMapGeneric const& other) {
    Tree const* const from = other.anchor_.block();
    if (!from) return;
    Node* const root = cloneBelow(type, from->root, nullptr);
    Tree* const t = new (std::nothrow) Tree{root, from->size, anchor_.changes() + 1};
    if (!t) {
        destroyBelow(type, root);
        throw std::bad_alloc();
    }
    anchor_.blockIs(t);
}

RbTreeMapGeneric::Node* RbTreeMapGeneric::cloneBelow(Type const& type, Node const* from, Node* parent) {
    Node* const to = type.clone(from);
    to->child_[0] = to->child_[1] = nullptr;
    to->parentIs(parent);
    to->redIs(from->red());
    try {
        for (bool const greater : {false, true})
            if (from->child_[greater]) to->child_[greater] = cloneBelow(type, from->child_[greater], to);
    } catch (...) {
        destroyBelow(type, to);
        throw;
    }
    return to;
}

int RbTreeMapGeneric::blackHeight(Node const* node, Node const* parent) {  // GCOVR_EXCL_BR_START
    if (!node) return 0;
    if (node->parent() != parent || (node->red() && isRed(parent))) return -1;
    int const height = blackHeight(node->child_[0], node);
    return height < 0 || blackHeight(node->child_[1], node) != height ? -1 : height + !node->red();
}

std::string_view RbTreeMapGeneric::brokenInvariant(bool (*ascends)(Node const*, Node const*)) const {
    Tree const* const t = anchor_.block();
    if (!t) return {};
    if (!t->root) return "a tree without nodes";
    if (t->root->red()) return "the root is red";
    if (blackHeight(t->root, nullptr) < 0) return "wrong parents, colours or black heights";
    std::size_t nodes = 0;
    Node const* before = nullptr;
    for (Node* n = first(); n; n = next(n), ++nodes) {
        if (before && !ascends(before, n)) return "keys do not ascend";
        before = n;
    }
    return nodes == t->size ? std::string_view() : "wrong size";
}  // GCOVR_EXCL_BR_STOP: a sound map takes none of these

}  // namespace Vel
