#pragma once

#include "../Vel/StreamTools.h"
#include "../Vel/ValueTable.h"
#include "Shelf.h"
#include "Mox/Generation.h"
#include "Mox/PrefixTrie.h"

#include <deque>
#include <map>
#include <set>
#include <string>
#include <vector>

// A source, replicas and a network between them, all driven by one seed.
namespace Simulation {

using StreamTest::Entry;
using StreamTest::ValueTable;
using Vel::Ptr;
using Vel::String;
using Vel::U32;
using Vel::U64;
using Vel::U8;

class Random {
public:
    explicit Random(U64 seed) : state_(seed) {}
    U64 next() {
        U64 z = state_ += 0x9e3779b97f4a7c15ul;
        z = (z ^ z >> 30) * 0xbf58476d1ce4e5b9ul;
        z = (z ^ z >> 27) * 0x94d049bb133111ebul;
        return z ^ z >> 31;
    }
    std::size_t below(std::size_t limit) { return static_cast<std::size_t>(next() % limit); }
    bool oneIn(std::size_t n) { return below(n) == 0; }

private:
    U64 state_;
};

// Numbers that only grow, a text, a pointer.
class Thing : public Vel::EntityOf<Thing> {
public:
    explicit Thing(String const& name) : EntityOf(name) { all().insert(this); }
    ~Thing() override { all().erase(this); }
    // Pointers may lead in circles, which nobody frees.
    static void cutAllPointers() {
        std::vector<Ptr<Thing>> things;
        for (Thing* const thing : all()) things.push_back(thing);
        for (auto const& thing : things) thing->peerIs(nullptr);
    }

    U32 uid() const { return uid_; }
    void uidIs(U32 v) { velSet<&Thing::uid_>(v); }
    U32 number() const { return number_; }
    void numberIs(U32 v) { velSet<&Thing::number_>(v); }
    String text() const { return text_; }
    void textIs(String const& v) { velSet<&Thing::text_>(v); }
    Mox::Generation pair() const { return pair_; }
    void pairIs(Mox::Generation const& v) { velSet<&Thing::pair_>(v); }
    Ptr<Vel::Entity> peer() const { return peer_; }
    void peerIs(Ptr<Vel::Entity> const& v) { velSet<&Thing::peer_>(v); }

    static constexpr auto description() {
        return Vel::entity("Simulation::Thing", Vel::attribute<&Thing::uid_, &Thing::uid, &Thing::uidIs>("uid"),
            Vel::attribute<&Thing::number_, &Thing::number, &Thing::numberIs>("number"),
            Vel::attribute<&Thing::text_, &Thing::text, &Thing::textIs>("text"),
            Vel::attribute<&Thing::pair_, &Thing::pair, &Thing::pairIs>("pair"),
            Vel::attribute<&Thing::peer_, &Thing::peer, &Thing::peerIs>("peer"));
    }
    static constexpr Vel::AttributeId numberAttribute = 259, pairAttribute = 261;

private:
    static std::set<Thing*>& all() {
        static std::set<Thing*> things;
        return things;
    }

    U32 uid_ = 0;
    U32 number_ = 0;
    String text_;
    Mox::Generation pair_;
    Ptr<Vel::Entity> peer_;
};

// Makes children of its own type.
class Trie : public Vel::EntityOf<Trie, Mox::PrefixTrie> {
public:
    explicit Trie(String const& name) : EntityOf(name) {}
    Ptr<Mox::PrefixTrie> newChildIs(String const& key) override { return newChildOf<Trie>(key); }
    void adopt(Ptr<Mox::PrefixTrie> const& node) { velPrefixChildIs(node); }

    static constexpr auto description() { return Vel::entity("Simulation::Trie").with(Vel::base<Mox::PrefixTrie>); }
};

// The source's tree, changed at random.
class World {
public:
    explicit World(Random& random) : random_(random) {}
    void change();
    Ptr<Vel::Dir> const& root() const { return root_; }
    // Which thing held the number, which its uid says; every number is given once.
    std::map<U32, U32> const& history() const { return history_; }
    std::map<U32, U32> const& pairHistory() const { return pairHistory_; }
    // The same of tables' entries, and at which key.
    using Place = std::pair<U32, std::string>;
    std::map<U32, Place> const& entryHistory() const { return entryHistory_; }
    U64 changes() const { return changes_; }
    U64 moves() const { return moves_; }  // after which a thing may be in another place, or in none

private:
    String name();
    Ptr<Vel::Dir> dir();
    Ptr<Vel::Entity> anything();
    Ptr<Vel::Entity> made(String const& name);
    void changeThing(Thing& thing);
    void changeTable(ValueTable& table);
    void changeTrie(Mox::PrefixTrie& trie);
    void changeDir();

    Random& random_;
    Ptr<Vel::Dir> root_ = Vel::Dir::newEntity("world");
    std::vector<Ptr<Vel::Entity>> held_;  // taken out, perhaps to be put in again
    std::map<U32, U32> history_;
    std::map<U32, U32> pairHistory_;
    std::map<U32, Place> entryHistory_;
    U32 serial_ = 0;
    U32 uids_ = 0;
    U64 changes_ = 0;
    U64 moves_ = 0;
};

// One replica, its connection, and what it was seen to be.
class Mounted {
public:
    Mounted(Random& random, World& world, Vel::AttrLogSource& source, bool isSlow);
    ~Mounted();

    void step();
    void settle();  // everything arrives, and stays connected
    void check();   // convergence

    U64 connections() const { return connections_; }
    U64 cuts() const { return cuts_; }

private:
    void connect();
    void cut();
    void carry(std::deque<U8>& wire, Vel::StreamPeer& from, Vel::StreamPeer& to);
    void observe(Vel::Entity& entity);
    void observeAll();
    void seen(Thing& thing, Vel::AttributeId attribute);
    void seen(ValueTable& table, String const& key);
    void atSyncMark();

    Random& random_;
    World& world_;
    Vel::AttrLogSource& source_;
    bool isSlow_;
    Ptr<Vel::Dir> place_ = Vel::Dir::newEntity("");
    Vel::AttrLogReplica replica_{place_, "world", {}};
    std::unique_ptr<Vel::StreamPeer> reader_;
    std::deque<U8> toReplica_;
    std::deque<U8> toSource_;
    std::size_t stalled_ = 0;
    std::map<Vel::Entity const*, std::unique_ptr<Vel::Notifiee>> observers_;
    std::map<U32, U32> last_;  // number by uid
    std::map<U32, U32> lastPair_;
    std::map<World::Place, U32> lastEntry_;
    std::map<U32, U32> atConnect_;
    U64 connections_ = 0;
    U64 cuts_ = 0;
    U64 movesAtConnect_ = 0;
};

// Runs the seed; fails the current test where a guarantee is broken.
void run(U64 seed);

}  // namespace Simulation
