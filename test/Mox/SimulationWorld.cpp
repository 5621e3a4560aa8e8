#include "SimulationWorld.h"

#include "Mox/Cell.h"

#include "Redundancy/RedundancyStatus.h"

#include "Vel/base/Exception.h"
#include "Vel/describe/Module.h"
#include "Vel/entity/Together.h"

namespace Simulation {

namespace {

String dirName(U16 n) { return Vel::format("n%u", n % 4u); }
String keyName(U16 n) { return Vel::format("k%u", n % 3u); }
String componentName(U16 n) { return Vel::format("/k%u", n % 3u); }
std::string pathOf(Vel::Entity const& entity) { return entity.path().stdString(); }

// How likely each change is, of 100: what shares, moves and deletes members comes more often than what sets values.
constexpr struct {
    What what;
    unsigned weight;
} weights[] = {{What::make, 12}, {What::drop, 4}, {What::hold, 2}, {What::back, 2}, {What::move, 4}, {What::number, 5},
    {What::text, 2}, {What::pair, 3}, {What::peer, 4}, {What::present, 3}, {What::mountPoint, 1}, {What::state, 2},
    {What::newChild, 9}, {What::childDel, 4}, {What::prefixChildDel, 5}, {What::again, 2}, {What::childIs, 2},
    {What::share, 6}, {What::adopt, 6}, {What::replace, 2}, {What::turn, 3}, {What::item, 3}, {What::itemDel, 1},
    {What::rank, 2}, {What::rankDel, 1}, {What::entry, 4}, {What::entryDel, 1}, {What::entriesDel, 1}, {What::mark, 1},
    {What::markDel, 1}, {What::marksFrom, 1}, {What::other, 1}};

}  // namespace

Step randomChange(Random& random) {
    auto at = static_cast<unsigned>(random.below(100));
    Step step{What::make, {}};
    for (auto const& [what, weight] : weights) {
        step.what = what;
        if (at < weight) break;
        at -= weight;
    }
    for (U16& n : step.n) n = static_cast<U16>(random.next());
    return step;
}

World::~World() {
    Thing::cutAllPointers();
    Shelf::emptyAll();
}

Ptr<Vel::Entity> World::made(String const& name, U16 type) {
    switch (type % 12) {
    case 0:
    case 1:
        return Vel::Dir::newEntity(name);
    case 2:
        return Mox::generationEntityFactory(name);
    case 3:
        return Mox::prefixTrieFactory(name);
    case 4:
    case 5:
    case 6:
        return Trie::newEntity(name);
    case 7:
        return Shelf::newEntity(name);
    case 8: {
        if (type % 24 == 8) return Cell::statusFactory(name);
        return Redundancy::redundancyStatusFactory(name);
    }
    case 9: {
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

Ptr<Mox::PrefixTrie> World::anyMember(U16 n) {
    std::vector<Mox::PrefixTrie*> all, shared;
    walk(*root_, [&](Vel::Entity& entity) {
        auto* const trie = dynamic_cast<Mox::PrefixTrie*>(&entity);
        if (!trie) return;
        for (Ptr<Mox::PrefixTrie> const member : trie->prefixChildMembers()) all.push_back(member.get());
        for (Ptr<Mox::PrefixTrie> const member : trie->childMembers())
            if (member->parent() && member->parent() != trie) shared.push_back(member.get());
    });
    auto const& from = n % 2 && !shared.empty() ? shared : all;
    return from.empty() ? nullptr : from[n / 2 % from.size()];
}

std::vector<Ptr<Vel::Entity>> World::makeServed() {
    auto const outer = Vel::Dir::newEntity("n0");
    auto const inner = Vel::Dir::newEntity("n1");
    root_->entryIs(outer);
    outer->entryIs(inner);
    outer->entryIs(made("n2", 4));
    outer->entryIs(made("n3", 10));
    return {root_, outer, inner, outer->entry("n2"), outer->entry("n3")};
}

std::string World::apply(Step const& step) {
    if (step.what == What::account || step.what == What::joint) return changeAccount(step);
    if (step.what == What::abroad) return changeAbroad(step);
    if (step.what <= What::move) return changeDir(step);
    if (step.what <= What::peer) return changeThing(step);
    if (step.what <= What::turn) return changeTrie(step);
    if (step.what <= What::rankDel) return changeShelf(step);
    if (step.what <= What::marksFrom) return changeTable(step);
    return changeOther(step);
}

// --- directories ---

std::string World::changeDir(Step const& step) {
    auto const dir = any<Vel::Dir>(step.n[0]);
    String const name = dirName(step.n[1]);
    std::string const place = pathOf(*dir) + " entry " + name.stdString();
    ++moves_;
    if (step.what == What::make) {
        if (dir->entryExists(name)) return "";
        auto const entity = made(name, step.n[2]);
        dir->entryIs(entity);
        return place + " is a new " + entity->fwkType().name();
    }
    if (step.what == What::back) {  // perhaps much later, and to another place
        if (held_.empty()) return "";
        auto const at = held_.begin() + step.n[1] % static_cast<int>(held_.size());
        Ptr<Vel::Entity> const entity = *at;
        held_.erase(at);
        if (entity->parent() || dir->entryExists(entity->name())) return "";
        try {
            dir->entryIs(entity);
        } catch (Vel::Exception const&) {
            return "";
        }
        return "what was held comes back as " + pathOf(*entity);
    }
    Ptr<Vel::Entity> const entity = dir->entryDel(name);
    if (!entity) return "";
    if (step.what == What::drop) return place + " goes";
    if (step.what == What::hold) {
        held_.push_back(entity);
        return place + " goes, and is held";
    }
    auto const to = any<Vel::Dir>(step.n[2]);
    try {
        if (!to->entryExists(name)) to->entryIs(entity);
    } catch (Vel::Exception const&) {}
    return place + " moves to " + pathOf(*to);
}

// --- things ---

std::string World::changeThing(Step const& step) {
    auto const thing = any<Thing>(step.n[0]);
    if (!thing) return "";
    std::string const name = pathOf(*thing);
    switch (step.what) {
    case What::text:
        thing->textIs(step.n[1] % 3 ? Vel::format("text %u", step.n[1] % 100u) : String());
        return name + " text changes";
    case What::peer: {
        ++moves_;
        auto const peer = step.n[1] % 3 ? any<Vel::Entity>(step.n[2]) : nullptr;
        thing->peerIs(peer);
        return name + " peer is " + (peer ? pathOf(*peer) : "null");
    }
    case What::pair:
        pairHistory_[++serial_] = thing->uid();
        thing->pairIs({serial_, serial_ % 2 == 1});
        return name + " pair is " + std::to_string(serial_);
    default:
        history_[++serial_] = thing->uid();
        thing->numberIs(serial_);
        return name + " number is " + std::to_string(serial_);
    }
}

// --- tries ---

std::string World::changeTrie(Step const& step) {
    auto const trie = any<Mox::PrefixTrie>(step.n[0]);
    if (!trie) return "";
    std::string const name = pathOf(*trie);
    switch (step.what) {
    case What::present:
        trie->presentIs(!trie->present());
        return name + " present changes";
    case What::mountPoint:
        trie->mountPointIs(!trie->mountPoint());
        return name + " mountPoint changes";
    case What::state:
        trie->stateIs(step.n[1] % 3 ? Mox::prefixTrieStateFactory() : nullptr);
        return name + " state changes";
    case What::newChild:
        trie->newChildIs(componentName(step.n[1]));
        return name + " newChildIs " + componentName(step.n[1]).stdString();
    case What::childDel: {
        auto const members = trie->childMembers();
        if (members.empty()) return "";
        String const key = (*members.begin())->name();
        trie->childDel(key);
        return name + " childDel " + key.stdString();
    }
    default:
        return changeMember(step);
    }
}

std::string World::changeMember(Step const& step) {
    auto const member = anyMember(step.n[0]);
    Ptr<Mox::PrefixTrie> const owner =
        member ? Vel::ptr_cast<Mox::PrefixTrie>(Ptr<Vel::Entity>(member->parent())) : nullptr;
    if (!owner) return "";
    String const key = member->name();
    std::string const name = pathOf(*owner) + " ";
    switch (step.what) {
    case What::prefixChildDel:
        owner->prefixChildDel(key);
        return name + "prefixChildDel " + key.stdString();
    case What::again:
        owner->prefixChildDel(key);
        owner->prefixChildIs(key);
        return name + "prefixChildDel, then prefixChildIs " + key.stdString();
    case What::childIs:
        owner->childIs(member);
        return name + "childIs its own " + key.stdString();
    default:
        return moveMember(step, *owner, member);
    }
}

std::string World::moveMember(Step const& step, Mox::PrefixTrie& owner, Ptr<Mox::PrefixTrie> const& member) {
    String const key = member->name();
    auto* const adopting = dynamic_cast<Trie*>(&owner);
    if (step.what == What::turn) {
        auto const outer = Vel::ptr_cast<Trie>(member);
        return adopting && outer ? turn(*adopting, *outer) : "";
    }
    if (step.what == What::replace) {
        if (!adopting) return "";
        std::string const name = pathOf(*member);
        if (step.n[3] % 2)
            adopting->adopt(Mox::prefixTrieFactory(key));
        else
            adopting->adopt(Trie::newEntity(key));
        return name + " is another, at once";
    }
    auto const other = any<Trie>(step.n[2]);
    if (!other) return "";
    if (step.what == What::share) {
        other->childIs(member);
        return pathOf(*other) + " childIs " + pathOf(*member);
    }
    for (Vel::Entity* above = other.get(); above; above = above->parent())
        if (above == member.get()) return "";
    std::string const from = pathOf(*member);
    if (step.n[3] % 2) owner.childDel(key);
    owner.prefixChildDel(key);
    other->adopt(member);
    return from + " moves to " + pathOf(*member);
}

// Of trie > outer > ... > inner, the inner one becomes the outer one, and what was between them stays in the other.
std::string World::turn(Trie& trie, Trie& outer) {
    Ptr<Trie> const kept(&outer);
    Ptr<Trie> inner = kept;
    for (unsigned depth = 0; depth < 3; ++depth) {
        Ptr<Trie> next;
        for (Ptr<Mox::PrefixTrie> const member : inner->prefixChildMembers())
            if (!next) next = Vel::ptr_cast<Trie>(member);
        if (!next) break;
        inner = next;
    }
    if (inner == kept) return "";
    std::string const from = pathOf(*inner);
    inner->presentIs(!inner->present());
    static_cast<Trie&>(*inner->parent()).prefixChildDel(inner->name());
    trie.prefixChildDel(outer.name());
    trie.adopt(inner);
    inner->adopt(kept);
    return from + " is turned round to " + pathOf(outer);
}

std::string wrongAnswer(Vel::Entity& root) {
    std::string wrong;
    walk(root, [&](Vel::Entity& entity) {
        auto* const trie = dynamic_cast<Mox::PrefixTrie*>(&entity);
        if (!trie) return;
        for (std::string_view const path : {"/k0", "/k1/k0", "/k2/k2/k1", "/k0/k1/k2/k0"}) {
            Ptr<Mox::PrefixTrie> at(trie);
            bool found = false, whole = false;
            for (std::size_t i = 0; i < path.size() && at; i += 3) {
                at = at->child(path.substr(i, 3));
                whole = at && at->present();
                found = found || whole;
            }
            if (trie->hasPrefix(path) != found || trie->isPrefix(path) != whole)
                wrong = "a trie does not answer as its nodes do: " + pathOf(*trie) + " of " + std::string(path);
        }
    });
    return wrong;
}

// --- shelves and tables ---

std::string World::changeShelf(Step const& step) {
    auto const shelf = any<Shelf>(step.n[0]);
    if (!shelf) return "";
    String const key = keyName(step.n[1]);
    auto const rank = static_cast<U8>(step.n[1] % 3);
    std::string const what = pathOf(*shelf);
    auto const member = any<Vel::Entity>(step.n[2]);
    ++moves_;
    switch (step.what) {
    case What::item:
        shelf->itemIs(key, member);
        return what + " item " + key.stdString() + " is " + pathOf(*member);
    case What::itemDel:
        shelf->itemDel(key);
        return what + " itemDel " + key.stdString();
    case What::rank:
        shelf->rankIs(rank, member);
        return what + " rank " + std::to_string(rank) + " is " + pathOf(*member);
    default:
        shelf->rankDel(rank);
        return what + " rankDel " + std::to_string(rank);
    }
}

std::string World::changeTable(Step const& step) {
    auto const table = any<ValueTable>(step.n[0]);
    if (!table) return "";
    String const key = keyName(step.n[1]);
    U8 const mark = static_cast<U8>(step.n[2] % 200);
    std::string const what = pathOf(*table);
    switch (step.what) {
    case What::entry:
        entryHistory_[++serial_] = {table->uid(), key.stdString()};
        table->entryIs(key, Entry(serial_));
        return what + " entry " + key.stdString() + " is " + std::to_string(serial_);
    case What::entryDel:
        if (!table->entryExists(key)) return "";
        table->entryDel(key);
        return what + " entryDel " + key.stdString();
    case What::entriesDel: {
        std::vector<String> keys;
        table->visitKeys([&](String const& there) { keys.push_back(there); });
        for (String const& there : keys) table->entryDel(there);
        return keys.empty() ? "" : what + " loses all entries";
    }
    case What::markDel:
        if (!table->markExists(mark)) return "";
        table->markDel(mark);
        return what + " markDel " + std::to_string(mark);
    case What::mark:
        table->markIs(mark, ++serial_);
        return what + " mark " + std::to_string(mark) + " changes";
    default:
        ++serial_;
        for (U8 i = mark; i < 200; ++i) table->markIs(i, serial_);
        return what + " marks from " + std::to_string(mark) + " on change";
    }
}

std::string World::changeOther(Step const& step) {
    U16 const n = step.n[1];
    if (auto const generation = any<Mox::GenerationEntity>(step.n[0])) {
        generation->generationIs({n % 100u, n % 2 == 0});
        return pathOf(*generation) + " generation is " + std::to_string(n % 100u);
    }
    if (auto const redundancy = any<Redundancy::RedundancyStatus>(step.n[0])) {
        redundancy->activeCellIdIs(n % 3u);
        return pathOf(*redundancy) + " activeCellId is " + std::to_string(n % 3u);
    }
    auto const status = any<Cell::Status>(step.n[0]);
    if (!status) return "";
    status->cellIdIs(static_cast<Vel::U16>(n % 3));
    status->productIs(Vel::format("product %u", n % 3u));
    status->cpuBmcModeIs(n % 2 == 0);
    return pathOf(*status) + " changes";
}

// --- accounts ---

Ptr<Account> World::newAccount(String const& name) {
    auto const account = Account::newEntity(name);
    U32 const uid = ++uids_;
    account->uidIs(uid);
    account->secondIs(Account::secondOf(0));
    notes_[uid] = firsts_[uid] = {0};
    bookkeepers_.push_back(Vel::notifieeOf(*account, [this, uid, kept = account.get()](Vel::AttributeId id) {
        if (id == Vel::attributeId<Account>("note")) notes_[uid].push_back(kept->note());
        if (id == Vel::attributeId<Account>("first")) firsts_[uid].push_back(kept->first());
    }));
    return account;
}

std::string World::changeAccount(Step const& step) {
    if (step.what == What::account) {
        auto const dir = any<Vel::Dir>(step.n[0]);
        String const name = dirName(step.n[1]);
        if (dir->entryExists(name)) return "";
        dir->entryIs(newAccount(name));
        ++moves_;
        return pathOf(*dir) + " entry " + name.stdString() + " is a new account";
    }
    auto const account = any<Account>(step.n[0]);
    if (!account) return "";
    do ++serial_;
    while (Account::isRefused(serial_));
    Vel::together(*account, [&] { account->bothAre(serial_); });
    return pathOf(*account) + " is " + std::to_string(serial_);
}

}  // namespace Simulation

// By itself, since a recorded stream has the fingerprint of the other module.
VEL_MODULE(SimulationAccount, 750a17ed5d3e6f9b, Simulation::Account);

VEL_MODULE(Simulation, 7f996407f927a998, Simulation::Thing, Simulation::Trie, Shelf, StreamTest::Entry,
    StreamTest::ValueTable);
