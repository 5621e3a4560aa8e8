#include "SimulationSmall.h"

#ifdef MOX_WALK_MEMORY
#include "../simulate/WalkMemory.h"
#endif

#include <gtest/gtest.h>

#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <unordered_map>
#include <utility>
#include <vector>

// Every order of a few steps in a small world, beside the long runs that chance makes of a large one. MOX_WALK_DEPTH=n
// walks n steps deep (default: 2).
//
// States are visited by levels, each once, on as few steps as lead to it: so what fails is as short as can be. A state
// is kept as the steps that lead to it, in one word, and made anew from these. For each step that is tried from there
// it is put back as it was, by copying some 30 KB, where all allocations can be kept together, in the program mox_walk;
// in a test program with others it is made anew. One process for each core walks; they share the table of states that
// were seen, and one that crashes leaves word of where it was.
namespace {

using Simulation::Small;
using Vel::U64;

// Steps in one word: from the lowest bits on the beginning and the steps, five bits each.
class Path {
public:
    Path() = default;
    explicit Path(std::size_t beginning) : word_(beginning) {}
    // REQUIRES: length < longest

    Path next(std::size_t length, std::size_t step) const {
        Path path;
        path.word_ = word_ | U64(step) << 5 * (length + 1);
        return path;
    }
    Small::Beginning const& beginning() const { return Small::beginnings()[word_ & 31]; }
    std::size_t step(std::size_t i) const { return word_ >> 5 * (i + 1) & 31; }
    static constexpr std::size_t longest = 11;

