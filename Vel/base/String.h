#pragma once

#include "Vel/base/Types.h"

#include <compare>
#include <concepts>
#include <functional>
#include <iosfwd>
#include <iterator>
#include <string>
#include <string_view>

namespace Vel {

// What a text can be passed as: a std::string_view, a Vel::String, a std::string, or a char pointer.
template <class S>
concept TextLike = std::convertible_to<S const&, std::string_view>;

// Returns the bytes of a text, which need not end with a NUL. A null char pointer is the empty text.
template <TextLike S> constexpr std::string_view viewOf(S const& s) noexcept {
    if constexpr (std::convertible_to<S const&, char const*>) {
        char const* const p = s;
        return p ? std::string_view(p) : std::string_view();
    } else {
        return s;
    }
}

// An immutable character string with shared storage; one pointer wide.
//
// Invariants:
// 1. rep_ is null or points to the characters. The reference count and the length are before them, a NUL after them.
// 2. A null rep_ and a zero length both mean the empty string; all functions treat them alike.
// 3. The characters never change after construction; assignment makes the string share other storage.
//
// Threads: one String object is for one thread at a time. Strings that share storage may be used by several threads
// only if VFPtrInterface::threadSafePointers_ is set, which makes the count atomic.
class VEL_API String {
public:
    static constexpr std::size_t npos = static_cast<std::size_t>(-1);
    static constexpr std::size_t maxLength = 0xFFFFFFF0u;  // bytes
    class IteratorConst;

    constexpr String() noexcept = default;
    String(char const* text);  // null means the empty string
    String(char const* text, std::size_t length);
    String(std::string_view text) : String(text.data(), text.size()) {}
    String(std::string const& text) : String(text.data(), text.size()) {}
    // The part of `other` from `start` on, at most `length` bytes. Throws RangeException if start > other.length().
    String(String const& other, std::size_t start, std::size_t length = npos);
    explicit String(IteratorConst const& from);  // up to the end of the string that `from` walks
    String(IteratorConst const& from, IteratorConst const& to);

    String(String const& other) noexcept : rep_(other.rep_) { newRef(); }
    String(String&& other) noexcept : rep_(other.rep_) { other.rep_ = nullptr; }
    String& operator=(String const& other) noexcept;
    String& operator=(String&& other) noexcept;
    String& operator=(char const* text) { return *this = String(text); }
    ~String() { deleteRef(); }

    // Returns a string of `length` bytes, which `fill(char*)` writes in place. Does not call `fill` if `length` is 0.
    template <class Fill> static String withLength(std::size_t length, Fill fill) {
        String s(Adopt(), allocate(length));
        if (s.rep_) fill(s.rep_);
        return s;
    }

    std::size_t length() const noexcept { return rep_ ? header()->length : 0; }  // bytes
    std::size_t size() const noexcept { return length(); }
    bool empty() const noexcept { return length() == 0; }
    char operator[](std::size_t i) const { return rep_[i]; }  // REQUIRES: i < length()

    char const* charPtr() const noexcept { return rep_ ? rep_ : ""; }  // NUL-terminated; never null
    char const* data() const noexcept { return charPtr(); }
    std::string stdString() const { return std::string(view()); }
    std::string_view view() const noexcept { return {charPtr(), length()}; }
    operator std::string_view() const noexcept { return view(); }

    IteratorConst begin() const noexcept;
    IteratorConst end() const noexcept;

    String& operator+=(char const* text);
    String& operator+=(String const& other);
    String operator+(String const& other) const;

    // Return the index of the first match at or after `start`, or npos if there is none.
    std::size_t pos(std::size_t start, char c) const noexcept;
    std::size_t pos(std::size_t start, char const* text, std::size_t length) const noexcept;

    // Makes this string share the storage of the process's one copy of the same characters. Takes a process-wide lock.
    String& dedup();
    bool sharesStorageWith(String const& other) const noexcept { return rep_ == other.rep_; }

