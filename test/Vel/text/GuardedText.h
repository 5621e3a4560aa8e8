#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>
#include <new>
#include <string_view>

// A text in memory with a page before and a page behind that must not be touched: who reads or writes there crashes.
class GuardedText {
public:
    enum class At { begin, end };  // whether the text touches the page before, or the one behind

    explicit GuardedText(std::string_view text, At at = At::end)
        : page_(static_cast<std::size_t>(sysconf(_SC_PAGESIZE))),
          pages_((text.size() / page_ + 1)),
          size_(text.size()) {
        void* const memory = mmap(nullptr, length(), PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED) throw std::bad_alloc();
        memory_ = static_cast<char*>(memory);
        if (mprotect(memory_ + page_, pages_ * page_, PROT_READ | PROT_WRITE) != 0) throw std::bad_alloc();
        begin_ = memory_ + page_ + (at == At::begin ? 0 : pages_ * page_ - size_);
        if (!text.empty()) std::memcpy(begin_, text.data(), text.size());
    }
    GuardedText(GuardedText const&) = delete;
    GuardedText& operator=(GuardedText const&) = delete;
    ~GuardedText() { munmap(memory_, length()); }

    char* begin() const { return begin_; }
    char* end() const { return begin_ + size_; }
    std::string_view view() const { return {begin_, size_}; }
    // The first and the last `size` bytes.
    std::string_view first(std::size_t size) const { return {begin_, size}; }
    std::string_view last(std::size_t size) const { return {end() - size, size}; }

private:
    std::size_t length() const { return (pages_ + 2) * page_; }

    std::size_t page_;
    std::size_t pages_;
    std::size_t size_;
    char* memory_ = nullptr;
    char* begin_ = nullptr;
};
