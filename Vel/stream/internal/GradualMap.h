#pragma once

#include "Vel/base/Types.h"

#include <algorithm>
#include <cstdlib>
#include <new>
#include <utility>

namespace Vel::Detail {

// A hash map whose insertions never take long. It grows by a few buckets with each insertion; a table that grows at
// once takes tens of milliseconds at half a million elements. While the map grows it has two tables: new elements go
// into the larger one, and a key is looked up in both. This is the incremental rehashing that Redis has (dict.c). The
// buckets of a table are on pages. A page is made when its first element comes, and freed when its last bucket has been
// moved, so that memory of several MiB is never cleared or freed at once.
//
// Keys are numbers or pointers that no peer can choose, so they are hashed by a multiplication (Knuth, volume 3,
// section 6.4). Elements stay where they are until they are erased. A new or cleared map owns no memory.
//
// Invariants:
// 1. A table has a power of two of buckets, and each bucket is a list of elements. The buckets of a missing page are
//    empty.
// 2. While the map grows, the buckets of the smaller table below `moved_` are empty.
// 3. The larger table is twice as large as the smaller one, and each insertion moves two buckets, so the smaller one is
//    empty before the map has to grow again.
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
    // Strong guarantee: without memory the map has the same elements as before, some of them perhaps moved. REQUIRES:
    // the map does not have the key.
    Value& add(Key key, Value value) {
        if (size_ == table_.count()) grow();
        move();
        table_.makePage(table_.bucketOf(key));
        auto* const made = new Element{key, std::move(value), nullptr};
        table_.put(made);
        ++size_;
        return made->value;
    }
    bool erase(Key key) {  // returns whether it was there; destroys the value last
        if (size_ == 0) return false;
        Element* found = table_.take(key);
        if (!found && isGrowing()) found = smaller_.take(key);
        if (!found) return false;
        --size_;
        delete found;
        return true;
    }
    // Visits all buckets and elements, as each() does. Destroys the values after the map has become empty.
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
    // Calls f(key, value) for all elements, in no order. REQUIRES: f does not change the map.
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
        static constexpr unsigned pageBits = 12;  // log2 of the buckets on a page; a small table has fewer

        Element*** pages = nullptr;
        unsigned bits = 0;  // log2 of the number of buckets

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
        Element** link(std::size_t i) const {  // where a bucket points to its first element; null without a page
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
        void makePage(std::size_t i) {  // the page of bucket i; strong guarantee
            if (pages[i >> pageBits]) return;
            auto* const page = static_cast<Element**>(std::calloc(pageSize(), sizeof(Element*)));
            if (!page) throw std::bad_alloc();
            pages[i >> pageBits] = page;
        }
        void put(Element* element) {  // REQUIRES: the bucket has a page
            Element*& first = *link(bucketOf(element->key));
            element->next = first;
            first = element;
        }
        void freePage(std::size_t i) { std::free(std::exchange(pages[i >> pageBits], nullptr)); }  // of bucket i
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
    Table smaller_;  // has the elements that have not been moved yet
    std::size_t moved_ = 0, size_ = 0;
};

}  // namespace Vel::Detail
