#pragma once

#include "Vel/base/Types.h"

#include <algorithm>
#include <cstdlib>
#include <new>
#include <utility>

namespace Vel::Detail {

// A hash map that never takes long: it grows by a few buckets with each insertion, where a table that grows as a
// whole takes tens of milliseconds at half a million elements. While it grows there are two tables, the larger of
// which takes what is new; a key is looked for in both. This is the incremental rehashing that Redis has (dict.c). The
// buckets of a table are on pages, each of which is made when its first element comes and freed when its last bucket
// has been moved: memory of several MiB is never cleared or given back at once either.
//
// Keys are numbers or pointers, which nobody outside can choose: they are hashed by a multiplication (Knuth, volume 3,
// section 6.4). Elements stay where they are until they are erased. Empty it owns nothing.
//
// Invariants:
// 1. A table has a power of two of buckets, each a list of elements. A page that is not there has empty ones.
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
    bool isGrowing() const { return smaller_.pages != nullptr; }

    Value* find(Key key) const {  // or null
        if (size_ == 0) return nullptr;
        if (Element* const found = table_.find(key)) return &found->value;
        if (!isGrowing()) return nullptr;
        Element* const found = smaller_.find(key);
        return found ? &found->value : nullptr;
    }
    // Strong guarantee: what has been moved when memory ends can be found as before. REQUIRES: the key is not there.
    Value& add(Key key, Value value) {
        if (size_ == table_.count()) grow();
        move();
        table_.makePage(table_.bucketOf(key));
        auto* const made = new Element{key, std::move(value), nullptr};
        table_.put(made);
        ++size_;
        return made->value;
    }
    bool erase(Key key) {  // destroys the value when the map is in order again; whether it was there
        if (size_ == 0) return false;
        Element* found = table_.take(key);
        if (!found && isGrowing()) found = smaller_.take(key);
        if (!found) return false;
        --size_;
        delete found;
        return true;
    }
    // Takes as long as there are elements, as each() does; destroys the values when the map is empty.
    void clear() {
        Table old[] = {std::exchange(smaller_, {}), std::exchange(table_, {})};
        size_ = 0;
        for (Table& table : old) {
            for (std::size_t i = 0; i < table.count(); ++i)
                while (Element* const element = table.bucket(i)) {
                    *table.link(i) = element->next;
                    delete element;
                }
            table.free();
        }
    }
    // Calls f(key, value) for all, in no order. The map may not change meanwhile.
    template <class F> void each(F f) const {
        for (Table const* const table : {&smaller_, &table_})
            for (std::size_t i = 0; i < table->count(); ++i)
                for (Element* at = table->bucket(i); at; at = at->next) f(at->key, at->value);
    }

private:
    static constexpr unsigned leastBits = 4;

    struct Element {
        Key key;
        Value value;
        Element* next;
    };
    struct Table {
        static constexpr unsigned pageBits = 12;  // log2 of the buckets on a page, of which a small table has fewer

        Element*** pages = nullptr;
        unsigned bits = 0;  // log2 of how many buckets

        std::size_t count() const { return pages ? std::size_t(1) << bits : 0; }
        std::size_t pageCount() const { return bits > pageBits ? std::size_t(1) << (bits - pageBits) : 1; }
        std::size_t pageSize() const { return std::size_t(1) << std::min(bits, pageBits); }  // in buckets
        std::size_t bucketOf(Key key) const {
            U64 number;
            if constexpr (requires { static_cast<U64>(key); })
                number = key;
            else
                number = reinterpret_cast<U64>(key);
            return static_cast<std::size_t>(number * 0x9e3779b97f4a7c15u >> (64 - bits));
        }
        Element** link(std::size_t i) const {  // to the first element of a bucket; null without a page
            Element** const page = pages[i >> pageBits];
            return page ? &page[i & (pageSize() - 1)] : nullptr;
        }
        Element* bucket(std::size_t i) const {
            Element** const at = link(i);
            return at ? *at : nullptr;
        }
        Element* find(Key key) const {
            Element* at = bucket(bucketOf(key));
            while (at && at->key != key) at = at->next;
            return at;
        }
        Element* take(Key key) {
            Element** at = link(bucketOf(key));
            if (!at) return nullptr;
            while (*at && (*at)->key != key) at = &(*at)->next;
            Element* const element = *at;
            if (element) *at = element->next;
            return element;
        }
        void makePage(std::size_t i) {  // for a bucket; strong guarantee
            if (pages[i >> pageBits]) return;
            auto* const page = static_cast<Element**>(std::calloc(pageSize(), sizeof(Element*)));
            if (!page) throw std::bad_alloc();
            pages[i >> pageBits] = page;
        }
        void put(Element* element) {  // REQUIRES: the page is there
            Element*& first = *link(bucketOf(element->key));
            element->next = first;
            first = element;
        }
        void freePage(std::size_t i) { std::free(std::exchange(pages[i >> pageBits], nullptr)); }  // of a bucket
        void free() {
            if (!pages) return;
            for (std::size_t i = 0; i < pageCount(); ++i) std::free(pages[i]);
            std::free(std::exchange(pages, nullptr));
        }
    };

    void grow() {
        Table larger;
        larger.bits = table_.pages ? table_.bits + 1 : leastBits;
        larger.pages = static_cast<Element***>(std::calloc(larger.pageCount(), sizeof(Element**)));
        if (!larger.pages) throw std::bad_alloc();
        smaller_ = std::exchange(table_, larger);
        moved_ = 0;
    }
    void move() {
        for (int i = 0; i < 2 && isGrowing(); ++i) {
            while (Element* const element = smaller_.bucket(moved_)) {
                table_.makePage(table_.bucketOf(element->key));
                *smaller_.link(moved_) = element->next;
                table_.put(element);
            }
            if (((moved_ + 1) & (smaller_.pageSize() - 1)) == 0) smaller_.freePage(moved_);
            if (++moved_ == smaller_.count()) smaller_.free();
        }
    }

    Table table_;
    Table smaller_;  // what has not moved yet
    std::size_t moved_ = 0, size_ = 0;
};

}  // namespace Vel::Detail
