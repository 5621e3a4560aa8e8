#pragma once

#include "Vel/base/Exception.h"
#include "Vel/base/String.h"
#include "Vel/base/Types.h"

#include <bit>
#include <concepts>
#include <cstring>
#include <span>
#include <type_traits>

// The items of the attribute log: a number in network byte order; a bool as one byte, 1 for true; a double as its IEEE
// bits; a string as a 4-byte length and its bytes. Items carry no type tag: reader and writer must agree on the types.
namespace Vel {

class Entity;
using EntityId = U32;  // names an entity within one attribute log; 0 is the null entity

}  // namespace Vel

namespace Vel::NboAttrLog {

// Converts a number between the host's byte order and network byte order. store() and load() also need no alignment.
template <class T> constexpr T swapped(T value) {
    if constexpr (sizeof(T) == 1 || std::endian::native == std::endian::big)
        return value;
    else if constexpr (sizeof(T) == 2)
        return static_cast<T>(__builtin_bswap16(value));
    else if constexpr (sizeof(T) == 4)
        return static_cast<T>(__builtin_bswap32(value));
    else
        return static_cast<T>(__builtin_bswap64(value));
}
template <class T> inline void store(U8* to, T value) {
    value = swapped(value);
    std::memcpy(to, &value, sizeof value);
}
template <class T> inline T load(U8 const* from) {
    T value;
    std::memcpy(&value, from, sizeof value);
    return swapped(value);
}

// Collects items in a buffer that it owns. clear() keeps the memory, so that a reused Out need not allocate.
class VEL_API Out {
public:
    Out() = default;
    explicit Out(std::size_t capacity) { reserve(capacity); }  // bytes
    Out(Out const&) = delete;
    Out& operator=(Out const&) = delete;
    Out(Out&& other) noexcept;
    Out& operator=(Out&& other) noexcept;
    ~Out();

    std::span<U8 const> bytes() const { return {begin_, size()}; }
    U8 const* data() const { return begin_; }
    std::size_t size() const { return static_cast<std::size_t>(at_ - begin_); }
    std::size_t capacity() const { return static_cast<std::size_t>(end_ - begin_); }
    void clear() { at_ = begin_; }
    void sizeIs(std::size_t size) { at_ = begin_ + size; }  // drops the bytes from `size` on; REQUIRES: size <= size()
    void drop(std::size_t count);     // drops bytes at the front, and moves the others there; REQUIRES: count <= size()
    void release();                   // drops all bytes, and frees the memory
    void reserve(std::size_t more) {  // makes room for `more` bytes; throws std::bad_alloc
        if (static_cast<std::size_t>(end_ - at_) < more) [[unlikely]]
            grow(more);
    }
    // Adds `size` bytes and returns their place. The caller fills them before it adds anything else.
    U8* append(std::size_t size) {
        reserve(size);
        U8* const place = at_;
        at_ += size;
        return place;
    }

    // A template, so that a pointer is not converted to bool.
    template <std::same_as<bool> B> Out& operator<<(B v) { return put<U8>(v ? 1 : 0); }
    Out& operator<<(U1 v) { return put<U8>(v ? 1 : 0); }
    Out& operator<<(U8 v) { return put(v); }
    Out& operator<<(U16 v) { return put(v); }
    Out& operator<<(U32 v) { return put(v); }
    Out& operator<<(U64 v) { return put(v); }
    Out& operator<<(double v) { return put(std::bit_cast<U64>(v)); }
    Out& operator<<(Seconds v) { return *this << v.value(); }
    Out& operator<<(String const& v) {
        U8* const place = append(4 + v.length());
        store(place, static_cast<U32>(v.length()));
        std::memcpy(place + 4, v.charPtr(), v.length());
        return *this;
    }

private:
    template <class T> Out& put(T value) {
        store(append(sizeof value), value);
        return *this;
    }
    VEL_COLD void grow(std::size_t more);

    U8* begin_ = nullptr;
    U8* at_ = nullptr;
    U8* end_ = nullptr;
};

// Finds the entity of an id in the log that is being read.
class VEL_API EntityResolver {
public:
    virtual Entity* entity(EntityId id) = 0;  // null if no entity has the id

protected:
    ~EntityResolver() = default;
};

// Reads items from bytes that it does not own. A next...() throws StreamException if the bytes end too early, or hold
// what no writer writes. The exception says what was being read and where, and the position stays before the item. Only
// the storage of strings is allocated, never more than the bytes that are left.
class VEL_API In {
public:
    explicit In(std::span<U8 const> bytes, EntityResolver* resolver = nullptr)
        : begin_(bytes.data()), at_(begin_), end_(begin_ + bytes.size()), resolver_(resolver) {}

    std::size_t left() const { return static_cast<std::size_t>(end_ - at_); }      // bytes
    std::size_t offset() const { return static_cast<std::size_t>(at_ - begin_); }  // bytes from the beginning

    U8 nextU8() { return next<U8>("U8"); }
    U16 nextU16() { return next<U16>("U16"); }
    U32 nextU32() { return next<U32>("U32"); }
    U64 nextU64() { return next<U64>("U64"); }
    bool nextbool() {
        need(1, "bool");
        if (*at_ > 1) [[unlikely]]
            failBool();
        return *at_++ != 0;
    }
    double nextF64() { return std::bit_cast<double>(next<U64>("F64")); }
    Seconds nextSeconds() { return std::bit_cast<double>(next<U64>("Vel::Seconds")); }
    String nextString();
    EntityId peekEntityId();  // returns the next id, and does not consume it
    Entity* nextEntity();     // null for the null entity; throws StreamException for an id that no entity has

    // Returns the place of the next byte, and does not consume it. left() bytes can be read there.
    U8 const* data() const { return at_; }
    void dataIs(U8 const* at) { at_ = at; }  // moves the position; REQUIRES: `at` is within the bytes
    // Consumes `size` bytes and returns their place. If fewer are left, returns null and consumes nothing.
    U8 const* take(std::size_t size) {
        if (left() < size) [[unlikely]]
            return nullptr;
        U8 const* const place = at_;
        at_ += size;
        return place;
    }

private:
    template <class T> T next(char const* what) {
        need(sizeof(T), what);
        T const value = load<T>(at_);
        at_ += sizeof(T);
        return value;
    }
    void need(std::size_t size, char const* what) const {
        if (left() < size) [[unlikely]]
            failTruncated(size, what);
    }
    [[noreturn]] VEL_COLD void failTruncated(std::size_t size, char const* what) const;
    [[noreturn]] VEL_COLD void failBool() const;

    U8 const* begin_;
    U8 const* at_;
    U8 const* end_;
    EntityResolver* resolver_;
};

// Throw StreamException for a bad collection in a value. The default key of its key type marks the end of a collection
// in the attribute log, so no member may have that key; and no key may come twice.
[[noreturn]] VEL_API VEL_COLD void failWithAttrLogValueCollectionDefaultKey();
[[noreturn]] VEL_API VEL_COLD void failWithAttrLogValueCollectionDuplicateKey();

}  // namespace Vel::NboAttrLog
