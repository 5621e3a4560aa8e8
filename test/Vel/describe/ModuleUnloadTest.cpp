#include "FixtureTable.h"
#include "Vel/describe/Module.h"

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <cstring>
#include <string>
#include <thread>

#include <fcntl.h>
#include <semaphore.h>
#include <sys/mman.h>
#include <unistd.h>

// A module that another thread withdraws at the moment at which its table is looked at. The table's page cannot be
// read, and the handler of the fault lets the other thread go on until it is done, or waits for the registry.
namespace {

using Vel::ModuleHeader;
using Vel::Registry;

struct Unloading {
    void* page = nullptr;
    std::size_t size = 0;
    sem_t go = {};
    std::atomic<pid_t> thread = 0;
    std::atomic<bool> begun = false;
    std::atomic<bool> done = false;

    ModuleHeader& header() { return *static_cast<ModuleHeader*>(page); }
    void work() {
        thread = ::gettid();
        while (::sem_wait(&go) != 0) {}
        begun = true;
        Vel::velModuleDel(&header());
        header().typeCount += 1000;  // somebody else's memory now
        done = true;
    }
    // Whether the thread sleeps: after it has begun, that is in the registry's lock.
    bool waits() const {
        char path[64];
        std::snprintf(path, sizeof path, "/proc/self/task/%d/stat", int(thread));
        int const file = ::open(path, O_RDONLY | O_CLOEXEC);
        char text[256] = {};
        [[maybe_unused]] auto const size = ::read(file, text, sizeof text - 1);
        ::close(file);
        char const* const state = std::strrchr(text, ')');
        return state && state[2] == 'S';
    }
};
Unloading* unloading = nullptr;

void onFault(int) {
    ::mprotect(unloading->page, unloading->size, PROT_READ | PROT_WRITE);
    ::sem_post(&unloading->go);
    while (!unloading->done && !(unloading->begun && unloading->waits())) ::sched_yield();
}

TEST(ModuleUnloadTest, TypesAreListedBeforeAModuleGoesOrWithoutIt) {
    std::size_t const others = Registry::types().size();
    FixtureTables::Table table;
    table.renamedTo('G');
    Unloading one;
    unloading = &one;
    one.size = (table.header().size + 4095) / 4096 * 4096;
    one.page = ::mmap(nullptr, one.size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(one.page, MAP_FAILED);
    std::memcpy(one.page, table.bytes(), table.header().size);
    Vel::velModuleIs(&one.header());
    std::size_t const fixtures = one.header().typeCount;
    ASSERT_EQ(Registry::types().size(), others + fixtures);

    ::sem_init(&one.go, 0, 0);
    std::size_t count = 0;
    {
        std::jthread const thread([&] { one.work(); });
        while (one.thread == 0) std::this_thread::yield();
        auto* const before = std::signal(SIGSEGV, onFault);
        ::mprotect(one.page, one.size, PROT_NONE);
        count = Registry::types().size();
        std::signal(SIGSEGV, before);
    }
    EXPECT_EQ(count, others + fixtures);
    EXPECT_EQ(Registry::types().size(), others);
    ::munmap(one.page, one.size);
}

}  // namespace
