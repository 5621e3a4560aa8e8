#include "Vel/text/Trace.h"

#include "Vel/base/Exception.h"
#include "Vel/base/System.h"
#include "Vel/text/Strep.h"

#include <cerrno>
#include <cmath>
#include <ctime>
#include <mutex>
#include <optional>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace Vel {

namespace {

struct Rule {
    std::string facility;  // "*" means every facility
    U32 mask;              // bit n stands for level n
};

struct Configuration {
    std::mutex mutex;
    std::optional<std::vector<Rule>> rules;  // absent until the environment has been read
    TraceHandle* handles = nullptr;
    std::function<void(TraceRecord const&)> sink;
    int file = -1;  // descriptor to which lines are written; -1 until the first record
};

Configuration& configuration() {
    static auto* const instance = new Configuration;  // never destroyed: destructors of other objects may trace
    return *instance;
}

void warn(std::string const& text) {
    std::string const line = "vel: " + text + "\n";
    [[maybe_unused]] auto const written = ::write(STDERR_FILENO, line.data(), line.size());
}

U32 levelsMask(std::string_view text) {
    auto const level = [](std::string_view t) -> int {
        return t.size() == 1 && t[0] >= '0' && t[0] <= '9' ? t[0] - '0' : -1;
    };
    if (text == "*") return (U32(1) << TraceHandle::levels) - 1;
    auto const dash = text.find('-');
    int const first = level(text.substr(0, dash));
    int const last = dash == std::string_view::npos ? first : level(text.substr(dash + 1));
    if (first < 0 || last < first) return 0;
    return (U32(2) << last) - (U32(1) << first);
}

Rule parseRule(std::string_view text) {
    auto const slash = text.find('/');
    std::string_view const facility = text.substr(0, slash);
    U32 const mask = slash == std::string_view::npos ? 0 : levelsMask(text.substr(slash + 1));
    if (facility.empty() || mask == 0)
        throwRangeException("trace levels \"" + std::string(text) +
                            "\" are not of the form FACILITY/LEVELS, such as Cell/0, PrefixTrie/8-9 or */*");
    return {std::string(facility), mask};
}

// Splits at commas. Drops blanks around entries, and empty entries, so that people may put blanks into a list.
std::vector<std::string_view> entries(std::string_view specification) {
    std::vector<std::string_view> result;
    while (!specification.empty()) {
        auto const comma = specification.find(',');
        std::string_view entry = specification.substr(0, comma);
        specification = comma == std::string_view::npos ? std::string_view() : specification.substr(comma + 1);
        while (entry.starts_with(' ')) entry.remove_prefix(1);
        while (entry.ends_with(' ')) entry.remove_suffix(1);
        if (!entry.empty()) result.push_back(entry);
    }
    return result;
}

std::vector<Rule> rulesFromEnvironment() {
    std::vector<Rule> rules;
    char const* const specification = System::calls().getenv("VELTRACE");
    if (!specification) return rules;
    for (std::string_view const entry : entries(specification)) {
        try {
            rules.push_back(parseRule(entry));
        } catch (RangeException const& error) {
            warn("VELTRACE: " + error.text().stdString() + "; ignored");
        }
    }
    return rules;
}

U32 maskFor(std::vector<Rule> const& rules, std::string_view facility, bool onByDefault) {
    U32 mask = rules.empty() && onByDefault ? 1 : 0;
    for (Rule const& rule : rules)
        if (rule.facility == "*" || rule.facility == facility) mask |= rule.mask;
    return mask;
}

int openFile() {
    char const* const path = System::calls().getenv("VELTRACEFILE");
    if (!path || !*path) return STDERR_FILENO;
    int const file = ::open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (file >= 0) return file;
    warn("VELTRACEFILE: " + ErrnoException(errno, path).text().stdString() + "; tracing to standard error");
    return STDERR_FILENO;
}

void writeAll(int file, std::string_view text) {
    while (!text.empty()) {
        ssize_t const written = ::write(file, text.data(), text.size());
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return;  // drops the rest: tracing must never stop the process
        text.remove_prefix(static_cast<std::size_t>(written));
    }
}

// Rounds to the nearest microsecond: few decimals are exact as doubles, and truncation could make .123455 of .123456.
// Returns 0 for a time outside the years 1970 to 9999, since tracing must not fail.
U64 microseconds(double time) {
    return time >= 0 && time < 253402300800.0 ? static_cast<U64>(std::llround(time * 1e6)) : 0;
}

void appendEscaped(std::string& out, std::string_view text) {
    for (char const c : text) {
        auto const byte = static_cast<unsigned char>(c);
        if (c == '\\')
            out += "\\\\";
        else if (byte >= 0x20 && byte != 0x7F)
            out += c;
        else if (c == '\n')
            out += "\\n";
        else
            out += format("\\x%02x", byte).stdString();
    }
}

}  // namespace

