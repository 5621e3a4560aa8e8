#include "StreamSimulation.h"

#include "Mox/internal/PathIndex.h"

#include <algorithm>
#include <sstream>
#include <stdexcept>

namespace Simulation {

// --- histories ---

namespace {

constexpr char const* names[] = {
#define SIMULATION_STEP(name) #name,
    SIMULATION_STEPS(SIMULATION_STEP)
#undef SIMULATION_STEP
};

Step stepOf(What what, Random& random) {
    Step step{what, {}};
    for (U16& n : step.n) n = static_cast<U16>(random.next());
    return step;
}

// What the network does next. Readers differ: 2 takes one byte at a time, as a rule.
Step networkStep(Random& random) {
    Step step = stepOf(What::carry, random);
    step.n[0] %= readers;
    switch (random.below(16)) {
    case 0:
        step.what = What::cut;
        break;
    case 1:
    case 2:
        step.what = What::connect;
        break;
    case 3:
        step.what = What::settle;
        break;
    default:
        if (step.n[0] == 2 || random.oneIn(3)) step.what = What::trickle;
        break;
    }
    return step;
}

}  // namespace

History historyOf(U64 seed) {
    Random worldsChoice(seed), networksChoice(~seed), rhythm(seed ^ 0x5555555555555555ul);
    History history{stepOf(What::log, networksChoice)};
    for (std::size_t n = rhythm.below(40); n != 0; --n) history.push_back(randomChange(worldsChoice));
    // Bursts of changes between one and the next of what the network does, which is quiet for a while now and then.
    for (std::size_t left = 20 + rhythm.below(180); left != 0; --left) {
        for (std::size_t n = rhythm.oneIn(6) ? rhythm.below(12) : rhythm.below(3); n != 0; --n)
            history.push_back(randomChange(worldsChoice));
        history.push_back(networkStep(networksChoice));
    }
    return history;
}

History pathsHistoryOf(U64 seed) {
    Random more(seed ^ 0x3333333333333333ul);
    History const history = historyOf(seed);
    History mixed{history[0], stepOf(What::paths, more)};
    constexpr What moves[] = {What::move, What::move, What::hold, What::back, What::peer, What::drop};
    for (std::size_t i = 1; i < history.size(); ++i) {
        mixed.push_back(history[i]);
        if (more.oneIn(8)) mixed.push_back(stepOf(moves[more.below(std::size(moves))], more));
        if (more.oneIn(12)) mixed.push_back(stepOf(What::sweep, more));
    }
    return mixed;
}

History writesHistoryOf(U64 seed) {
    Random more(seed ^ 0x7777777777777777ul);
    History const history = historyOf(seed);
    History mixed{history[0], stepOf(What::writes, more), stepOf(What::account, more)};
    constexpr What changes[] = {What::joint, What::joint, What::ask, What::askJoint, What::askJoint, What::askIf,
        What::askCall, What::upload, What::upload, What::account};
    for (std::size_t i = 1; i < history.size(); ++i) {
        mixed.push_back(history[i]);
        for (std::size_t n = more.below(4); n != 0; --n)
            mixed.push_back(stepOf(changes[more.below(std::size(changes))], more));
    }
    return mixed;
}

History skewedHistoryOf(U64 seed) {
    Random more(seed ^ 0x1111111111111111ul);
    History const history = historyOf(seed);
    History mixed{history[0], stepOf(What::skewed, more)};
    for (std::size_t i = 1; i < history.size(); ++i) {
        mixed.push_back(history[i]);
        for (std::size_t n = more.below(4); n != 0; --n) mixed.push_back(stepOf(What::abroad, more));
    }
    return mixed;
}

std::string textOf(History const& history) {
    std::ostringstream text;
    for (Step const& step : history) {
        if (text.tellp() > 0) text << "; ";
        text << names[static_cast<std::size_t>(step.what)];
        for (U16 const n : step.n) text << ' ' << n;
    }
    return text.str();
}

History historyFrom(std::string_view text) {
    History history;
    std::istringstream steps{std::string(text)};
    for (std::string one; std::getline(steps, one, ';');) {
        std::istringstream words(one);
        std::string name;
        words >> name;
        auto const found = std::find(std::begin(names), std::end(names), name);
        if (found == std::end(names)) throw std::invalid_argument("no step is called '" + name + "'");
        Step step{static_cast<What>(found - std::begin(names)), {}};
        for (U16& n : step.n)
            if (!(words >> n)) throw std::invalid_argument("four numbers are missing behind '" + name + "'");
        history.push_back(step);
    }
    return history;
}

History shrunk(History history, std::function<bool(History const&)> const& fails) {
    for (std::size_t size = history.size() / 2; size != 0;) {
        bool shorter = false;
        for (std::size_t at = 0; at < history.size();) {
            History tried(history.begin(), history.begin() + static_cast<std::ptrdiff_t>(at));
            std::size_t const behind = std::min(history.size(), at + size);
            tried.insert(tried.end(), history.begin() + static_cast<std::ptrdiff_t>(behind), history.end());
            if (fails(tried)) {
                history = std::move(tried);
                shorter = true;
            } else {
                at += size;
            }
        }
        if (!shorter || size > 1) size = size == 1 ? 0 : size / 2;
    }
    return history;
}

// --- replicas ---

// What observers of an entity and of its copy were told, since the two were equal.
struct Mounted::Watch {
    Watch(Vel::Entity const& original, Vel::Entity const& copy)
        : original(&original),
          copy(&copy),
          here(notifieeOf(original, Told{heardHere, original, isByName(original, copy)})),
          there(notifieeOf(copy, Told{heardThere, copy, isByName(original, copy)})) {}
    Watch(Watch const&) = delete;
    Watch& operator=(Watch const&) = delete;

