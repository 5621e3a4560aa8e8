#pragma once

#include "Vel/base/TableHash.h"
#include "Vel/base/Types.h"
#include "Vel/entity/internal/Collection.h"
#include "Vel/entity/internal/HashMap2018Generic.h"

#include <concepts>
#include <cstddef>
#include <functional>
#include <iterator>
#include <memory>
#include <new>
#include <optional>
#include <string_view>
#include <type_traits>
#include <utility>

namespace Vel {

// Returns the hash of a text for tables of this process.
VEL_API U32 hashText(std::string_view text, U32 seed) noexcept;

// The default Hasher. It mixes the process's secret into the hash of a key, so nobody outside the process can choose
// texts or numbers that collide. For other types it mixes the secret into the result of the type's own hash(seed), or
// of std::hash: keys for which that result is equal still collide.
template <class Key> struct KeyHash {
    static U32 hash(Detail::KeyView<Key> const& view, U32 seed) {
        if constexpr (Detail::isText<Key>)
            return hashText(view, seed);
        else if constexpr (std::integral<Key>)
            return keyed(static_cast<U64>(view), seed);
        else if constexpr (requires {
                               { view.hash(seed) } -> std::same_as<U32>;
                           })
            return keyed(view.hash(seed), seed);
        else
            return keyed(std::hash<Key>()(view), seed);
    }

private:
    static U32 keyed(U64 number, U32 seed) { return static_cast<U32>(tableHash(number, seed, ProcessSecret::value())); }
};

// A map without an order, made for collections in entities. An empty map is one pointer and owns no memory. With 1 to 8
// elements of 16 bytes it takes 28 to 48 bytes an element, with more elements 35 to 71 (the allocator's overhead
// included).
//
// A value may be changed in place; changes() does not count that. Pointers to keys and values are valid until the next
// insertion or erasure of any element. Keys and values must move without throwing. Constructors that insert() runs must
// not change the same map; destructors may.
//
// An iteration visits exactly the elements that were in the map when it began (at begin() or iteratorAt()) and are
// still there when their turn comes, each once. It does not visit an element that is inserted later, even if its key
// was in the map before. The current element may be erased, by the iterator or otherwise: then exists() is false, and
// ++ goes on with the next element. If the map is moved, assigned to or swapped, an iteration goes on with unspecified
// elements of its map, or ends. It must not outlive its map.
template <class Key, class Value, U32 seed = 0, class Hasher = KeyHash<Key>> class HashMap {
    template <bool isConst> class BasicIterator;

public:
    using View = Detail::KeyArgument<Key>;
    using Iterator = BasicIterator<false>;
    using ConstIterator = BasicIterator<true>;

    constexpr HashMap() noexcept = default;
    HashMap(HashMap&& other) noexcept = default;  // leaves `other` empty
    HashMap(HashMap const& other) requires(std::copy_constructible<Key>&& std::copy_constructible<Value>) : HashMap() {
        for (auto [key, value] : other) insert(key, value);
    }
    HashMap& operator=(HashMap other) noexcept {
        generic_.swap(other.generic_);
        return *this;
    }
    ~HashMap() { clear(); }

    std::size_t size() const noexcept { return generic_.size(); }
    bool empty() const noexcept { return generic_.empty(); }
    U64 changes() const noexcept { return generic_.changes(); }  // counts insertions, erasures, and clear()

    Value* find(View key) { return valueOf(element(key)); }  // null if there is none
    Value const* find(View key) const { return valueOf(element(key)); }
    bool contains(View key) const { return element(key) != nullptr; }

    // Inserts Value(arguments...) unless the key is there. Returns the value with that key, and whether it is new.
    // Makes a Key only if it is new. If it throws, the map is unchanged.
    template <class K, class... Arguments>
    requires std::constructible_from<Key, K&&> std::pair<Value*, bool> insert(K&& key, Arguments&&... arguments) {
        View view = key;
        U32 const hash = Hasher::hash(view, seed);
        if (void* const found = generic_.find(type, std::addressof(view), hash)) return {valueOf(found), false};
        Scrap scrap;
        auto* const made = new (scrap.bytes) Element(std::forward<K>(key), std::forward<Arguments>(arguments)...);
        try {
            return {valueOf(generic_.insert(type, made, hash)), true};
        } catch (...) {
            made->~Element();
            throw;
        }
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
    bool erase(View key) { return eraseElement(element(key)); }
    bool erase(Iterator const& at) { return eraseElement(at.generic_.element()); }  // false if it was erased before
    std::optional<Value> take(View key) {                                           // erases, and returns the value
        void* const found = element(key);
        if (!found) return std::nullopt;
        Scrap scrap;
        generic_.erase(type, found, scrap.bytes);
        Doomed const doomed{scrap.element()};
        return std::optional<Value>(std::move(doomed.element->value));
    }
    void clear() noexcept { generic_.clear(type); }  // changes() stays the same if the map is empty

    Iterator begin() noexcept { return {generic_, type}; }
    ConstIterator begin() const noexcept { return {generic_, type}; }
    std::default_sentinel_t end() const noexcept { return {}; }
    Iterator iteratorAt(View key) { return {generic_, type, element(key)}; }  // at the end if the key is not there
    ConstIterator iteratorAt(View key) const { return {generic_, type, element(key)}; }

    std::size_t memory() const noexcept { return generic_.memory(type); }  // bytes allocated
    std::string_view brokenInvariant() const { return generic_.brokenInvariant(type); }

private:
    struct Element {
        template <class K, class... Arguments>
        Element(K&& k, Arguments&&... arguments)
            : key(std::forward<K>(k)), value(std::forward<Arguments>(arguments)...) {}
        Element(Element&&) noexcept = default;

        Key key;
        Value value;
    };
    static_assert(std::is_nothrow_move_constructible_v<Key> && std::is_nothrow_move_constructible_v<Value>);
    static_assert(alignof(Element) <= __STDCPP_DEFAULT_NEW_ALIGNMENT__);

    struct Scrap {  // raw storage for one element
        Element* element() { return std::launder(reinterpret_cast<Element*>(bytes)); }
        alignas(Element) std::byte bytes[sizeof(Element)];
    };
    struct Doomed {
        ~Doomed() { element->~Element(); }
        Element* element;
    };

    static Detail::KeyView<Key> const& asView(void const* view) {
        return *static_cast<Detail::KeyView<Key> const*>(view);
    }
    static Element const& asElement(void const* element) { return *static_cast<Element const*>(element); }
    static Value* valueOf(void* element) { return element ? &static_cast<Element*>(element)->value : nullptr; }

    static U32 hash(void const* view, U32 s) { return Hasher::hash(asView(view), s); }
    static U32 hashOfElement(void const* element, U32 s) { return Hasher::hash(View(asElement(element).key), s); }
    static bool equal(void const* element, void const* view) { return View(asElement(element).key) == asView(view); }
    static void destroy(void* element) noexcept { static_cast<Element*>(element)->~Element(); }
    static void relocate(void* to, void* from, std::size_t count) noexcept {
        for (std::size_t i = 0; i < count; ++i) {
            auto* const source = static_cast<Element*>(from) + i;
            new (static_cast<Element*>(to) + i) Element(std::move(*source));
            source->~Element();
        }
    }
    // Hidden, or it would be a process-wide unique symbol, and a library that has such a symbol can't be unloaded.
    __attribute__((visibility("hidden"))) static constexpr HashMap2018Generic::Type type = {
        sizeof(Element), alignof(Element), seed, &hash, &hashOfElement, &equal, &relocate, &destroy};

    void* element(View key) const { return generic_.find(type, std::addressof(key)); }
    bool eraseElement(void* element) {
        if (!element) return false;
        Scrap scrap;
        generic_.erase(type, element, scrap.bytes);
        Doomed const doomed{scrap.element()};
        return true;
    }

    HashMap2018Generic generic_;
};

template <class Key, class Value, U32 seed, class Hasher>
template <bool isConst>
class HashMap<Key, Value, seed, Hasher>::BasicIterator {
public:
    using Entry = Detail::MapEntry<Key, std::conditional_t<isConst, Value const, Value>>;
    using value_type = Entry;
    using difference_type = std::ptrdiff_t;

    constexpr BasicIterator() noexcept = default;
    BasicIterator(HashMap2018Generic const& map, HashMap2018Generic::Type const& t) noexcept : generic_(map, t) {}
    BasicIterator(HashMap2018Generic const& map, HashMap2018Generic::Type const& t, void* element) noexcept
        : generic_(map, t, element) {}

    bool atEnd() const noexcept { return generic_.atEnd(); }
    bool exists() const noexcept { return generic_.element() != nullptr; }  // false at the end, or if it was erased
    Key const& key() const { return (**this).key; }                         // REQUIRES: exists()
    auto& value() const { return (**this).value; }                          // REQUIRES: exists()
    Entry operator*() const {                                               // REQUIRES: exists()
        auto* const element = static_cast<Element*>(generic_.element());
        return {element->key, element->value};
    }
    BasicIterator& operator++() noexcept {
        generic_.next();
        return *this;
    }
    void operator++(int) noexcept { generic_.next(); }
    friend bool operator==(BasicIterator const& i, std::default_sentinel_t) noexcept { return i.atEnd(); }

private:
    friend HashMap;
    HashMap2018Generic::Iterator generic_;
};

}  // namespace Vel
