#pragma once

#include "Vel/base/Types.h"

#include <cstdlib>
#include <new>
#include <utility>

namespace Vel::Detail {

// A hash map that never takes long: it grows by a few buckets with each insertion and erasure, where a table that grows
// as a whole takes tens of milliseconds at half a million elements. While it grows there are two tables, the larger of
// which takes what is new; a key is looked for in both. This is the incremental rehashing that Redis has (dict.c).
//
// Keys are numbers or pointers, which nobody outside can choose: they are hashed by a multiplication (Knuth, volume 3,
// section 6.4). Elements stay where they are until they are erased. Empty it owns nothing.
//
// Invariants:
// 1. A table has a power of two of buckets, each a list of elements.
// 2. While it grows, buckets of the smaller table below `moved_` are empty.
// 3. The larger table is twice as large, and each insertion moves two buckets: the smaller is empty before it grows
//    again.
template <class Key, class Value> class GradualMap {
public:
    GradualMap() = default;
    GradualMap(GradualMap const&) = delete;
    GradualMap& operator=(GradualMap const&) = delete;
    ~GradualMap() { clear(); }

    std::size_t size() const { return size_; }
    bool isGrowing() const { return smaller_.buckets != nullptr; }

    Value* find(Key key) const {  // or null
        if (size_ == 0) return nullptr;
        if (Element* const found = *table_.find(key)) return &found->value;
        if (!isGrowing()) return nullptr;
        Element* const found = *smaller_.find(key);
        return found ? &found->value : nullptr;
    }
    // Strong guarantee. REQUIRES: the key is not there.
    Value& add(Key key, Value value) {
        if (size_ == table_.count()) grow();
        auto* const made = new Element{key, std::move(value), nullptr};
        table_.put(made);
        ++size_;
        move();
        return made->value;
    }
    bool erase(Key key) {  // destroys the value when the map is in order again; whether it was there
        if (size_ == 0) return false;
        Element* found = table_.take(key);
        if (!found && isGrowing()) found = smaller_.take(key);
        if (!found) return false;
        --size_;
        move();
        delete found;
        return true;
    }
    // Takes as long as there are elements, as each() does; destroys the values when the map is empty.
    void clear() {
        Table old[] = {std::exchange(smaller_, {}), std::exchange(table_, {})};
        size_ = 0;
        for (Table& table : old) {
            for (std::size_t i = 0; i < table.count(); ++i)
                while (Element* const element = table.buckets[i]) {
                    table.buckets[i] = element->next;
                    delete element;
                }
            std::free(table.buckets);
        }
    }
    // Calls f(key, value) for all, in no order. The map may not change meanwhile.
    template <class F> void each(F f) const {
        for (Table const* const table : {&smaller_, &table_})
            for (std::size_t i = 0; i < table->count(); ++i)
                for (Element* at = table->buckets[i]; at; at = at->next) f(at->key, at->value);
    }

private:
    static constexpr unsigned leastBits = 4;

    struct Element {
        Key key;
        Value value;
        Element* next;
    };
    struct Table {
        Element** buckets = nullptr;
        unsigned bits = 0;  // log2 of how many

        std::size_t count() const { return buckets ? std::size_t(1) << bits : 0; }
        std::size_t bucketOf(Key key) const {
            U64 number;
            if constexpr (requires { static_cast<U64>(key); })
                number = key;
            else
                number = reinterpret_cast<U64>(key);
            return static_cast<std::size_t>(number * 0x9e3779b97f4a7c15u >> (64 - bits));
        }
        Element** find(Key key) const {  // what leads to it, or to null
            Element** at = &buckets[bucketOf(key)];
            while (*at && (*at)->key != key) at = &(*at)->next;
            return at;
        }
        Element* take(Key key) {
            Element** const at = find(key);
            Element* const element = *at;
            if (element) *at = element->next;
            return element;
        }
        void put(Element* element) {
            Element*& bucket = buckets[bucketOf(element->key)];
            element->next = bucket;
            bucket = element;
        }
    };

    // Memory from the system is zero already where there is much of it: that takes no time here.
    void grow() {
        Table larger;
        larger.bits = table_.buckets ? table_.bits + 1 : leastBits;
        larger.buckets = static_cast<Element**>(std::calloc(std::size_t(1) << larger.bits, sizeof(Element*)));
        if (!larger.buckets) throw std::bad_alloc();
        smaller_ = std::exchange(table_, larger);
        moved_ = 0;
    }
    void move() {
        for (int i = 0; i < 2 && isGrowing(); ++i) {
            while (Element* const element = smaller_.buckets[moved_]) {
                smaller_.buckets[moved_] = element->next;
                table_.put(element);
            }
            if (++moved_ == smaller_.count()) std::free(std::exchange(smaller_, {}).buckets);
        }
    }

    Table table_;
    Table smaller_;  // what has not moved yet
    std::size_t moved_ = 0, size_ = 0;
};

}  // namespace Vel::Detail