    struct Told {
        std::vector<std::string>& heard;
        Vel::Entity const& entity;
        bool byName;  // of an attribute that only one of them has nothing is compared
        void operator()(Vel::AttributeId id, Vel::NotifieeKey const* key) const {
            std::string text = byName ? commonName(entity, id) : std::to_string(id);
            if (text.empty()) return;
            if (key && key->type() == Vel::typeOf<String>()) text += " " + key->as<String>().stdString();
            if (key && key->type() == Vel::typeOf<U8>()) text += " " + std::to_string(key->as<U8>());
            heard.push_back(text);
        }
    };
    bool lives() const { return here->hasNotifier() && there->hasNotifier(); }

    std::vector<std::string> heardHere, heardThere;
    Vel::Entity const* original;
    Vel::Entity const* copy;
    std::unique_ptr<Vel::Notifiee> here, there;
};

Vel::AttrLogSource& Site::source() {
    if (!source_) {
        auto impl = std::make_unique<Vel::AttrLogSource::Impl>(demuxer_, root_, options_);
        source_ = std::make_unique<Vel::AttrLogSource>(std::move(impl));
    }
    return *source_;
}

void Site::sweep(bool leaves) {
    if (leaves && source_ && source_->readers() == 0) source_ = nullptr;
    if (source_) source_->impl().sweep();
}

// What a reader has asked for.
struct Mounted::Asked {
    What what;
    U32 serial;  // the new value
    Ptr<Account> copy;
    U32 expected = 0;  // for askIf
};

Mounted::Mounted(World& world, Site& site, bool writes, Vel::StreamPolicy policy, std::string& violation)
    : world_(world),
      site_(site),
      violation_(violation),
      policy_(policy),
      replica_(place_, site.root().name(), {.path = {}, .wantsToWrite = writes, .limits = {}, .policy = policy}) {
    replica_.onStateIs([this](Vel::AttrLogReplica::State state) {
        if (state == Vel::AttrLogReplica::State::synced) atSyncMark();
    });
}

Mounted::~Mounted() {
    cut();
    watches_.clear();
    observers_.clear();
}

void Mounted::connect() {
    atConnect_.clear();
    reader_ = site_.source().newReader();
    replica_.connected();
    movesAtConnect_ = world_.moves();
    walk(site_.root(), [&](Vel::Entity& entity) {
        if (auto* const thing = dynamic_cast<Thing*>(&entity)) atConnect_[thing->uid()] = thing->number();
    });
    // The hello names the program's modules: nothing may depend on its length.
    auto const hello = StreamTest::takeOutput(replica_);
    reader_->input(hello);
}

void Mounted::cut() {
    if (!reader_) return;
    wasCut_ = true;
    reader_->closed("cut");
    reader_ = nullptr;
    replica_.closed("cut");
    wire_.clear();
    isWhole_.clear();
    if (!asked_.empty()) violated("no answer: the connection is lost, and nothing is told of a change");
    asked_.clear();
}

U64 Mounted::timesBehind() const { return static_cast<Vel::AttrLogReader&>(*reader_).timesBehind(); }

void Mounted::lookAtPaths() {
    std::set<Vel::Entity const*> there;
    walk(site_.root(), [&](Vel::Entity& entity) { there.insert(&entity); });
    std::erase_if(watches_, [&](auto const& watch) { return !there.contains(watch->original); });
}

void Mounted::settleSwept() {
    settle();
    if (!violation_.empty()) return;
    std::size_t there = 0;
    walk(site_.root(), [&](Vel::Entity&) { ++there; });
    std::string const known = "known: there are " + std::to_string(there) + " entities, ";
    if (replica_.entities() != there) violated(known + "the copy has " + std::to_string(replica_.entities()));
    if (site_.source().entities() != there)
        violated(known + "the source has " + std::to_string(site_.source().entities()));
}

std::string Mounted::apply(Step const& step) {
    std::string const name = "reader " + std::to_string(step.n[0] % readers);
    if (step.what == What::connect) {
        if (reader_) return "";
        connect();
        return name + " connects";
    }
    if (!reader_) return "";
    switch (step.what) {
    case What::ask:
    case What::askJoint:
    case What::askIf:
    case What::askCall:
        return ask(step);
    case What::upload:
        upload(1 + step.n[1] % 100);
        return name + " sends some";
    case What::cut:
        cut();
        return name + " is cut off";
    case What::settle:
        settle();
        return name + " gets everything";
    case What::trickle:
        for (std::size_t n = step.n[1] % 60; n != 0 && violation_.empty(); --n) deliver(1, 65535, 65535);
        return name + " gets up to " + std::to_string(step.n[1] % 60) + " bytes, one at a time";
    default:
        deliver(1 + step.n[1] % (step.n[1] % 3 ? 60 : 3000), step.n[2], step.n[3]);
        return name + " gets some";
    }
}

// Some bytes get onto the wire, some of those that are on it arrive.
void Mounted::deliver(std::size_t limit, std::size_t taken, std::size_t arriving) {
    if (wire_.size() < 5000) {
        auto const bytes = reader_->output(limit);
        std::size_t const count = (bytes.size() * (taken + 1)) >> 16;
        wire_.insert(wire_.end(), bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(count));
        if (count != 0) reader_->outputTaken(count);
    }
    arrive((wire_.size() * (arriving + 1)) >> 16);
}

// In one piece, or in two.
void Mounted::arrive(std::size_t count) {
    for (std::size_t const size : {count / 3, count - count / 3}) {
        if (size == 0) continue;
        std::vector<U8> const bytes(wire_.begin(), wire_.begin() + static_cast<std::ptrdiff_t>(size));
        wire_.erase(wire_.begin(), wire_.begin() + static_cast<std::ptrdiff_t>(size));
        U64 const before = replica_.messagesIn();
        replica_.input(bytes);
        if (replica_.messagesIn() == before) continue;
        observeAll();
        if (auto const wrong = replica_.root() ? wrongAnswer(*replica_.root()) : ""; !wrong.empty()) violated(wrong);
    }
    if (!replica_.error().empty()) violated("error: " + replica_.error().stdString());
    if (!reader_->error().empty()) violated("error: " + reader_->error().stdString());
}

void Mounted::settle() {
    if (!reader_) connect();
    while (violation_.empty() && (!wire_.empty() || reader_->wantsOutput() || replica_.wantsOutput())) {
        upload(3000);
        deliver(3000, 65535, 65535);
    }
    if (!violation_.empty()) return;
    if (replica_.state() != Vel::AttrLogReplica::State::synced) return violated("not synced: all has arrived");
    if (!asked_.empty()) return violated("no answer: all has arrived");
    Pairs pairs;
    std::string const difference = pairUp(site_.root(), *replica_.root(), pairs);
    std::string const here = StreamTest::treeOf(site_.root());
    std::string const there = StreamTest::treeOf(*replica_.root());
    if (policy_.byName ? !difference.empty() : here != there)
        return violated("copy differs: " + difference + "; the source has\n" + here + "\nand the copy\n" + there);
    compareNotifications();
    watch();
}

// --- what observers are told ---

namespace {

std::string joined(std::vector<std::string> const& lines) {
    std::string text;
    for (std::string const& line : lines) text += (text.empty() ? "" : ", ") + line;
    return text;
}

}  // namespace

void Mounted::watch() {
    Pairs pairs;
    pairUp(site_.root(), *replica_.root(), pairs);
    for (auto const& [original, copy] : pairs) watches_.push_back(std::make_unique<Watch>(*original, *copy));
    timesBehind_ = timesBehind();
    wasCut_ = false;
}

// A reader that keeps up tells what the source tells, in the same order; one that was behind no more than that.
void Mounted::compareNotifications() {
    auto const watches = std::exchange(watches_, {});
    if (wasCut_) return;
    bool const keptUp = timesBehind() == timesBehind_;
    Pairs pairs;
    pairUp(site_.root(), *replica_.root(), pairs);
    for (auto const& watch : watches) {
        if (!watch->lives()) continue;
        auto const found = pairs.find(watch->original);
        if (found == pairs.end() || found->second != watch->copy) continue;
        std::string const what = watch->original->path().stdString() + ": the source's are told " +
                                 joined(watch->heardHere) + ", the copy's " + joined(watch->heardThere);
        if (keptUp && watch->heardHere != watch->heardThere) return violated("observers differ: " + what);
        for (std::string const& line : watch->heardThere)
            if (std::count(watch->heardThere.begin(), watch->heardThere.end(), line) >
                std::count(watch->heardHere.begin(), watch->heardHere.end(), line))
                return violated("observers are told too often: " + what);
    }
}

// --- what a replica is seen to be ---

void Mounted::observeAll() {
    if (!replica_.root()) return;
    std::erase_if(observers_, [](auto const& o) { return !o.second->hasNotifier(); });
    walk(*replica_.root(), [&](Vel::Entity& entity) { observe(entity); });
}

void Mounted::observe(Vel::Entity& entity) {
    if (observers_.contains(&entity)) return;
    if (auto* const thing = dynamic_cast<Thing*>(&entity))
        observers_[thing] = Vel::notifieeOf(*thing, [this, thing](Vel::AttributeId id) { seen(*thing, id); });
    if (auto* const account = dynamic_cast<Account*>(&entity)) {
        observers_[account] = Vel::notifieeOf(*account, [this, account](Vel::AttributeId) { seen(*account); });
        isWhole_[account] = account->isWhole() && replica_.state() == Vel::AttrLogReplica::State::synced;
    }
    if (PortView::isPort(entity)) {
        auto const* const port = &entity;
        observers_[port] = Vel::notifieeOf(entity, [this, port](Vel::AttributeId id) { seenPort(*port, id); });
        isWhole_[port] = PortView(*port).isWhole() && replica_.state() == Vel::AttrLogReplica::State::synced;
    }
    if (auto* const table = dynamic_cast<ValueTable*>(&entity))
        observers_[table] = Vel::notifieeOf(*table, [this, table](Vel::AttributeId id, Vel::NotifieeKey const* key) {
            if (id == ValueTable::entryAttribute) seen(*table, key->as<String>());
        });
}

// Each attribute goes through values that it had at the source, in their order, and no part of one alone.
void Mounted::seen(Thing& thing, Vel::AttributeId attribute) {
    if (attribute == Thing::numberAttribute) seenNumber(thing);
    if (attribute == Thing::pairAttribute) seenPair(thing);
}

void Mounted::seenNumber(Thing& thing) {
    U32 const number = thing.number();
    auto const held = world_.history().find(number);
    if (number != 0 && (held == world_.history().end() || held->second != thing.uid()))  // 0 is what all begin with
        violated("foreign value: a number that the thing never held");
    if (number < last_[thing.uid()]) violated("old value: a number older than one that was seen");
    last_[thing.uid()] = number;
}

void Mounted::seenPair(Thing& thing) {
    U32 const id = thing.pair().id();
    auto const held = world_.pairHistory().find(id);
    if (id != 0 && (held == world_.pairHistory().end() || held->second != thing.uid()))
        violated("foreign value: a pair that the thing never held");
    if (thing.pair().valid() != (id % 2 == 1)) violated("half a value: a pair");
    if (id < lastPair_[thing.uid()]) violated("old value: a pair older than one that was seen");
    lastPair_[thing.uid()] = id;
}

// So does what is at each key.
void Mounted::seen(ValueTable& table, String const& key) {
    if (!table.entryExists(key)) return;
    Entry const entry = table.entry(key);
    if (!entry.isWhole()) violated("half a value: an entry");
    World::Place const place{table.uid(), key.stdString()};
    auto const held = world_.entryHistory().find(entry.number());
    if (held == world_.entryHistory().end() || held->second != place)
        violated("foreign value: an entry of another table, or at another key");
    if (entry.number() < lastEntry_[place]) violated("old value: an entry older than one that was seen");
    lastEntry_[place] = entry.number();
}

// Values that change together are never seen apart once they were seen together, but while the copy is not complete.
void Mounted::seen(Account& account) {
    if (replica_.state() != Vel::AttrLogReplica::State::synced) return;
    bool const isWhole = account.isWhole();
    if (isWhole_[&account] && !isWhole) violated("half a change: one of two values that change together");
    isWhole_[&account] = isWhole;
}

// Of a type that is described or copied by name the same holds.
void Mounted::seenPort(Vel::Entity const& copy, Vel::AttributeId attribute) {
    PortView const port(copy);
    if (!port.areMarksWhole()) violated("half a value: a mark of a port");
    if (port.isPoint(attribute)) seenPoint(port);
    if (replica_.state() != Vel::AttrLogReplica::State::synced) return;
    bool const isWhole = port.isWhole();
    if (isWhole_[&copy] && !isWhole) violated("half a change: one of two values of a port that change together");
    isWhole_[&copy] = isWhole;
}

void Mounted::seenPoint(PortView const& port) {
    if (!port.isPointWhole()) violated("half a value: a point of a port");
    U32 const uid = port.uid(), point = port.point();
    auto const held = world_.portHistory().find(point);
    if (point != 0 && (held == world_.portHistory().end() || held->second != uid))
        violated("foreign value: a point that the port never had");
    if (point < lastPoint_[uid]) violated("old value: a point older than one that was seen");
    lastPoint_[uid] = point;
}

// --- what a reader asks for ---

// The bytes of what was asked for get to the source.
void Mounted::upload(std::size_t count) {
    auto const bytes = replica_.output(count);
    if (bytes.empty()) return;
    reader_->input(bytes);
    replica_.outputTaken(bytes.size());
    if (!reader_->error().empty()) violated("error: " + reader_->error().stdString());
}

std::string Mounted::ask(Step const& step) {
    std::vector<Account*> accounts;
    if (!replica_.root() || !replica_.mayWrite()) return "";
    walk(*replica_.root(), [&](Vel::Entity& entity) {
        if (auto* const account = dynamic_cast<Account*>(&entity)) accounts.push_back(account);
    });
    if (accounts.empty()) return "";
    Account& account = *accounts[step.n[1] % accounts.size()];
    auto const asked =
        std::make_shared<Asked>(Asked{step.what, world_.nextSerial(), Ptr<Account>(&account), account.first()});
    asked_.push_back(asked);
    try {
        send(step, account, asked);
    } catch (Vel::RangeException const&) {  // the source has not named it in this connection yet
        asked_.pop_back();
        return "";
    }
    return "reader " + std::to_string(step.n[0] % readers) + " asks " + account.path().stdString() + " for " +
           std::to_string(asked->serial) + " by " + names[static_cast<std::size_t>(step.what)];
}

void Mounted::send(Step const& step, Account& account, std::shared_ptr<Asked> const& asked) {
    constexpr auto first = Vel::attributeId<Account>("first"), second = Vel::attributeId<Account>("second");
    auto const told = [this, asked](Vel::WriteAnswer const& answer) { answered(*asked, answer); };
    U32 const serial = asked->serial, secondOne = Account::secondOf(serial);
    Vel::ValueRef const expected(asked->expected);
    switch (step.what) {
    case What::ask:
        return replica_.write(account, Vel::attributeId<Account>("note"), serial, told);
    case What::askJoint:
        return replica_.writeTogether(account, {{first, serial}, {second, secondOne}}, told);
    case What::askIf:
        return replica_.writeTogether(account, {{second, secondOne}, {first, serial, &expected}}, told);
    default:
        return replica_.call(account, Vel::attributeId<Account>("bothAre"), {serial}, told);
    }
}

// Each is answered once, in the order in which they were asked for.
void Mounted::answered(Asked const& asked, Vel::WriteAnswer const& answer) {
    using Vel::WriteResult;
    if (asked_.empty() || asked_.front().get() != &asked) return violated("wrong answer: it is not its turn");
    auto const kept = asked_.front();
    asked_.pop_front();
    std::string const text = std::string("wrong answer: ") + Vel::writeResultName(answer.result);
    bool const isRefused = Account::isRefused(asked.serial);
    switch (answer.result) {
    case WriteResult::done:
        if (isRefused) violated(text + ", to what is refused");
        if (asked.what == What::askCall &&
            (!answer.value || answer.value->strep() != std::to_string(2 * asked.serial).c_str()))
            violated(text + ", with another result");
        return done(asked, *asked.copy);
    case WriteResult::rejected:
        if (!isRefused) violated(text + ", to what is not refused");
        return;
    case WriteResult::differs:
        if (asked.what != What::askIf || !answer.value ||
            answer.value->strep() == std::to_string(asked.expected).c_str())
            violated(text);
        return;
    case WriteResult::unknown:
        if (reader_) violated(text + ", within a connection");
        return;
    case WriteResult::gone:
        return;
    default:
        violated(text);
    }
}

// The source has had the value, and the copy has it, or a later one, unless it has gone.
void Mounted::done(Asked const& asked, Account const& account) {
    bool isThere = false;
    walk(*replica_.root(), [&](Vel::Entity& entity) { isThere = isThere || &entity == &account; });
    if (!isThere) return;
    bool const isNote = asked.what == What::ask;
    auto const& had = isNote ? world_.notes(account.uid()) : world_.firsts(account.uid());
    auto const at = std::find(had.begin(), had.end(), asked.serial);
    if (at == had.end()) return violated("wrong answer: done, and the source never had it");
    U32 const now = isNote ? account.note() : account.first();
    if (std::find(at, had.end(), now) == had.end())
        violated("early answer: the copy has " + std::to_string(now) + ", and not " + std::to_string(asked.serial));
}

// Whatever was there when the connection began, and is there still, is there now, and no older.
void Mounted::atSyncMark() {
    isWhole_.clear();
    walk(*replica_.root(), [&](Vel::Entity& entity) {
        auto* const account = dynamic_cast<Account*>(&entity);
        if (account && !(isWhole_[account] = account->isWhole()))
            violated("half a change: in a copy that calls itself synced");
        if (PortView::isPort(entity) && !(isWhole_[&entity] = PortView(entity).isWhole()))
            violated("half a change: a port of a copy that calls itself synced");
    });
    std::map<U32, U32> here;
    walk(*replica_.root(), [&](Vel::Entity& entity) {
        if (auto* const thing = dynamic_cast<Thing*>(&entity)) here[thing->uid()] = thing->number();
    });
    std::set<U32> still;
    walk(site_.root(), [&](Vel::Entity& entity) {
        if (auto* const thing = dynamic_cast<Thing*>(&entity)) still.insert(thing->uid());
    });
    for (auto const& [uid, number] : atConnect_) {
        if (!still.contains(uid)) continue;
        auto const found = here.find(uid);
        if (found == here.end()) {
            // It may have gone and come back meanwhile.
            if (world_.moves() == movesAtConnect_)
                violated("incomplete: the copy calls itself synced and lacks a thing");
        } else if (found->second < number) {
            violated("incomplete: the copy calls itself synced and has an old number");
        }
    }
}

// --- a run ---

namespace {

bool has(History const& history, What what) {
    return std::any_of(history.begin(), history.end(), [what](Step const& step) { return step.what == what; });
}

// How far readers may fall behind, and in how large pieces that is looked at: in half of the runs by one message.
Vel::AttrLogSource::Options optionsOf(History const& history) {
    Vel::AttrLogSource::Options options;
    U16 const choice = history.empty() || history[0].what != What::log ? 0 : history[0].n[0];
    if (choice % 4 != 0) options.logSize = 0;
    options.mayWrite = has(history, What::writes);
    options.chunkSize = std::array<std::size_t, 4>{0, 1, 1, 64}[choice % 4];
    return options;
}

// Whether tries have an index: in a third of the runs from the first question on, which asks whether they answer as their
// nodes do, and in a third never.
Mox::Detail::IndexUse indexUseOf(History const& history) {
    using Mox::Detail::IndexUse;
    static constexpr IndexUse uses[] = {IndexUse::always, IndexUse::itself, IndexUse::never};
    return uses[history.empty() ? 0 : history[0].n[1] % std::size(uses)];
}

// Whether it says how all of the run is.
bool isSetting(Step const& step) {
    return step.what == What::log || step.what == What::paths || step.what == What::writes || step.what == What::skewed;
}

// What each reader does about types that it does not have as the source has them.
std::array<Vel::StreamPolicy, readers> policiesOf(History const& history) {
    std::array<Vel::StreamPolicy, readers> policies{};
    for (Step const& step : history)
        for (std::size_t i = 0; step.what == What::skewed && i < readers; ++i) policies[i] = policyOf(step.n[i]);
    return policies;
}

// What of the tree is served, by one demuxer, and to whom.
class Sites {
public:
    Sites(World& world, History const& history) : options_(optionsOf(history)) {
        auto const isPaths = [](Step const& step) { return step.what == What::paths; };
        auto const paths = std::find_if(history.begin(), history.end(), isPaths);
        overlap_ = paths != history.end();
        auto const roots = overlap_ ? world.makeServed() : std::vector<Ptr<Vel::Entity>>{world.root()};
        auto const demuxer = std::make_shared<Vel::StreamDemuxer>();
        for (auto const& root : roots) sites_.push_back(std::make_unique<Site>(demuxer, root, options_));
        for (std::size_t i = 0; i < readers; ++i) ofReader_[i] = overlap_ ? paths->n[i] % roots.size() : 0;
    }

