#pragma once

#include "Vel/base/Ptr.h"
#include "Vel/base/Types.h"
#include "Vel/entity/internal/Collection.h"
#include "Vel/entity/internal/RbTreeMapGeneric.h"

#include <concepts>
#include <cstddef>
#include <iterator>
#include <memory>
#include <optional>
#include <string_view>
#include <type_traits>
#include <utility>

namespace Vel {

// The default node of an OrderedMap.
template <class Key, class Value> class OrderedMapNode : public RbTreeMapGeneric::Node {
public:
    template <class K, class... Arguments>
    requires std::constructible_from<Key, K&&>
    explicit OrderedMapNode(K&& key, Arguments&&... arguments)
        : key_(std::forward<K>(key)), value_(std::forward<Arguments>(arguments)...) {}

    Key const& key() const { return key_; }
    Value& value() { return value_; }
    Value const& value() const { return value_; }

private:
    Key key_;
    Value value_;
};

// A map in ascending order by the key's operator< (texts by their bytes), made for collections in entities and values.
// An empty map is one pointer and owns no memory. An element takes a node: 24 bytes, the key and the value.
//
// A collection may have its own node type, with the members of OrderedMapNode, and derived from RbTreeMapGeneric::Node.
// If the node type also derives from PtrInterface, the map holds one reference to each node, so that a node can live on
// after it was removed from the map.
//
// A value may be changed in place; changes() does not count that. Pointers to keys and values are valid as long as
// their element. Constructors that insert() runs must not change the same map; destructors may.
//
// An iteration visits strictly ascending keys. Each ++ goes to the next greater key that is in the map at that moment.
// So an element that stays in the map is visited once; an element that is inserted meanwhile is visited if its key is
// greater than the current one. The current element may be erased, by the iterator or otherwise: then the iterator
// keeps its key, exists() is false until an element with that key is inserted again, and ++ goes to the next greater
// key. The same holds if the map is moved, assigned to or swapped. An iterator must not outlive its map.
template <class Key, class Value, class NodeType = OrderedMapNode<Key, Value>> class OrderedMap {
    template <bool isConst> class BasicIterator;

public:
    using View = Detail::KeyArgument<Key>;
    using Iterator = BasicIterator<false>;
    using ConstIterator = BasicIterator<true>;

    constexpr OrderedMap() noexcept = default;
    OrderedMap(OrderedMap&& other) noexcept = default;  // leaves `other` empty
    OrderedMap(OrderedMap const& other) requires(std::copy_constructible<Key>&& std::copy_constructible<Value>) {
        generic_.copyFrom(type, other.generic_);
    }
    OrderedMap& operator=(OrderedMap other) noexcept {
        generic_.swap(other.generic_);
        return *this;
    }
    ~OrderedMap() { clear(); }

    std::size_t size() const noexcept { return generic_.size(); }
    bool empty() const noexcept { return generic_.empty(); }
    U64 changes() const noexcept { return generic_.changes(); }  // counts insertions, erasures, and clear()

    Value* find(View key) { return valueOf(node(key)); }  // null if there is none
    Value const* find(View key) const { return valueOf(node(key)); }
    bool contains(View key) const { return node(key) != nullptr; }
    NodeType* node(View key) const {
        return asNode(generic_.find(type, std::addressof(key)));
    }  // null if there is none

    // Inserts Value(arguments...) unless the key is there. Returns the value with that key, and whether it is new.
    // Makes a Key only if it is new. If it throws, the map is unchanged.
    template <class K, class... Arguments>
    requires std::constructible_from<Key, K&&> std::pair<Value*, bool> insert(K&& key, Arguments&&... arguments) {
        View view = key;
        auto const place = generic_.place(type, std::addressof(view));
        if (place.found) return {valueOf(asNode(place.found)), false};
        Owner made(new NodeType(std::forward<K>(key), std::forward<Arguments>(arguments)...));
        if constexpr (counted) made->newRef();
        generic_.insert(place, made.get());
        return {valueOf(made.release()), true};
    }
    // Inserts or assigns. Returns whether the key is new.
    template <class K> bool set(K&& key, Value value) {
        if (Value* const found = find(key)) {
            *found = std::move(value);
            return false;
        }
        return insert(std::forward<K>(key), std::move(value)).second;
    }

    // These first take the element out of the map and then destroy it, so its destructor may use the map.
    bool erase(View key) { return remove(node(key)) != nullptr; }
    bool erase(Iterator const& at) { return remove(at.node()) != nullptr; }  // false if it was erased before
    std::optional<Value> take(View key) {                                    // erases, and returns the value
        Owner const removed = remove(node(key));
        if (!removed) return std::nullopt;
        return std::optional<Value>(std::move(removed->value()));
    }
    void clear() noexcept { generic_.clear(type); }  // changes() stays the same if the map is empty

    Iterator begin() { return {this, asNode(generic_.first())}; }
    ConstIterator begin() const { return {this, asNode(generic_.first())}; }
    std::default_sentinel_t end() const noexcept { return {}; }
    // These are at the end if there is no such element.
    Iterator iteratorAt(View key) { return {this, node(key)}; }
    ConstIterator iteratorAt(View key) const { return {this, node(key)}; }
    Iterator last() { return {this, asNode(generic_.last())}; }
    ConstIterator last() const { return {this, asNode(generic_.last())}; }
    Iterator lowerBound(View key) { return {this, bound(key, true)}; }  // at the first key that is not less
    ConstIterator lowerBound(View key) const { return {this, bound(key, true)}; }
    Iterator upperBound(View key) { return {this, bound(key, false)}; }  // at the first key that is greater
    ConstIterator upperBound(View key) const { return {this, bound(key, false)}; }

    friend bool operator==(OrderedMap const& a, OrderedMap const& b) requires(
        std::equality_comparable<Key>&& std::equality_comparable<Value>) {
        if (a.size() != b.size()) return false;
        auto* n = a.generic_.first();
        for (auto* m = b.generic_.first(); m; m = RbTreeMapGeneric::next(m), n = RbTreeMapGeneric::next(n))
            if (!(asNode(n)->key() == asNode(m)->key() && asNode(n)->value() == asNode(m)->value())) return false;
        return true;
    }

    std::string_view brokenInvariant() const { return generic_.brokenInvariant(&ascends); }

private:
    using Node = RbTreeMapGeneric::Node;
    static constexpr bool counted = std::derived_from<NodeType, PtrInterface>;
    struct Release {
        void operator()(NodeType* node) const {
            if constexpr (counted)
                node->deleteRef();
            else
                delete node;
        }
    };
    using Owner = std::unique_ptr<NodeType, Release>;

    static NodeType* asNode(Node* node) { return static_cast<NodeType*>(node); }
    static NodeType const& asNode(Node const* node, int) { return *static_cast<NodeType const*>(node); }
    static Value* valueOf(NodeType* node) { return node ? &node->value() : nullptr; }

    static int compare(void const* view, Node const* node) {
        auto const& v = *static_cast<Detail::KeyView<Key> const*>(view);
        View key = asNode(node, 0).key();
        if constexpr (Detail::isText<Key>)
            return v.compare(key);
        else
            return int(key < v) - int(v < key);
    }
    static bool ascends(Node const* a, Node const* b) { return asNode(a, 0).key() < asNode(b, 0).key(); }
    static Node* clone(Node const* node) {
        auto* const made = new NodeType(asNode(node, 0).key(), asNode(node, 0).value());
        if constexpr (counted) made->newRef();
        return made;
    }
    static constexpr auto cloneIfPossible() -> Node* (*)(Node const*) {
        if constexpr (std::copy_constructible<Key> && std::copy_constructible<Value>)
            return &clone;
        else
            return nullptr;
    }
    static void destroy(Node* node) noexcept { Release()(asNode(node)); }
    // Hidden, or it would be a process-wide unique symbol, and a library that has such a symbol can't be unloaded.
    __attribute__((visibility("hidden"))) static constexpr RbTreeMapGeneric::Type type = {
        &compare, cloneIfPossible(), &destroy};

    NodeType* bound(View key, bool orEqual) const { return asNode(generic_.bound(type, std::addressof(key), orEqual)); }
    Owner remove(NodeType* node) noexcept {
        if (node) generic_.remove(node);
        return Owner(node);
    }

    RbTreeMapGeneric generic_;
};

template <class Key, class Value, class NodeType>
template <bool isConst>
class OrderedMap<Key, Value, NodeType>::BasicIterator {
public:
    using Map = std::conditional_t<isConst, OrderedMap const, OrderedMap>;
    using Entry = Detail::MapEntry<Key, std::conditional_t<isConst, Value const, Value>>;
    using value_type = Entry;
    using difference_type = std::ptrdiff_t;

