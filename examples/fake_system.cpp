// Replaces the system calls, so that a test decides what the environment and the files hold.
#include "Mox/Cell.h"

#include "Vel/base/System.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <iterator>
#include <map>
#include <string>

class FakeSystem : public Vel::SystemCalls {
public:
    std::map<std::string, std::string> variables;
    std::map<std::string, std::string> files;

    char const* getenv(char const* name) override {
        auto const found = variables.find(name);
        return found == variables.end() ? nullptr : found->second.c_str();
    }
    int open(char const* path, int) override {
        auto const found = files.find(path);
        if (found != files.end()) return static_cast<int>(std::distance(files.begin(), found));
        errno = ENOENT;
        return -1;
    }
    ssize_t read(int file, void* buffer, std::size_t size) override {
        std::string const& text = std::next(files.begin(), file)->second;
        std::size_t const count = std::min(size, text.size());
        std::memcpy(buffer, text.data(), count);
        return static_cast<ssize_t>(count);
    }
    int close(int) override { return 0; }
};

int main() {
    FakeSystem machine;
    Vel::System::callsIs(&machine);
    machine.files["/etc/cellid"] = "1";
    machine.variables["REDSUPDUT_LOCAL_REDMODE"] = "/local";
    machine.variables["REDSUPDUT_PEER_REDMODE"] = "/peer";

    auto const active = [&](char const* local, char const* peer) {
        machine.files["/local"] = local;
        machine.files["/peer"] = peer;
        std::cout << "local " << local << ", peer " << peer << ": cell " << Cell::activeCellId() << '\n';
        return Cell::activeCellId();
    };
    bool const asExpected =
        active("active", "standby") == 1 && active("standby", "active") == 2 && active("active", "active") == 2;
    Vel::System::callsIs(nullptr);  // puts the real system calls back
    return asExpected ? 0 : 1;
}
