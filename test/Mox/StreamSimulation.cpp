#include "StreamSimulation.h"

#include "Mox/Cell.h"

#include "Redundancy/RedundancyStatus.h"

#include "Vel/Exception.h"
#include "Vel/Module.h"

namespace Simulation {

namespace {

// Calls f for every entity that can be reached.
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

}  // namespace

// --- the source ---

String World::name() { return Vel::format("n%zu", random_.below(6)); }

Ptr<Vel::Dir> World::dir() {
    Ptr<Vel::Dir> at = root_;
    while (!random_.oneIn(2)) {
        std::vector<Ptr<Vel::Dir>> below;
        at->visitEntries([&](Ptr<Vel::Entity> const& entry) {
            if (auto d = Vel::ptr_cast<Vel::Dir>(entry)) below.push_back(d);
        });
        if (below.empty()) break;
        at = below[random_.below(below.size())];
    }
    return at;
}

Ptr<Vel::Entity> World::anything() {
    std::vector<Ptr<Vel::Entity>> all;
    walk(*root_, [&](Vel::Entity& entity) { all.push_back(&entity); });
    return all[random_.below(all.size())];
}

Ptr<Vel::Entity> World::made(String const& name) {
    switch (random_.below(9)) {
    case 0:
        return Vel::Dir::newEntity(name);
    case 1:
        return Mox::generationEntityFactory(name);
    case 2:
        return Mox::prefixTrieFactory(name);
    case 3:
        return Trie::newEntity(name);
    case 4:
        return Cell::statusFactory(name);
    case 5:
        return Redundancy::redundancyStatusFactory(name);
    case 6: {
        auto const table = ValueTable::newEntity(name);
        table->uidIs(++uids_);
        return table;
    }
    default:
        break;
    }
    auto const thing = Thing::newEntity(name);
    thing->uidIs(++uids_);
    return thing;
}

void World::changeThing(Thing& thing) {
    switch (random_.below(6)) {
    case 0:
        return thing.textIs(random_.oneIn(3) ? String() : Vel::format("text %zu", random_.below(100)));
    case 1: {
        ++moves_;
        Ptr<Vel::Entity> const peer = random_.oneIn(3) ? nullptr : anything();
        return thing.peerIs(peer);
    }
    case 2:
        pairHistory_[++serial_] = thing.uid();
        return thing.pairIs({serial_, serial_ % 2 == 1});
    default:
        history_[++serial_] = thing.uid();
        return thing.numberIs(serial_);
    }
}

void World::changeTable(ValueTable& table) {
    String const key = Vel::format("k%zu", random_.below(5));
    U8 const mark = static_cast<U8>(random_.below(200));
    switch (random_.below(8)) {
    case 0:
        table.entryDel(key);
        return;
    case 1: {
        std::vector<String> keys;
        table.visitKeys([&](String const& there) { keys.push_back(there); });
        for (String const& there : keys) table.entryDel(there);
        return;
    }
    case 2:
        return table.markDel(mark);
    case 3:
        for (U8 i = mark; i < 200; ++i) table.markIs(i, mark);
        return;
    default:
        entryHistory_[++serial_] = {table.uid(), key.stdString()};
        return table.entryIs(key, Entry(serial_));
    }
}

void World::changeTrie(Mox::PrefixTrie& trie) {
    String const key = Vel::format("k%zu", random_.below(4));
    switch (random_.below(10)) {
    case 0:
        return trie.presentIs(!trie.present());
    case 1:
        return trie.mountPointIs(!trie.mountPoint());
    case 2:
        return trie.stateIs(random_.oneIn(3) ? nullptr : Mox::prefixTrieStateFactory());
    case 3:
        trie.childDel(key);
        return;
    case 4:
        trie.prefixChildDel(key);
        return;
    case 5:  // gone and made again
        trie.prefixChildDel(key);
        trie.prefixChildIs(key);
        return;
    case 6:
        if (auto const member = trie.prefixChild(key)) trie.childIs(member);
        return;
    case 7: {  // from one trie to another
        auto const other = Vel::ptr_cast<Trie>(anything());
        auto const member = trie.prefixChild(key);
        if (!other || !member) return;
        for (Vel::Entity* above = other.get(); above; above = above->parent())
            if (above == member.get()) return;
        trie.childDel(key);
        trie.prefixChildDel(key);
        other->adopt(member);
        return;
    }
    default:
        trie.newChildIs(key);
        return;
    }
}

void World::changeDir() {
    Ptr<Vel::Dir> const d = dir();
    String const name = this->name();
    ++moves_;
    switch (random_.below(5)) {
    case 0: {
        Ptr<Vel::Entity> const gone = d->entryDel(name);
        if (gone && random_.oneIn(2)) held_.push_back(gone);
        return;
    }
    case 1: {  // from one place to another, perhaps much later
        if (held_.empty()) return;
        std::size_t const i = random_.below(held_.size());
        Ptr<Vel::Entity> const entity = held_[i];
        held_.erase(held_.begin() + static_cast<std::ptrdiff_t>(i));
        if (entity->parent()) return;
        try {
            d->entryIs(entity);
        } catch (Vel::Exception const&) {}
        return;
    }
    case 2: {
        Ptr<Vel::Dir> const other = dir();
        Ptr<Vel::Entity> const entity = d->entryDel(name);
        try {
            if (entity) other->entryIs(entity);
        } catch (Vel::Exception const&) {}
        return;
    }
    default:
        if (d->entryExists(name)) {
            if (!random_.oneIn(3)) return;
            d->entryDel(name);
        }
        Ptr<Vel::Entity> const entity = made(name);
        if (random_.oneIn(2))  // with something in it
            if (auto const thing = Vel::ptr_cast<Thing>(entity)) changeThing(*thing);
        if (random_.oneIn(2))
            if (auto const table = Vel::ptr_cast<ValueTable>(entity)) changeTable(*table);
        d->entryIs(entity);
        return;
    }
}

void World::change() {
    ++changes_;
    if (random_.oneIn(3)) return changeDir();
    Ptr<Vel::Entity> const entity = anything();
    if (auto const thing = Vel::ptr_cast<Thing>(entity)) return changeThing(*thing);
    if (auto const table = Vel::ptr_cast<ValueTable>(entity)) return changeTable(*table);
    if (auto const trie = Vel::ptr_cast<Mox::PrefixTrie>(entity)) return changeTrie(*trie);
    if (auto const generation = Vel::ptr_cast<Mox::GenerationEntity>(entity))
        return generation->generationIs({static_cast<U32>(random_.below(100)), random_.oneIn(2)});
    if (auto const redundancy = Vel::ptr_cast<Redundancy::RedundancyStatus>(entity))
        return redundancy->activeCellIdIs(static_cast<U32>(random_.below(3)));
    if (auto const status = Vel::ptr_cast<Cell::Status>(entity)) {
        status->cellIdIs(static_cast<Vel::U16>(random_.below(3)));
        status->productIs(Vel::format("product %zu", random_.below(3)));
        status->cpuBmcModeIs(random_.oneIn(2));
    }
}

// --- replicas ---

Mounted::Mounted(Random& random, World& world, Vel::AttrLogSource& source, bool isSlow)
    : random_(random), world_(world), source_(source), isSlow_(isSlow) {
    replica_.onStateIs([this](Vel::AttrLogReplica::State state) {
        if (state == Vel::AttrLogReplica::State::synced) atSyncMark();
    });
}

Mounted::~Mounted() { cut(); }

void Mounted::connect() {
    ++connections_;
    atConnect_.clear();
    reader_ = source_.newReader();
    replica_.connected();
    stalled_ = 0;
    movesAtConnect_ = world_.moves();
    walk(*world_.root(), [&](Vel::Entity& entity) {
        if (auto* const thing = dynamic_cast<Thing*>(&entity)) atConnect_[thing->uid()] = thing->number();
    });
}

void Mounted::cut() {
    if (!reader_) return;
    ++cuts_;
    reader_->closed("cut");
    reader_ = nullptr;
    replica_.closed("cut");
    toReplica_.clear();
    toSource_.clear();
}

// Some bytes get onto the wire, some of those that are on it arrive.
void Mounted::carry(std::deque<U8>& wire, Vel::StreamPeer& from, Vel::StreamPeer& to) {
    if (wire.size() < 5000) {
        auto const bytes = from.output(1 + random_.below(isSlow_ ? 60 : 3000));
        std::size_t const taken = bytes.empty() ? 0 : random_.below(bytes.size() + 1);
        wire.insert(wire.end(), bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(taken));
        if (taken != 0) from.outputTaken(taken);
    }
    std::size_t left = wire.empty() ? 0 : random_.below(wire.size() + 1);
    while (left != 0) {
        std::size_t const size = 1 + random_.below(left);
        std::vector<U8> const bytes(wire.begin(), wire.begin() + static_cast<std::ptrdiff_t>(size));
        wire.erase(wire.begin(), wire.begin() + static_cast<std::ptrdiff_t>(size));
        to.input(bytes);
        left -= size;
    }
}

void Mounted::step() {
    if (!reader_) {
        if (random_.oneIn(4)) connect();
        return;
    }
    if (random_.oneIn(isSlow_ ? 400 : 150)) return cut();
    if (stalled_ != 0) {
        --stalled_;
        return;
    }
    if (random_.oneIn(40)) stalled_ = random_.below(60);
    carry(toSource_, replica_, *reader_);
    carry(toReplica_, *reader_, replica_);
    observeAll();
    EXPECT_EQ(replica_.error(), "");
    EXPECT_EQ(reader_->error(), "");
}

void Mounted::settle() {
    for (unsigned quiet = 0; quiet < 3;) {
        if (!reader_) connect();
        carry(toSource_, replica_, *reader_);
        carry(toReplica_, *reader_, replica_);
        observeAll();
        if (!replica_.error().empty() || !reader_->error().empty()) return;
        bool const isQuiet =
            toReplica_.empty() && toSource_.empty() && !replica_.wantsOutput() && !reader_->wantsOutput();
        quiet = isQuiet ? quiet + 1 : 0;
    }
}

void Mounted::check() {
    EXPECT_EQ(replica_.error(), "");
    EXPECT_EQ(replica_.state(), Vel::AttrLogReplica::State::synced);
    if (replica_.root()) {
        EXPECT_EQ(StreamTest::treeOf(*replica_.root()), StreamTest::treeOf(*world_.root()));
    }
}

// --- what a replica is seen to be ---

void Mounted::observeAll() {
    if (!replica_.root()) return;
    std::set<Vel::Entity const*> there;
    walk(*replica_.root(), [&](Vel::Entity& entity) {
        there.insert(&entity);
        observe(entity);
    });
    std::erase_if(observers_, [&](auto const& o) { return !there.contains(o.first) || !o.second->hasNotifier(); });
    walk(*replica_.root(), [&](Vel::Entity& entity) { observe(entity); });
}

void Mounted::observe(Vel::Entity& entity) {
    if (observers_.contains(&entity)) return;
    if (auto* const thing = dynamic_cast<Thing*>(&entity))
        observers_[thing] = Vel::notifieeOf(*thing, [this, thing](Vel::AttributeId id) { seen(*thing, id); });
    if (auto* const table = dynamic_cast<ValueTable*>(&entity))
        observers_[table] = Vel::notifieeOf(*table, [this, table](Vel::AttributeId id, Vel::NotifieeKey const* key) {
            if (id == ValueTable::entryAttribute) seen(*table, key->as<String>());
        });
}

// Each attribute goes through values that it had at the source, in their order, and no part of one alone.
void Mounted::seen(Thing& thing, Vel::AttributeId attribute) {
    if (attribute == Thing::numberAttribute) {
        U32 const number = thing.number();
        if (number != 0) {  // what every thing begins with
            auto const held = world_.history().find(number);
            ASSERT_NE(held, world_.history().end());
            EXPECT_EQ(held->second, thing.uid()) << "a number that another thing held";
        }
        EXPECT_GE(number, last_[thing.uid()]) << "a number older than one that was seen";
        last_[thing.uid()] = number;
    } else if (attribute == Thing::pairAttribute) {
        U32 const id = thing.pair().id();
        if (id != 0) {
            auto const held = world_.pairHistory().find(id);
            ASSERT_NE(held, world_.pairHistory().end());
            EXPECT_EQ(held->second, thing.uid());
        }
        EXPECT_EQ(thing.pair().valid(), id % 2 == 1) << "half of a value";
        EXPECT_GE(id, lastPair_[thing.uid()]);
        lastPair_[thing.uid()] = id;
    }
}

// So does what is at each key.
void Mounted::seen(ValueTable& table, String const& key) {
    if (!table.entryExists(key)) return;
    Entry const entry = table.entry(key);
    EXPECT_TRUE(entry.isWhole()) << "half of a value";
    World::Place const place{table.uid(), key.stdString()};
    auto const held = world_.entryHistory().find(entry.number());
    ASSERT_NE(held, world_.entryHistory().end());
    EXPECT_EQ(held->second, place) << "an entry of another table, or at another key";
    EXPECT_GE(entry.number(), lastEntry_[place]) << "an entry older than one that was seen";
    lastEntry_[place] = entry.number();
}

// Whatever was there when the connection began, and is there still, is there now, and no older.
void Mounted::atSyncMark() {
    std::map<U32, U32> here;
    walk(*replica_.root(), [&](Vel::Entity& entity) {
        if (auto* const thing = dynamic_cast<Thing*>(&entity)) here[thing->uid()] = thing->number();
    });
    std::set<U32> still;
    walk(*world_.root(), [&](Vel::Entity& entity) {
        if (auto* const thing = dynamic_cast<Thing*>(&entity)) still.insert(thing->uid());
    });
    for (auto const& [uid, number] : atConnect_) {
        if (!still.contains(uid)) continue;
        if (!here.contains(uid)) {
            EXPECT_NE(world_.moves(), movesAtConnect_) << "a copy that calls itself complete lacks a thing";
            continue;  // it may have gone and come back meanwhile
        }
        EXPECT_GE(here[uid], number) << "a copy that calls itself complete has an old number";
    }
}

// --- a run ---

namespace {

void runWorld(U64 seed) {
    Random random(seed);
    World world(random);
    for (unsigned i = 0; i < 60; ++i) world.change();
    Vel::AttrLogSource::Options options;
    options.logSize = random.oneIn(2) ? 0 : 1u << 20;  // 0: who is behind by a chunk of 256 bytes catches up
    Vel::AttrLogSource source(world.root(), options);
    std::vector<std::unique_ptr<Mounted>> mounted;
    for (unsigned i = 0; i < 3; ++i) mounted.push_back(std::make_unique<Mounted>(random, world, source, i == 2));
    std::size_t const steps = 200 + random.below(1200);
    for (std::size_t i = 0; i < steps && !testing::Test::HasFailure(); ++i) {
        for (std::size_t n = random.below(4); n != 0; --n) world.change();
        mounted[random.below(mounted.size())]->step();
        EXPECT_LE(source.log().size(), options.logSize + (64u << 10));
    }
    if (testing::Test::HasFailure()) return;
    for (auto const& m : mounted) {
        m->settle();
        m->check();
    }
}

}  // namespace

void run(U64 seed) {
    SCOPED_TRACE("MOX_SIMULATION_SEED=" + std::to_string(seed));
    runWorld(seed);
    Thing::cutAllPointers();
}

}  // namespace Simulation

VEL_MODULE(
    Simulation, 7f996407f927a998, Simulation::Thing, Simulation::Trie, Shelf, StreamTest::Entry, StreamTest::ValueTable);
