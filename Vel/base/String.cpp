#include "Vel/base/String.h"

#include "Vel/base/Exception.h"
#include "Vel/base/Ptr.h"
#include "Vel/base/TableHash.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <ostream>
#include <unordered_set>

namespace Vel {

char* String::allocate(std::size_t length) {
    if (length == 0) return nullptr;
    if (length > maxLength)
        throwRangeException(format("a string of %zu bytes exceeds the limit of %zu", length, maxLength));
    void* const memory = std::malloc(sizeof(Header) + length + 1);
    if (!memory) throw std::bad_alloc();
    auto* const header = new (memory) Header{1, static_cast<U32>(length)};
    char* const rep = reinterpret_cast<char*>(header + 1);
    rep[length] = '\0';
    return rep;
}

String::String(char const* text) : String(text, text ? std::strlen(text) : 0) {}

String::String(char const* text, std::size_t length) : rep_(allocate(length)) {
    if (rep_) std::memcpy(rep_, text, length);
}

String::String(String const& other, std::size_t start, std::size_t length) {
    if (start > other.length())
        throwRangeException(format("position %zu is beyond a string of %zu bytes", start, other.length()));
    std::string_view const part = other.view().substr(start, length);
    if (part.size() == other.length())
        *this = other;
    else
        *this = String(part);
}

String::String(IteratorConst const& from)
    : String(from.charPtr(),
          from.beginPtr() ? reinterpret_cast<Header const*>(from.beginPtr())[-1].length - from.offset() : 0) {}

String::String(IteratorConst const& from, IteratorConst const& to)
    : String(from.charPtr(), static_cast<std::size_t>(to - from)) {}

String& String::operator=(String const& other) noexcept {
    other.newRef();  // before deleteRef: other may be this string
    deleteRef();
    rep_ = other.rep_;
    return *this;
}

String& String::operator=(String&& other) noexcept {
    std::swap(rep_, other.rep_);
    return *this;
}

void String::newRefSlow() const noexcept { referenceWordAdd(header()->references, 1); }

void String::deleteRefSlow() const noexcept {
    if (referenceWordAdd(header()->references, ~U32(0)) == 1) std::free(const_cast<Header*>(header()));
}

String& String::operator+=(char const* text) { return *this = *this + String(text); }
String& String::operator+=(String const& other) { return *this = *this + other; }

String String::operator+(String const& other) const {
    if (empty()) return other;
    if (other.empty()) return *this;
    return withLength(length() + other.length(), [&](char* to) {
        std::memcpy(to, rep_, length());
        std::memcpy(to + length(), other.rep_, other.length());
    });
}

String operator+(char const* a, String const& b) { return String(a) + b; }

std::size_t String::pos(std::size_t start, char c) const noexcept { return view().find(c, start); }

std::size_t String::pos(std::size_t start, char const* text, std::size_t length) const noexcept {
    return view().find(text, start, length);
}

namespace {

// The shared copies that dedup() uses. When the pool has reached `sweepAt`, it removes strings that nobody else holds.
struct DedupPool {
    std::mutex mutex;
    std::unordered_set<String, TableHasher> strings;
    std::size_t sweepAt = 1024;
};

DedupPool& dedupPool() {
    static auto* const pool = new DedupPool;  // never destroyed: strings may be deduplicated during process exit
    return *pool;
}

}  // namespace

String& String::dedup() {
    if (empty()) return *this = String();
    DedupPool& pool = dedupPool();
    std::lock_guard const lock(pool.mutex);
    if (auto const found = pool.strings.find(*this); found != pool.strings.end()) return *this = *found;
    if (pool.strings.size() >= pool.sweepAt) {
        std::erase_if(pool.strings,
            [](String const& s) { return __atomic_load_n(&s.header()->references, __ATOMIC_ACQUIRE) == 1; });
        pool.sweepAt = std::max<std::size_t>(1024, 2 * pool.strings.size());
    }
    pool.strings.insert(*this);
    return *this;
}

std::ostream& operator<<(std::ostream& out, String const& s) { return out << s.view(); }

String format(char const* format, ...) {
    std::va_list arguments;
    std::va_list again;
    va_start(arguments, format);
    va_copy(again, arguments);
    char buffer[256];
    int const length = std::vsnprintf(buffer, sizeof buffer, format, arguments);
    va_end(arguments);
    if (length < 0) {
        va_end(again);
        throwRangeException("malformed format");
    }
    auto const size = static_cast<std::size_t>(length);
    if (size < sizeof buffer) {
        va_end(again);
        return String(buffer, size);
    }
    String result = String::withLength(size, [&](char* to) { std::vsnprintf(to, size + 1, format, again); });
    va_end(again);
    return result;
}

}  // namespace Vel
