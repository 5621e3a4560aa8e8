#pragma once

#include "Mox/Generation.h"
#include "Mox/PrefixTrie.h"
#include "Shelf.h"
#include "test/Vel/stream/Ports.h"
#include "test/Vel/stream/StreamTools.h"
#include "test/Vel/stream/ValueTable.h"

#include "Vel/base/Exception.h"

#include <array>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

// A tree of every entity type that can be copied, which changes at random.
namespace Simulation {

using StreamTest::Entry;
using StreamTest::ValueTable;
using Vel::Ptr;
using Vel::String;
using Vel::U16;
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

// What may happen, by the names under which histories are written down; they keep their meaning. Those from `connect` on
// concern a reader, but for `account`, `joint` and `abroad`.
// clang-format off
#define SIMULATION_STEPS(X) \
    X(make) X(drop) X(hold) X(back) X(move) \
    X(number) X(text) X(pair) X(peer) \
    X(present) X(mountPoint) X(state) X(newChild) X(childDel) X(prefixChildDel) X(again) X(childIs) X(share) X(adopt) \
    X(replace) X(turn) \
    X(item) X(itemDel) X(rank) X(rankDel) \
    X(entry) X(entryDel) X(entriesDel) X(mark) X(markDel) X(marksFrom) X(other) \
    X(connect) X(cut) X(carry) X(trickle) X(settle) X(log) X(paths) X(sweep) \
    X(writes) X(account) X(joint) X(ask) X(askJoint) X(askIf) X(askCall) X(upload) \
    X(skewed) X(abroad)
// clang-format on
enum class What : U8 {
#define SIMULATION_STEP(name) name,
    SIMULATION_STEPS(SIMULATION_STEP)
#undef SIMULATION_STEP
};

// One step, and numbers that choose among what there is when it happens: it means the same whatever came up with it.
struct Step {
    What what;
    std::array<U16, 4> n{};
};
Step randomChange(Random& random);  // of the world

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
    static Vel::AttributeId const numberAttribute, pairAttribute;

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

inline constexpr Vel::AttributeId Thing::numberAttribute = Vel::attributeId<Thing>("number");
inline constexpr Vel::AttributeId Thing::pairAttribute = Vel::attributeId<Thing>("pair");

// Two numbers that change together only, and one that changes alone. Mutators refuse numbers that divide by 5.
class Account : public Vel::EntityOf<Account> {
public:
    explicit Account(String const& name) : EntityOf(name) {}

    U32 uid() const { return uid_; }
    void uidIs(U32 v) { velSet<&Account::uid_>(v); }
    U32 first() const { return first_; }
    void firstIs(U32 v) { velSet<&Account::first_>(v); }
    U32 second() const { return second_; }
    void secondIs(U32 v) {
        if (isRefused((v - 1) / 3)) throw Vel::RangeException("refused");
        velSet<&Account::second_>(v);
    }
    U32 note() const { return note_; }
    void noteIs(U32 v) {
        if (isRefused(v)) throw Vel::RangeException("refused");
        velSet<&Account::note_>(v);
    }
    U32 bothAre(U32 v) {
        secondIs(secondOf(v));
        firstIs(v);
        return 2 * v;
    }

    static U32 secondOf(U32 first) { return 3 * first + 1; }  // so that one that has just been made is not whole
    static bool isRefused(U32 v) { return v != 0 && v % 5 == 0; }
    bool isWhole() const { return second_ == secondOf(first_); }

    static constexpr auto description() {
        using A = Account;
        return Vel::entity("Simulation::Account", Vel::attribute<&A::uid_, &A::uid, &A::uidIs>("uid"),
            Vel::attribute<&A::first_, &A::first, &A::firstIs>("first"),
            Vel::attribute<&A::second_, &A::second, &A::secondIs>("second"),
            Vel::attribute<&A::note_, &A::note, &A::noteIs>("note"), Vel::method<&A::bothAre>("bothAre", "first"));
    }

private:
    U32 uid_ = 0;
    U32 first_ = 0;
    U32 second_ = 0;
    U32 note_ = 0;
};

// Makes children of its own type.
class Trie : public Vel::EntityOf<Trie, Mox::PrefixTrie> {
public:
    explicit Trie(String const& name) : EntityOf(name) {}
    Ptr<Mox::PrefixTrie> newChildIs(String const& key) override { return newChildOf<Trie>(key); }
    void adopt(Ptr<Mox::PrefixTrie> const& node) { velPrefixChildIs(node); }

