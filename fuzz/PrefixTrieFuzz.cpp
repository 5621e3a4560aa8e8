#include "Mox/internal/PathIndex.h"
#include "Vel/describe/Module.h"
#include "fuzz/Thorough.h"
#include "test/Mox/PrefixTrieModel.h"

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <string>

VEL_MODULE(TrieTest, 637926b7314de79f, TrieTest::State, TrieTest::Trie, TrieTest::Plain);

// Two prefix tries in lock step with a plain model. The first byte chooses the kind of trie, and whether it has an index
// from the first question on, which comes after the first step. Each step is a byte of operation and tags, and a path:
// its length and its characters, which are often separators and stars. Few steps, and hardly anything asked before the
// end: so there are far more runs. Then the tries are compared, and asked about the last path, and of one input in
// sixteen about half of it, too.
// libFuzzer: -max_len=48

namespace {

using TrieTest::Hooks;
using TrieTest::Model;
using TrieTest::Pair;
using TrieTest::Tags;

[[noreturn]] void fail(std::string const& what) {
    std::fprintf(stderr, "%s\n", what.c_str());
    std::abort();
}
void require(std::string const& different) {
    if (!different.empty()) fail(different);
}

class Bytes {
public:
    explicit Bytes(std::span<std::uint8_t const> bytes) : bytes_(bytes) {}

    bool empty() const { return bytes_.empty(); }
    unsigned next() {  // 0 at the end
        if (bytes_.empty()) return 0;
        unsigned const byte = bytes_[0];
        bytes_ = bytes_.subspan(1);
        return byte;
    }
    std::string nextPath() {
        static constexpr char often[] = {'/', '.', '*', 'a', 'b'};
        std::string path;
        for (unsigned left = next() % 12; left > 0 && !empty(); --left) {
            unsigned const byte = next();
            path += byte < 160 ? often[byte % std::size(often)] : static_cast<char>(byte - 160);
            if (byte >= 250) path.back() = static_cast<char>(byte);
        }
        return path;
    }

private:
    std::span<std::uint8_t const> bytes_;
};

// The path that it was about.
std::string step(Bytes& bytes, std::array<Pair, 2>& pairs) {
    unsigned const choice = bytes.next();
    Pair& one = pairs[choice % 2];
    Pair const& other = pairs[1 - choice % 2];
    std::string const path = bytes.nextPath();
    Tags tags;
    for (unsigned bit = 0; bit < 3; ++bit)
        if (choice >> (5 + bit) & 1) tags.insert(std::string(1, static_cast<char>('x' + bit)));
    switch (choice / 2 % 16) {
    case 0:
    case 1:
    case 2:
    case 3:
    case 4:
    case 5:
    case 6:
        if (!Model::mayBeAdded(path)) break;
        one.trie->prefixIs(path, TrieTest::State::newEntity("s", tags));
        one.model.add(path, tags);
        break;
    case 7:
        one.trie->append(other.trie);
        one.model.append(other.model);
        break;
    case 8:
        one.trie->emptyIs(true);
        one.model.empty({});
        break;
    default:
        one.trie->prefixDel(path);
        one.model.del(path);
    }
    return path;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    Bytes bytes({data, size});
    unsigned const kind = bytes.next();
    Hooks& hooks = Hooks::the();
    hooks.recording = false;
    hooks.prunedAreDestroyed = kind & 1;
    hooks.freshTags = kind & 2 ? Tags{"fresh"} : Tags{};
    using Mox::Detail::IndexUse;
    IndexUse const uses[] = {IndexUse::itself, IndexUse::always, IndexUse::never};
    Mox::Detail::PathIndex::use = uses[(kind >> 3) % 3];
    {
        std::array<Pair, 2> pairs;
        for (Pair& pair : pairs)
            pair.trie = kind & 4 ? TrieTest::Ptr<Mox::PrefixTrie>(TrieTest::Trie::newEntity("t"))
                                 : TrieTest::Ptr<Mox::PrefixTrie>(TrieTest::Plain::newEntity("t"));
        std::string last;
        for (unsigned steps = 0; !bytes.empty() && steps < 8; ++steps) {
            last = step(bytes, pairs);
            for (Pair const& pair : pairs)
                if (steps == 0) require(differentAnswer(pair, last));
        }
        for (Pair const& pair : pairs) {
            require(differentAnswer(pair, last));
            if (isThorough({data, size})) require(differentAnswer(pair, last.substr(0, last.size() / 2)));
            require(differentNode(*pair.trie, pair.model));
        }
    }
    if (TrieTest::liveNodes() || TrieTest::liveStates()) fail("a node or a state is still there");
    return 0;
}