    // Compare bytes with anything that converts to a string_view. A null char pointer is the empty string.
    template <TextLike S> friend bool operator==(String const& a, S const& b) noexcept { return a.view() == viewOf(b); }
    template <TextLike S> friend std::strong_ordering operator<=>(String const& a, S const& b) noexcept {
        return a.view() <=> viewOf(b);
    }

private:
    struct Header {
        mutable U32 references;
        U32 length;
    };

    struct Adopt {};  // marks the constructor that takes over `rep`; String(char*) copies
    String(Adopt, char* rep) noexcept : rep_(rep) {}
    static char* allocate(std::size_t length);  // null for length 0
    Header const* header() const noexcept { return reinterpret_cast<Header const*>(rep_) - 1; }
    void newRef() const noexcept {
        if (rep_) newRefSlow();
    }
    void deleteRef() const noexcept {
        if (rep_) deleteRefSlow();
    }
    void newRefSlow() const noexcept;
    void deleteRefSlow() const noexcept;

    char* rep_ = nullptr;
};

// Walks the characters of one String. It also has the beginning of that string, so that a parser can say at which byte
// it stopped. It holds no reference, so it must not outlive its string. Both pointers are null for an empty string
// without storage.
class String::IteratorConst {
public:
    using iterator_concept = std::contiguous_iterator_tag;
    using iterator_category = std::random_access_iterator_tag;
    using value_type = char;
    using difference_type = std::ptrdiff_t;
    using pointer = char const*;
    using reference = char const&;

    constexpr IteratorConst() = default;
    constexpr IteratorConst(char const* begin, char const* at) : begin_(begin), at_(at) {}

    constexpr char const& operator*() const { return *at_; }
    constexpr char const* operator->() const { return at_; }
    constexpr char const& operator[](difference_type n) const { return at_[n]; }
    constexpr IteratorConst& operator++() { return *this += 1; }
    constexpr IteratorConst operator++(int) { return {begin_, at_++}; }
    constexpr IteratorConst& operator--() { return *this -= 1; }
    constexpr IteratorConst operator--(int) { return {begin_, at_--}; }
    constexpr IteratorConst& operator+=(difference_type n) {
        at_ += n;
        return *this;
    }
    constexpr IteratorConst& operator-=(difference_type n) { return *this += -n; }
    friend constexpr IteratorConst operator+(IteratorConst i, difference_type n) { return i += n; }
    friend constexpr IteratorConst operator+(difference_type n, IteratorConst i) { return i += n; }
    friend constexpr IteratorConst operator-(IteratorConst i, difference_type n) { return i -= n; }
    friend constexpr difference_type operator-(IteratorConst a, IteratorConst b) { return a.at_ - b.at_; }
    friend constexpr bool operator==(IteratorConst a, IteratorConst b) { return a.at_ == b.at_; }
    friend constexpr auto operator<=>(IteratorConst a, IteratorConst b) { return a.at_ <=> b.at_; }

    constexpr char const* charPtr() const { return at_; }
    constexpr void charPtrIs(char const* at) { at_ = at; }  // REQUIRES: `at` is within the same string
    constexpr std::size_t offset() const { return static_cast<std::size_t>(at_ - begin_); }  // bytes from the beginning
    constexpr char const* beginPtr() const { return begin_; }

private:
    char const* begin_ = nullptr;
    char const* at_ = nullptr;
};

inline String::IteratorConst String::begin() const noexcept { return {rep_, rep_}; }
inline String::IteratorConst String::end() const noexcept { return {rep_, rep_ + length()}; }

VEL_API String operator+(char const* a, String const& b);
VEL_API std::ostream& operator<<(std::ostream& out, String const& s);

// Formats like printf(); the result may have any length. Throws RangeException if printf() fails.
VEL_API String format(char const* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace Vel

template <> struct std::hash<Vel::String> {
    std::size_t operator()(Vel::String const& s) const noexcept { return std::hash<std::string_view>()(s.view()); }
};
