#include "Process.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Bench {
namespace {

Nanoseconds read(clockid_t clock) {
    timespec t{};
    if (clock_gettime(clock, &t) != 0) throw Failure(std::string("no such clock: ") + std::strerror(errno));
    return static_cast<Nanoseconds>(t.tv_sec) * second + static_cast<Nanoseconds>(t.tv_nsec);
}

// In a process that was just forked.
void dieWith(pid_t parent) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(1);
}

void end(pid_t pid) {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

}  // namespace

Nanoseconds now() { return read(CLOCK_MONOTONIC); }

void sleepUntil(Nanoseconds at) {
    timespec const t{static_cast<time_t>(at / second), static_cast<long>(at % second)};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &t, nullptr) == EINTR) {}
}

Nanoseconds cpuTime() { return read(CLOCK_PROCESS_CPUTIME_ID); }

Nanoseconds cpuTime(pid_t of) {
    clockid_t clock{};
    if (clock_getcpuclockid(of, &clock) != 0) throw Failure("no CPU time of another process");
    return read(clock);
}

std::size_t residentBytes() {
    std::ifstream file("/proc/self/statm");
    std::size_t all = 0, resident = 0;
    if (!(file >> all >> resident)) throw Failure("/proc/self/statm cannot be read");
    return resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

void Deadline::await(std::string const& what, std::function<bool()> const& done) const {
    while (!done()) {
        check(what);
        sleepUntil(now() + 200 * microsecond);
    }
}

Family::~Family() {
    for (Child const& child : children_) end(child.pid);
}

pid_t Family::start(std::string const& name, std::function<void()> const& role) {
    if (started_ == maximum) throw Failure("too many processes");
    std::array<char, 512>& error = errors_[started_++];
    std::fflush(nullptr);
    pid_t const parent = getpid();
    pid_t const pid = fork();
    if (pid < 0) throw Failure(std::string("fork: ") + std::strerror(errno));
    if (pid == 0) {
        int code = 1;
        dieWith(parent);
        try {
            role();
            code = 0;
        } catch (std::exception const& e) {
            std::snprintf(error.data(), error.size(), "%s", e.what());
        }
        _exit(code);
    }
    children_.push_back({name, pid, error.data()});
    return pid;
}

void Family::wait() {
    while (!children_.empty()) {
        deadline_.check("for " + children_.front().name + " to end");
        bool any = false;
        for (std::size_t i = 0; i < children_.size(); ++i) {
            int status = 0;
            if (waitpid(children_[i].pid, &status, WNOHANG) == 0) continue;
            Child const child = children_[i];
            children_.erase(children_.begin() + static_cast<std::ptrdiff_t>(i));
            any = true;
            if (WIFEXITED(status) && WEXITSTATUS(status) == 0) break;
            throw Failure(child.name + ": " + (WIFSIGNALED(status) ? strsignal(WTERMSIG(status)) : child.error));
        }
        if (!any) sleepUntil(now() + millisecond);
    }
}

Program::Program(std::vector<std::string> const& command) {
    std::vector<char*> arguments;
    for (std::string const& argument : command) arguments.push_back(const_cast<char*>(argument.c_str()));
    arguments.push_back(nullptr);
    std::fflush(nullptr);
    pid_t const parent = getpid();
    pid_ = fork();
    if (pid_ < 0) throw Failure(std::string("fork: ") + std::strerror(errno));
    if (pid_ == 0) {
        dieWith(parent);
        int const null = open("/dev/null", O_RDWR);
        for (int fd = 0; fd < 3; ++fd) dup2(null, fd);
        execvp(arguments[0], arguments.data());
        _exit(127);
    }
}

Program::~Program() {
    if (pid_ > 0) end(pid_);
}

bool Program::hasEnded() {
    if (pid_ > 0 && waitpid(pid_, nullptr, WNOHANG) != 0) pid_ = 0;
    return pid_ == 0;
}

bool isInstalled(std::string const& program) {
    char const* const path = std::getenv("PATH");
    std::istringstream folders(path ? path : "");
    for (std::string folder; std::getline(folders, folder, ':');)
        if (access((folder + '/' + program).c_str(), X_OK) == 0) return true;
    return false;
}

TemporaryDirectory::TemporaryDirectory() {
    path_ = (std::filesystem::temp_directory_path() / "mountbench.XXXXXX").string();
    if (!mkdtemp(path_.data())) throw Failure(std::string("no temporary directory: ") + std::strerror(errno));
}

TemporaryDirectory::~TemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

}  // namespace Bench
