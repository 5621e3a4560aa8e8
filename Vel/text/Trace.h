#pragma once

#include "Vel/base/String.h"
#include "Vel/base/Types.h"

#include <atomic>
#include <concepts>
#include <functional>
#include <string>
#include <string_view>

// Tracing by facility and level (0 to 9). The environment says what is traced; it is read when a facility first traces:
//
//     VELTRACE="Cell/0,PrefixTrie/8-9"    facility/levels, separated by commas; "*" stands for every facility or level
//     VELTRACEFILE=/tmp/trace             append there instead of writing to standard error
//
// A record is one line: UTC time, process id, facility/level, file:line, function, text. A
// backslash in the text is doubled, control bytes are escaped.
namespace Vel {

// A facility in one source module. Define it at namespace scope. It configures itself on first use:
//
//     constinit Vel::TraceHandle traceHandle("Cell");
//     if (traceHandle.enabled(0)) Vel::TraceHelper(traceHandle, 0, "/src/Mox/Cell", 110, "f").stream() << "text";
//
// A disabled level costs one test of one word.
class VEL_API TraceHandle {
public:
    static constexpr unsigned levels = 10;

    // REQUIRES: `facility` lives as long as the handle. `onByDefault` enables level 0 unless trace levels are set.
    constexpr explicit TraceHandle(char const* facility, bool onByDefault = false)
        : facility_(facility), onByDefault_(onByDefault) {}
    TraceHandle(TraceHandle const&) = delete;
    TraceHandle& operator=(TraceHandle const&) = delete;
    ~TraceHandle();  // disables all levels; runs when the library that has the handle is unloaded

    bool enabled(unsigned level) {  // REQUIRES: level < levels
        if (!(mask_.load(std::memory_order_relaxed) & (U32(1) << level))) [[likely]]
            return false;
        return enabledSlow(level);
    }
    char const* facility() const { return facility_; }

private:
    friend class Trace;
    static constexpr U32 notConfigured = ~U32(0);  // all bits set, so that the first use calls enabledSlow()

    VEL_COLD bool enabledSlow(unsigned level);

    std::atomic<U32> mask_ = notConfigured;
    char const* facility_;
    bool onByDefault_;
    TraceHandle* next_ = nullptr;
};

struct TraceRecord {
    double time;  // seconds since 1970-01-01 00:00 UTC
    int processId;
    char const* facility;
    unsigned level;
    char const* file;
    unsigned line;
    char const* function;
    std::string_view text;
};

// The process's trace configuration. Threads: all operations may be called from any thread.
class VEL_API Trace {
public:
    // Replaces the levels of VELTRACE for every facility; an empty text means the defaults.
    // Throws RangeException for a malformed text, and then changes nothing.
    static void levelsIs(std::string_view specification);
    // Sets the function that gets the records. If it is null, they are written as lines to VELTRACEFILE or standard
    // error.
    static void sinkIs(std::function<void(TraceRecord const&)> sink);
    static std::string line(TraceRecord const& record);  // with a newline; control bytes in the text are escaped

private:
    friend class TraceHandle;
    friend class TraceHelper;
    static U32 configure(TraceHandle& handle);
    static void forget(TraceHandle& handle);
    static void emit(TraceRecord const& record);
};

// The text of a record.
class VEL_API TraceStream {
public:
    TraceStream& operator<<(char const* text) { return append(text ? std::string_view(text) : "(null)"); }
    TraceStream& operator<<(String const& text) { return append(text.view()); }
    TraceStream& operator<<(std::string const& text) { return append(text); }
    template <std::same_as<bool> B> TraceStream& operator<<(B value) { return append(value ? "True" : "False"); }
    TraceStream& operator<<(U32 value);
    template <std::integral T>
    requires(!std::same_as<T, bool>) TraceStream& operator<<(T value) = delete;  // U32 would lose its sign or high bits
    std::string_view text() const { return text_; }

private:
    TraceStream& append(std::string_view text) {
        text_.append(text);
        return *this;
    }
    std::string text_;
};

// Builds one record, and emits it when destroyed. To be made only if handle.enabled(level).
class VEL_API TraceHelper {
public:
    // The texts must live as long as the helper.
    TraceHelper(TraceHandle const& handle, unsigned level, char const* file, unsigned line, char const* function)
        : handle_(handle), level_(level), file_(file), line_(line), function_(function) {}
    TraceHelper(TraceHelper const&) = delete;
    TraceHelper& operator=(TraceHelper const&) = delete;
    ~TraceHelper();

    TraceStream& stream() { return stream_; }

private:
    TraceHandle const& handle_;
    unsigned level_;
    char const* file_;
    unsigned line_;
    char const* function_;
    TraceStream stream_;
};

}  // namespace Vel
