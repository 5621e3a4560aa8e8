#include "tools/lib/RootedCalls.h"

#include <cerrno>
#include <string_view>

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>
#if __has_include(<linux/openat2.h>)
#include <linux/openat2.h>
#endif

namespace Tool {

namespace {

// Opens an absolute path as if `root` were the root. On a kernel without openat2(), opens the path below the folder,
// and absolute symbolic links lead out of it.
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

}  // namespace

RootedCalls::RootedCalls(std::string root, bool noEnvironment) : root_(std::move(root)), noEnvironment_(noEnvironment) {
    while (root_.ends_with('/')) root_.pop_back();
}

std::string RootedCalls::realPath(std::string const& path) const { return path.starts_with('/') ? root_ + path : path; }

char const* RootedCalls::getenv(char const* name) {
    bool const isHidden = noEnvironment_ && !std::string_view(name).starts_with("VELTRACE");
    return isHidden ? nullptr : SystemCalls::getenv(name);
}

int RootedCalls::open(char const* path, int flags) {
    return root_.empty() || *path != '/' ? SystemCalls::open(path, flags) : openBelow(root_, path, flags);
}

}  // namespace Tool
