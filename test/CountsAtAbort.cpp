#include <csignal>
#include <sys/syscall.h>
#include <unistd.h>

// A part of the test programs that scripts/coverage builds. A process writes down which branches it has taken when it
// ends by exit(). Those that tests have forked, and that die of an assertion or end by _exit(), do so here.
extern "C" void __gcov_dump();

namespace {

void dumpAndAbort(int) {
    __gcov_dump();
    std::signal(SIGABRT, SIG_DFL);  // abort() raises it once more
}

[[maybe_unused]] auto const handlerBefore = std::signal(SIGABRT, &dumpAndAbort);

}  // namespace

// In the place of the C library's.
extern "C" __attribute__((visibility("default"))) void _exit(int status) {
    __gcov_dump();
    ::syscall(SYS_exit_group, status);
    __builtin_unreachable();
}