    // Goes there. REQUIRES: the world is at its beginning.
    void go(Small& small, std::size_t length) const {
        for (std::size_t i = 0; i < length; ++i) Small::steps()[step(i)].apply(small);
    }
    std::string words(std::size_t length) const {
        std::string text = beginning().words();
        for (std::size_t i = 0; i < length; ++i) text += "\n" + Small::steps()[step(i)].words;
        return text;
    }

private:
    U64 word_ = 0;
};

// The world at the end of a path: as it is there each time that it is asked for, whatever was done to it.
class World {
public:
    World(Path path, std::size_t length) : path_(path), length_(length) {}
    World(World const&) = delete;
    World& operator=(World const&) = delete;
#ifdef MOX_WALK_MEMORY
    Small& operator()() {
        if (small_) {
            WalkMemory::restore();
        } else {
            WalkMemory::begin();
            small_ = new Small(path_.beginning());
            path_.go(*small_, length_);
            WalkMemory::keep();
        }
        return *small_;
    }
    ~World() { WalkMemory::end(); }

private:
    Small* small_ = nullptr;  // never destroyed: its memory is forgotten
#else
    Small& operator()() {
        small_ = nullptr;
        small_ = std::make_unique<Small>(path_.beginning());
        path_.go(*small_, length_);
        return *small_;
    }

private:
    std::unique_ptr<Small> small_;
#endif
    Path path_;
    std::size_t length_;
};

// Memory that processes share; only what is written to takes any.
template <class T> class Shared {
public:
    explicit Shared(std::size_t count) : count_(count) {
        void* const memory = mmap(
            nullptr, count_ * sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (memory == MAP_FAILED) throw std::bad_alloc();
        data_ = static_cast<T*>(memory);
    }
    Shared(Shared&& other) noexcept : data_(std::exchange(other.data_, nullptr)), count_(other.count_) {}
    Shared& operator=(Shared&& other) noexcept {
        std::swap(data_, other.data_);
        std::swap(count_, other.count_);
        return *this;
    }
    ~Shared() {
        if (data_) munmap(data_, count_ * sizeof(T));
    }
    T& operator[](std::size_t i) const { return data_[i]; }
    std::size_t size() const { return count_; }

private:
    T* data_;
    std::size_t count_;
};

// The states that were seen, as numbers that are not 0; open addressing.
class Seen {
public:
    explicit Seen(std::size_t room) : slots_(std::bit_ceil(room + room / 4 + 64)) {}
    bool add(U64 state) {  // whether it is new
        state |= state == 0;
        for (std::size_t i = 0; i < slots_.size(); ++i) {
            auto& slot = slots_[(state + i) & (slots_.size() - 1)];
            U64 there = slot.load(std::memory_order_relaxed);
            if (there == 0 && slot.compare_exchange_strong(there, state, std::memory_order_relaxed)) return true;
            if (there == state) return false;
        }
        throw std::length_error("more states than there is room for");
    }
    void addAll(Seen const& other) {
        for (std::size_t i = 0; i < other.slots_.size(); ++i)
            if (U64 const state = other.slots_[i]) add(state);
    }

private:
    Shared<std::atomic<U64>> slots_;
};

class Walk {
public:
    Walk() {
        for (std::size_t i = 0; i < cores_; ++i) found_.emplace_back(64);
        for (std::size_t i = 0; i < Small::beginnings().size(); ++i) {
            Path const path(i);
            Small small(path.beginning());
            visit(0, path, small);
            doAll(path);
        }
        collect();
    }

    // All that may happen next, one step further.
    void go() {
        auto const start = std::chrono::steady_clock::now();
        makeRoom();
        std::vector<pid_t> processes;
        for (std::size_t i = 0; i < cores_; ++i) {
            processes.push_back(fork());
            if (processes.back() != 0) continue;
            prctl(PR_SET_PDEATHSIG, SIGKILL);  // it does not outlive this one
            work(i);
            _exit(0);
        }
        ++length_;
        for (std::size_t i = 0; i < cores_; ++i) {
            int status = 0;
            if (waitpid(processes[i], &status, 0) != processes[i] || status != 0)
                ADD_FAILURE() << reports_[i].at.words(length_) << "\nthe process crashes";
        }
        collect();
        seconds_ = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    }
    std::size_t states() const { return states_; }
    std::string words() const {
        return std::to_string(length_) + " steps: " + std::to_string(states_) + " states, " + std::to_string(walked_) +
               " ways, " + std::to_string(seconds_) + " s for the last step";
    }

private:
    // What the libraries make once, and keep for good, is there after that.
    static void doAll(Path path) {
        for (Small::Step const& step : Small::steps()) {
            Small small(path.beginning());
            step.apply(small);
            small.state();
            small.end();
        }
    }
    void makeRoom() {
        constexpr std::size_t enough = 8;  // new states for each, on an average; of many there are six to seven
        Seen seen(states_ + enough * level_.size() + 1000);
        seen.addAll(seen_);
        seen_ = std::move(seen);
        for (Shared<Path>& found : found_) found = Shared<Path>(level_.size() * Small::steps().size() + 1);
        next_[0] = 0;
    }
    // What one process finds stops the others, for what is left takes as many steps.
    void work(std::size_t core) {
        for (std::size_t i; (i = next_[0]++) < level_.size();) {
            World world(level_[i], length_);
            Small* small = nullptr;
            for (std::size_t step = 0; step < Small::steps().size(); ++step) {
                if (!small) small = &world();
                Path const path = reports_[core].at = level_[i].next(length_, step);
                if (!Small::steps()[step].apply(*small)) continue;
                ++reports_[core].walked;
                visit(core, path, *small);
                small = nullptr;
                if (reports_[core].hasFailed) return void(next_[0] = level_.size());
            }
        }
    }
    // What becomes of a state follows from the state alone: each is looked at once.
    void visit(std::size_t core, Path path, Small& small) {
        Report& report = reports_[core];
        if (small.error.empty()) {
            if (!seen_.add(small.state())) return;
            found_[core][report.found++] = path;
            small.end();
        }
        report.at = path;
        report.hasFailed = !small.error.empty();
    }
    // What the processes have found is what the next level begins with.
    void collect() {
        level_.clear();
        for (std::size_t core = 0; core < cores_; ++core) {
            Report& report = reports_[core];
            level_.insert(level_.end(), &found_[core][0], &found_[core][report.found]);
            walked_ += report.walked;
            if (report.hasFailed) tellFailure(report.at);
            report = {};
        }
        states_ += level_.size();
    }
    void tellFailure(Path path) const {
        Small small(path.beginning());
        path.go(small, length_);
        if (small.error.empty()) small.end();
        ADD_FAILURE() << path.words(length_) << "\n" << small.error;
    }

    struct Report {  // of one process
        Path at;
        std::size_t walked, found;
        bool hasFailed;
    };
    std::size_t cores_ = static_cast<std::size_t>(std::max(1l, sysconf(_SC_NPROCESSORS_ONLN)));
    Shared<Report> reports_{cores_};
    std::vector<Shared<Path>> found_;           // by each process
    Shared<std::atomic<std::size_t>> next_{1};  // of the level
    Seen seen_{64};
    std::vector<Path> level_;  // states that are `length_` steps away, and not fewer
    std::size_t length_ = 0, states_ = 0, walked_ = 0;
    double seconds_ = 0;
};

int depth() {
    char const* const text = std::getenv("MOX_WALK_DEPTH");
    return text ? std::atoi(text) : 2;
}

TEST(StreamWalkTest, EveryOrderOfAFewStepsEndsWithACopyThatEqualsTheSource) {
    ASSERT_LE(depth(), Path::longest);
    Walk walk;
    for (int length = 0; length < depth() && !HasFailure(); ++length) {
        walk.go();
        if (std::getenv("MOX_WALK_DEPTH")) std::cout << walk.words() << std::endl;
    }
    EXPECT_GT(walk.states(), 100u);
}

// Where two ways lead to one state, every step has to lead from both to one state again: else what becomes of the
// second is not what was looked at.
class Twins {
public:
    Twins() {
        for (std::size_t i = 0; i < Small::beginnings().size(); ++i) meet({Path(i), 0});
    }
    void go() {
        for (Place const& place : std::exchange(level_, {})) {
            auto const states = next(place);
            for (std::size_t step = 0; step < states.size(); ++step)
                if (states[step] != 0) meet({place.path.next(place.length, step), place.length + 1});
        }
    }
    std::size_t met() const { return met_; }

private:
    struct Place {
        Path path;
        std::size_t length;
    };
    static std::unique_ptr<Small> made(Place const& place) {
        auto small = std::make_unique<Small>(place.path.beginning());
        place.path.go(*small, place.length);
        return small;
    }
    // The states that the steps lead to; 0 where there is nothing to do.
    static std::vector<U64> next(Place const& place) {
        std::vector<U64> states;
        std::unique_ptr<Small> small;
        for (Small::Step const& step : Small::steps()) {
            if (!small) small = made(place);
            bool const goesOn = step.apply(*small);
            states.push_back(goesOn ? small->state() : 0);
            if (goesOn) small = nullptr;
        }
        return states;
    }
    void meet(Place const& place) {
        auto const [first, isNew] = seen_.try_emplace(made(place)->state(), place);
        if (isNew) return level_.push_back(place);
        ++met_;
        auto const here = next(place), there = next(first->second);
        for (std::size_t step = 0; step < here.size(); ++step)
            EXPECT_EQ(here[step], there[step])
                << place.path.words(place.length) << "\nis not\n"
                << first->second.path.words(first->second.length) << "\nby the step: " << Small::steps()[step].words;
    }

    std::unordered_map<U64, Place> seen_;
    std::vector<Place> level_;
    std::size_t met_ = 0;
};

// Two steps at least, since it takes two that the order of what waits differs.
TEST(StreamWalkTest, WhatCountsAsOneStateGoesOnAsOne) {
    Twins twins;
    for (int length = 0; length < std::clamp(depth() - 2, 2, 3) && !HasFailure(); ++length) twins.go();
    EXPECT_GT(twins.met(), 20u);
}

}  // namespace