    Site& of(std::size_t reader) const { return *sites_[ofReader_[reader]]; }
    bool overlap() const { return overlap_; }
    void sweep(bool leaves) {
        for (auto const& site : sites_) site->sweep(leaves);
    }
    bool isALogTooLong() const {
        return std::any_of(sites_.begin(), sites_.end(),
            [this](auto const& site) { return site->logged() > options_.logSize + (64u << 10); });
    }
    std::string words() const {
        std::string text = "the log holds " + std::to_string(options_.logSize) + " bytes and pieces of " +
                           std::to_string(options_.chunkSize) + " (0: as it likes)";
        for (std::size_t i = 0; i < readers && overlap_; ++i)
            text += ", reader " + std::to_string(i) + " is at " + of(i).root().path().stdString();
        return text;
    }

private:
    Vel::AttrLogSource::Options options_;
    bool overlap_ = false;
    std::vector<std::unique_ptr<Site>> sites_;
    std::array<std::size_t, readers> ofReader_{};
};

// When tries make an index while this history runs.
struct IndexUseOf {
    explicit IndexUseOf(History const& history) { Mox::Detail::PathIndex::use = indexUseOf(history); }
    IndexUseOf(IndexUseOf const&) = delete;
    IndexUseOf& operator=(IndexUseOf const&) = delete;
    ~IndexUseOf() { Mox::Detail::PathIndex::use = Mox::Detail::IndexUse::itself; }
};

}  // namespace

Result run(History const& history, bool tells) {
    Result result;
    IndexUseOf const use(history);
    World world;
    Sites sites(world, history);
    auto const policies = policiesOf(history);
    bool const hasByName = std::any_of(
        policies.begin(), policies.end(), [](Vel::StreamPolicy policy) { return policy.byName && !policy.described; });
    world.racksAre(!hasByName);
    std::vector<std::unique_ptr<Mounted>> mounted;
    for (std::size_t i = 0; i < readers; ++i)
        mounted.push_back(
            std::make_unique<Mounted>(world, sites.of(i), has(history, What::writes), policies[i], result.violation));
    auto const tell = [&](std::string words) {
        if (tells && !words.empty()) result.words.push_back(std::move(words));
    };
    tell(sites.words());
    for (Step const& step : history) {
        if (isSetting(step)) continue;
        ++result.steps;
        if (step.what == What::sweep) {
            sites.sweep(step.n[0] % 4 == 0);
            tell("what can't be reached is swept out");
        } else {
            bool const isWorlds = step.what < What::connect || step.what == What::account || step.what == What::joint ||
                                  step.what == What::abroad;
            tell(isWorlds ? world.apply(step) : mounted[step.n[0] % readers]->apply(step));
        }
        if (sites.overlap())
            for (auto const& m : mounted) m->lookAtPaths();
        if (sites.isALogTooLong()) result.violation = "the log grows: beyond its size";
        if (auto const wrong = wrongAnswer(*world.root()); !wrong.empty()) result.violation = wrong;
        if (!result.violation.empty()) return result;
    }
    tell("everything arrives");
    for (auto const& m : mounted)
        if (result.violation.empty()) m->settle();
    if (!sites.overlap()) return result;
    sites.sweep(false);
    for (auto const& m : mounted)
        if (result.violation.empty()) m->settleSwept();
    return result;
}

}  // namespace Simulation
