#include "Mox/Cell.h"

#include "Vel/base/Exception.h"
#include "Vel/base/System.h"
#include "Vel/entity/Dir.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

// The sources of a process's identity: the input says which variables are set and to what, which files there are, what
// they hold, and which calls fail. Any answer will do, or one of the documented exceptions; no file may stay open.

namespace {

class Input {
public:
    Input(std::uint8_t const* data, std::size_t size) : at_(data), end_(data + size) {}

    std::uint8_t byte() { return at_ == end_ ? 0 : *at_++; }
    std::string text() {
        std::string result;
        for (unsigned n = byte() % 48; n != 0 && at_ != end_; --n) result += static_cast<char>(*at_++);
        return result;
    }
    bool isEmpty() const { return at_ == end_; }

private:
    std::uint8_t const* at_;
    std::uint8_t const* end_;
};

class FuzzedSystem : public Vel::SystemCalls {
public:
    explicit FuzzedSystem(Input& input) : input_(input) {}
    ~FuzzedSystem() override {
        if (open_ != 0) std::abort();
    }

    char const* getenv(char const*) override {
        if (input_.byte() % 2 == 0) return nullptr;
        variables_.push_back(std::make_unique<std::string>(input_.text()));
        return variables_.back()->c_str();
    }
    int open(char const*, int) override {
        errno = input_.byte() % 4 == 0 ? EACCES : ENOENT;
        if (input_.byte() % 2 == 0) return -1;
        ++open_;
        return 100;
    }
    ssize_t read(int, void* buffer, std::size_t size) override {
        switch (input_.isEmpty() ? 0 : input_.byte() % 8) {
        case 1:
            errno = EINTR;
            return -1;
        case 2:
            errno = EIO;
            return -1;
        default:
            break;
        }
        std::string const text = input_.text();
        std::size_t const count = std::min(size, text.size());
        std::memcpy(buffer, text.data(), count);
        return static_cast<ssize_t>(count);
    }
    int close(int) override {
        --open_;
        errno = EBADF;  // must not replace the error that is reported
        return 0;
    }

private:
    Input& input_;
    std::vector<std::unique_ptr<std::string>> variables_;
    int open_ = 0;
};

template <class F> void ask(F f) {
    try {
        f();
    } catch (Vel::RangeException const&) {
    } catch (Vel::ErrnoException const&) {}
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    Vel::globalDir()->entryDel("ql");  // each run begins with nothing cached
    Input input(data, size);
    FuzzedSystem system(input);
    Vel::SystemCalls* const before = Vel::System::callsIs(&system);
    ask([] { Cell::cellId(); });
    ask([] { Cell::activeCellId(); });
    ask([] { Cell::cellType(); });
    ask([] { Cell::product(); });
    ask([] { Cell::electionMgrSupported(); });
    ask([] { Cell::cpuBmcMode(); });
    Vel::System::callsIs(before);
    return 0;
}