    BasicIterator() = default;
    BasicIterator(Map* map, NodeType* node) : map_(map) { moveTo(node); }

    bool atEnd() const noexcept { return !key_; }
    bool exists() const { return node() != nullptr; }             // false at the end, and while no element has the key
    Key const& key() const { return *key_; }                      // REQUIRES: !atEnd()
    auto& value() const { return (**this).value; }                // REQUIRES: exists()
    Entry operator*() const { return {*key_, node()->value()}; }  // REQUIRES: exists(); valid until the next ++
    NodeType* node() const {                                      // the current node, or null if it was erased
        if (atEnd()) return nullptr;
        return changes_ == map_->changes() ? node_ : map_->node(*key_);
    }

    BasicIterator& operator++() {
        if (!atEnd())
            moveTo(changes_ == map_->changes() ? asNode(RbTreeMapGeneric::next(node_)) : map_->bound(*key_, false));
        return *this;
    }
    void operator++(int) { ++*this; }
    friend bool operator==(BasicIterator const& i, std::default_sentinel_t) noexcept { return i.atEnd(); }

private:
    void moveTo(NodeType* node) {
        node_ = node;
        changes_ = map_->changes();
        if (node)
            key_.emplace(node->key());
        else
            key_.reset();
    }

    Map* map_ = nullptr;
    NodeType* node_ = nullptr;
    U64 changes_ = 0;  // the map's changes() when node_ was set
    std::optional<Key> key_;
};

}  // namespace Vel