TraceHandle::~TraceHandle() { Trace::forget(*this); }

bool TraceHandle::enabledSlow(unsigned level) {
    U32 mask = mask_.load(std::memory_order_relaxed);
    if (mask == notConfigured) mask = Trace::configure(*this);
    return mask & (U32(1) << level);
}

U32 Trace::configure(TraceHandle& handle) {
    Configuration& config = configuration();
    std::lock_guard const lock(config.mutex);
    U32 mask = handle.mask_.load(std::memory_order_relaxed);
    if (mask != TraceHandle::notConfigured) return mask;
    if (!config.rules) config.rules = rulesFromEnvironment();
    mask = maskFor(*config.rules, handle.facility_, handle.onByDefault_);
    handle.next_ = config.handles;
    config.handles = &handle;
    handle.mask_.store(mask, std::memory_order_relaxed);
    return mask;
}

void Trace::forget(TraceHandle& handle) {
    Configuration& config = configuration();
    std::lock_guard const lock(config.mutex);
    for (TraceHandle** link = &config.handles; *link; link = &(*link)->next_) {
        if (*link != &handle) continue;
        *link = handle.next_;
        break;
    }
    handle.mask_.store(0, std::memory_order_relaxed);
}

void Trace::levelsIs(std::string_view specification) {
    std::vector<Rule> rules;
    for (std::string_view const entry : entries(specification)) rules.push_back(parseRule(entry));
    Configuration& config = configuration();
    std::lock_guard const lock(config.mutex);
    config.rules = std::move(rules);
    for (TraceHandle* handle = config.handles; handle; handle = handle->next_)
        handle->mask_.store(maskFor(*config.rules, handle->facility_, handle->onByDefault_), std::memory_order_relaxed);
}

void Trace::sinkIs(std::function<void(TraceRecord const&)> sink) {
    Configuration& config = configuration();
    std::lock_guard const lock(config.mutex);
    config.sink = std::move(sink);
}

void Trace::emit(TraceRecord const& record) {
    Configuration& config = configuration();
    std::unique_lock lock(config.mutex);
    if (config.sink) {
        auto const sink = config.sink;
        lock.unlock();  // the sink may trace, or change the configuration
        sink(record);
        return;
    }
    if (config.file < 0) config.file = openFile();
    writeAll(config.file, line(record));
}

std::string Trace::line(TraceRecord const& record) {
    U64 const time = microseconds(record.time);
    auto const seconds = static_cast<std::time_t>(time / 1000000);
    std::tm utc{};
    ::gmtime_r(&seconds, &utc);
    char date[40];
    std::strftime(date, sizeof date, "%Y-%m-%d %H:%M:%S", &utc);
    std::string out = format("%s.%06lu %d %s/%u %s:%u %s ", date, time % 1000000, record.processId, record.facility,
        record.level, record.file, record.line, record.function)
                          .stdString();
    appendEscaped(out, record.text);
    out += '\n';
    return out;
}

TraceStream& TraceStream::operator<<(U32 value) { return append(unsignedToStrep(value).view()); }

TraceHelper::~TraceHelper() {
    // Tracing must not end the process, so a record for which memory is lacking is dropped.
    try {
        SystemCalls& calls = System::calls();
        Trace::emit(
            {calls.currentTime(), calls.getpid(), handle_.facility(), level_, file_, line_, function_, stream_.text()});
    } catch (...) {}
}

}  // namespace Vel
