#pragma once

#include "SimulationWorld.h"

#include <functional>
#include <string>
#include <vector>

namespace Simulation {

// A world so small that every order of a few steps can be tried: two tries "a" and "b", a member that one refers to and
// the other owns, two keys, and a reader that gets one message at a time and has fallen behind when two wait for it.
class Small {
public:
    // How it begins: `sent` messages of the first synchronisation have been sent. `nested`: "b" is in "a".
    struct Beginning {
        bool nested;
        std::size_t sent;
        std::string words() const;
    };
    static std::vector<Beginning> const& beginnings();

    explicit Small(Beginning const& beginning);

    struct Step {
        std::string words;
        std::function<bool(Small&)> apply;  // false: there is nothing to do, and nothing has changed
    };
    static std::vector<Step> const& steps();

    // A number for all that what happens next depends on: two worlds with the same number go on alike.
    U64 state();
    // Ends what can be done with this world: everything is sent, and compared.
    void end();
    std::string error;  // what has gone wrong; empty: nothing

private:
    class StateBytes;
    static void addTrieSteps(
        std::vector<Step>& steps, std::string const& name, Ptr<Trie> Small::*x, Ptr<Trie> Small::*y);
    static void addKeySteps(
        std::vector<Step>& steps, std::string const& name, Ptr<Trie> Small::*x, Ptr<Trie> Small::*y, char const* key);
    bool move(Ptr<Mox::PrefixTrie> const& member, Trie& to);
    bool sendMessage();

    Ptr<Trie> root_ = Trie::newEntity("r"), a_ = Trie::newEntity("a"), b_ = Trie::newEntity("b");
    StreamTest::Pair pair_{root_, {.logSize = 0, .chunkSize = 1}};
};

}  // namespace Simulation
