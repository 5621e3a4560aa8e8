#include "tools/Sources.h"

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <utility>

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>
#if __has_include(<linux/openat2.h>)
#include <linux/openat2.h>
#endif

namespace Tool {

namespace {

// Opens an absolute path as a process would whose root is `root`. Kernels that cannot do that look below the folder
// without care for absolute symbolic links.
int openBelow(std::string const& root, char const* path, int flags) {
#if defined(SYS_openat2) && defined(RESOLVE_IN_ROOT)
    int const folder = ::open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (folder < 0) return -1;
    open_how how{};
    how.flags = static_cast<unsigned>(flags | O_CLOEXEC);
    how.resolve = RESOLVE_IN_ROOT;
    auto const file = static_cast<int>(::syscall(SYS_openat2, folder, path, &how, sizeof how));
    int const error = errno;
    ::close(folder);
    errno = error;
    bool const unavailable = file < 0 && (error == ENOSYS || error == EPERM);
    if (!unavailable) return file;
#endif
    return ::open((root + path).c_str(), flags | O_CLOEXEC);
}

bool isVariable(SourceCall const& call) { return call.kind == SourceCall::Kind::variable; }
bool isFile(SourceCall const& call) { return call.kind == SourceCall::Kind::file; }

using Calls = std::vector<SourceCall>;

Source variableSource(SourceCall const& call) {
    Source source;
    source.kind = Source::Kind::variable;
    source.name = call.name;
    source.text = call.text;
    return source;
}

// The own cell's number is read by a variable and, when that is not set, by a file. Returns where that ends.
Calls::const_iterator behindFact(Calls::const_iterator at, Calls::const_iterator end) {
    while (at != end && isVariable(*at))
        if ((at++)->found) return at;
    return at == end ? end : at + 1;
}

Source modeFilesSource(Calls files) {
    bool const bothOpen = files.size() > 1 && files[0].found && files[1].found;
    Source source;
    source.kind = bothOpen ? Source::Kind::modeFiles : Source::Kind::builtIn;
    source.asked = std::move(files);
    return source;
}

}  // namespace

SourceCalls::SourceCalls(std::string root, bool noEnvironment) : root_(std::move(root)), noEnvironment_(noEnvironment) {
    while (root_.ends_with('/')) root_.pop_back();
}

std::vector<SourceCall> SourceCalls::take() { return std::exchange(calls_, {}); }

char const* SourceCalls::getenv(char const* name) {
    if (std::string_view(name).starts_with("VELTRACE")) return SystemCalls::getenv(name);
    char const* const value = noEnvironment_ ? nullptr : SystemCalls::getenv(name);
    SourceCall call(SourceCall::Kind::variable, name);
    call.found = value != nullptr;
    if (value) call.text = value;
    calls_.push_back(std::move(call));
    return value;
}

int SourceCalls::open(char const* path, int flags) {
    bool const below = !root_.empty() && *path == '/';
    int const file = below ? openBelow(root_, path, flags) : SystemCalls::open(path, flags);
    int const error = errno;
    SourceCall call(SourceCall::Kind::file, below ? root_ + path : path);
    call.found = file >= 0;
    call.error = file >= 0 ? 0 : error;
    call.file = file;
    calls_.push_back(std::move(call));
    errno = error;
    return file;
}

ssize_t SourceCalls::read(int file, void* buffer, std::size_t size) {
    ssize_t const got = SystemCalls::read(file, buffer, size);
    int const error = errno;
    for (SourceCall& call : calls_) {
        if (call.file != file) continue;
        call.error = got < 0 ? error : 0;
        if (got >= 0) call.text = call.text.value_or("").append(static_cast<char const*>(buffer), std::size_t(got));
    }
    errno = error;
    return got;
}

int SourceCalls::close(int file) {
    for (SourceCall& call : calls_)
        if (call.file == file) call.file = -1;
    return SystemCalls::close(file);
}

Source sourceOfFact(std::vector<SourceCall> const& calls) {
    Source source;
    for (SourceCall const& call : calls) {
        if (isVariable(call) && call.found) return variableSource(call);
        if (isFile(call) && (call.found || call.error != ENOENT)) {
            source.kind = Source::Kind::file;
            source.name = call.name;
            source.text = call.text;
            source.error = call.error;
            return source;
        }
        if (isVariable(call)) source.alternative = call.name;
        source.asked.push_back(call);
    }
    return source;
}

Source sourceOfActiveCell(std::vector<SourceCall> const& calls, bool failed, std::string const& publishedStatus) {
    if (!calls.empty() && isVariable(calls.front()) && calls.front().found) return variableSource(calls.front());
    auto const names = [](SourceCall const& call) { return isVariable(call) && call.name.starts_with("REDSUPDUT_"); };
    auto const firstName = std::find_if(calls.begin(), calls.end(), names);
    if (firstName == calls.end()) {  // the mode files were never thought of
        if (failed) return sourceOfFact({calls.empty() ? calls.begin() : calls.begin() + 1, calls.end()});
        Source source;
        source.kind = Source::Kind::redundancyStatus;
        source.name = publishedStatus;
        return source;
    }
    auto const ownCell = std::find_if_not(firstName, calls.end(), names);
    auto const files = behindFact(ownCell, calls.end());
    if (files == calls.end()) return sourceOfFact({ownCell, calls.end()});
    return modeFilesSource({files, calls.end()});
}

}  // namespace Tool
