#include "tools/lib/Isolated.h"

#include <cerrno>
#include <csignal>
#include <exception>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Tool {

namespace {

// Runs `make` in the child. Never returns, and runs no destructors of the parent's objects.
[[noreturn]] void runChild(std::function<std::string()> const& make, int to) {
    rlimit const noCore{0, 0};
    ::setrlimit(RLIMIT_CORE, &noCore);
    ::signal(SIGABRT, SIG_DFL);
    int const nowhere = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (nowhere >= 0) ::dup2(nowhere, STDERR_FILENO);
    int code = 1;
    try {
        std::string const text = make();
        std::size_t written = 0;
        while (written < text.size()) {
            ssize_t const n = ::write(to, text.data() + written, text.size() - written);
            if (n <= 0) ::_exit(1);
            written += static_cast<std::size_t>(n);
        }
        code = 0;
    } catch (std::exception const&) {}
    ::_exit(code);
}

std::string readAll(int from) {
    std::string text;
    char buffer[4096];
    ssize_t n = 0;
    while ((n = ::read(from, buffer, sizeof buffer)) > 0 || (n < 0 && errno == EINTR))
        if (n > 0) text.append(buffer, static_cast<std::size_t>(n));
    return text;
}

}  // namespace

std::optional<std::string> isolated(std::function<std::string()> const& make) {
    int pipe[2];
    if (::pipe2(pipe, O_CLOEXEC) != 0) return std::nullopt;
    pid_t const child = ::fork();
    if (child == 0) runChild(make, pipe[1]);
    ::close(pipe[1]);
    std::string text = child > 0 ? readAll(pipe[0]) : std::string();
    ::close(pipe[0]);
    if (child < 0) return std::nullopt;
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {}
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return std::nullopt;
    return text;
}

}  // namespace Tool