    static constexpr auto description() { return Vel::entity("Simulation::Trie").with(Vel::base<Mox::PrefixTrie>); }
};

// Calls f(entity) for every entity that can be reached, in an order that follows from what there is.
template <class F> void walk(Vel::Entity& root, F f) {
    std::set<Vel::Entity*> seen{&root};
    std::vector<Vel::Entity*> left{&root};
    while (!left.empty()) {
        Vel::Entity& entity = *left.back();
        left.pop_back();
        f(entity);
        auto add = [&](Vel::Entity& next) {
            if (seen.insert(&next).second) left.push_back(&next);
        };
        using Add = decltype(add);
        for (Vel::StreamAttribute const& attribute : entity.fwkType().glue().stream().attributes) {
            if (attribute.kind == Vel::StreamKind::pointer) {
                if (Vel::Entity* const target = attribute.target(entity)) add(*target);
            } else if (attribute.holdsEntities()) {
                attribute.visit(
                    entity, [](void* context, Vel::Entity& member) { (*static_cast<Add*>(context))(member); }, &add);
            }
        }
    }
}

// What a trie that can be reached says of a path, when that is not what its nodes say; else empty.
std::string wrongAnswer(Vel::Entity& root);

// The source's tree.
class World {
public:
    World() = default;
    explicit World(Random& random) : random_(&random) {}
    World(World const&) = delete;
    World& operator=(World const&) = delete;
    ~World();

    void change() { apply(randomChange(*random_)); }  // REQUIRES: made with a Random
    // What it did, in words; empty if there was nothing to do it to.
    std::string apply(Step const& step);
    Ptr<Vel::Dir> const& root() const { return root_; }
    // Makes entities to be served, one below the other or beside it, of several types: the first is root(). They stay,
    // wherever they get to. REQUIRES: nothing else is there yet.
    std::vector<Ptr<Vel::Entity>> makeServed();
    // Which thing held the number, which its uid says; every number is given once.
    std::map<U32, U32> const& history() const { return history_; }
    std::map<U32, U32> const& pairHistory() const { return pairHistory_; }
    // The same of tables' entries, and at which key.
    using Place = std::pair<U32, std::string>;
    std::map<U32, Place> const& entryHistory() const { return entryHistory_; }
    // The notes that an account has had, in their order, and its first numbers.
    std::vector<U32> const& notes(U32 account) { return notes_[account]; }
    std::vector<U32> const& firsts(U32 account) { return firsts_[account]; }
    // Which port, by the number in its label, had the point of a number.
    std::map<U32, U32> const& portHistory() const { return portHistory_; }
    U32 nextSerial() { return ++serial_; }
    void racksAre(bool on) { hasRacks_ = on; }  // whether types are made of which a reader has no version
    U64 moves() const { return moves_; }        // after which a thing may be in another place, or in none

private:
    template <class E> Ptr<E> any(U16 n) {  // the nth, counted round, that can be reached; or null
        std::vector<E*> all;
        walk(*root_, [&](Vel::Entity& entity) {
            if (auto* const e = dynamic_cast<E*>(&entity)) all.push_back(e);
        });
        return all.empty() ? nullptr : all[n % all.size()];
    }
    // Of the members that tries own: in every other case one that another trie refers to, if there is one. Or null.
    Ptr<Mox::PrefixTrie> anyMember(U16 n);
    Ptr<Vel::Entity> made(String const& name, U16 type);
    std::string changeDir(Step const& step);
    std::string changeThing(Step const& step);
    std::string changeTrie(Step const& step);
    std::string changeMember(Step const& step);
    std::string moveMember(Step const& step, Mox::PrefixTrie& owner, Ptr<Mox::PrefixTrie> const& member);
    std::string turn(Trie& trie, Trie& outer);
    std::string changeShelf(Step const& step);
    std::string changeTable(Step const& step);
    std::string changeOther(Step const& step);
    std::string changeAccount(Step const& step);
    Ptr<Account> newAccount(String const& name);
    std::string changeAbroad(Step const& step);
    std::string newAbroad(Step const& step);
    std::string changeRack(Step const& step, Ptr<Ports::New::Port> const& port);
    void begin(Ports::New::Port& port);

    Random* random_ = nullptr;
    Ptr<Vel::Dir> root_ = Vel::Dir::newEntity("world");
    std::vector<Ptr<Vel::Entity>> held_;  // taken out, perhaps to be put in again
    std::map<U32, U32> history_;
    std::map<U32, U32> pairHistory_;
    std::map<U32, Place> entryHistory_;
    std::map<U32, std::vector<U32>> notes_, firsts_;
    std::vector<std::unique_ptr<Vel::Notifiee>> bookkeepers_;
    std::map<U32, U32> portHistory_;
    bool hasRacks_ = false;
    U32 serial_ = 0;
    U32 uids_ = 0;
    U64 moves_ = 0;
};

}  // namespace Simulation
