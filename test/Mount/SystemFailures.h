#pragma once

#include <string_view>

namespace MountTest {

// Has calls of the system fail that seldom do: the next `times` calls of that name, whoever makes them in this thread.
// The name is one of accept4, getsockopt, listen, recv, rename, send, socket. Afterwards, and when this is gone, they
// work.
class SystemFailure {
public:
    SystemFailure(std::string_view call, int error, int times = 1);
    SystemFailure(SystemFailure const&) = delete;
    SystemFailure& operator=(SystemFailure const&) = delete;
    ~SystemFailure();

    int left() const;  // that have not failed yet
};

}  // namespace MountTest
