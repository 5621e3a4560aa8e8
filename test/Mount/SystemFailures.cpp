#include "SystemFailures.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

thread_local std::string_view failing;  // the call
thread_local int failure = 0;           // the error
thread_local int failuresLeft = 0;

// The system's answer, unless the call is to fail.
template <class... Arguments> long answer(std::string_view call, long number, Arguments... arguments) {
    if (failuresLeft == 0 || call != failing) return ::syscall(number, arguments...);
    --failuresLeft;
    errno = failure;
    return -1;
}

}  // namespace

namespace MountTest {

SystemFailure::SystemFailure(std::string_view call, int error, int times) {
    failing = call;
    failure = error;
    failuresLeft = times;
}
SystemFailure::~SystemFailure() { failuresLeft = 0; }

int SystemFailure::left() const { return failuresLeft; }

}  // namespace MountTest

// In the place of the C library's.
#define IN_ITS_PLACE extern "C" __attribute__((visibility("default")))

IN_ITS_PLACE int accept4(int socket, sockaddr* address, socklen_t* size, int flags) {
    return static_cast<int>(answer("accept4", SYS_accept4, socket, address, size, flags));
}
IN_ITS_PLACE int getsockopt(int socket, int level, int option, void* value, socklen_t* size) noexcept {
    return static_cast<int>(answer("getsockopt", SYS_getsockopt, socket, level, option, value, size));
}
IN_ITS_PLACE int listen(int socket, int backlog) noexcept {
    return static_cast<int>(answer("listen", SYS_listen, socket, backlog));
}
IN_ITS_PLACE ssize_t recv(int socket, void* into, std::size_t size, int flags) {
    return answer("recv", SYS_recvfrom, socket, into, size, flags, nullptr, nullptr);
}
IN_ITS_PLACE int rename(char const* from, char const* to) noexcept {
    return static_cast<int>(answer("rename", SYS_renameat2, AT_FDCWD, from, AT_FDCWD, to, 0));
}
IN_ITS_PLACE ssize_t send(int socket, void const* bytes, std::size_t size, int flags) {
    return answer("send", SYS_sendto, socket, bytes, size, flags, nullptr, 0);
}
IN_ITS_PLACE int socket(int family, int type, int protocol) noexcept {
    return static_cast<int>(answer("socket", SYS_socket, family, type, protocol));
}
