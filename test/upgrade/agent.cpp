#include "Mount/Client.h"
#include "Mount/Server.h"

#include "Vel/base/Exception.h"
#include "Vel/describe/Module.h"
#include "Vel/describe/StreamTable.h"

#include <algorithm>
#include <chrono>
#include <iostream>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <poll.h>
#include <unistd.h>

// An agent of a fleet whose agents mount each other. It is one source of three programs, each of them another version of
// the module Fleet: UPGRADE_VERSION is 1, 2 or 3. test/Mount/UpgradeTest.cpp upgrades such a fleet while it runs.
namespace Fleet {

using Vel::Ptr;
using Vel::String;
using Vel::U16;
using Vel::U32;
using Vel::U64;
using Vel::U8;

struct Place {
    U16 shelf = 0, slot = 0;
    friend bool operator==(Place const&, Place const&) = default;
    static constexpr auto description() {
        return Vel::record("Fleet::Place", Vel::field<&Place::shelf>("shelf"), Vel::field<&Place::slot>("slot"));
    }
};

// Version 2 has another field in place of the second one.
struct Load {
    U64 packets = 0;
    U32 other = 0;
    friend bool operator==(Load const&, Load const&) = default;
    static constexpr auto description() {
        return Vel::record("Fleet::Load", Vel::field<&Load::packets>("packets"),
            Vel::field<&Load::other>(UPGRADE_VERSION == 1 ? "errors" : "drops"));
    }
};

// What each version has, in its order.
//     1: label, speed, place, load, next, aged
//     2: next, serial, speed, label, load, place: one is new, one has gone, the others are in another order
//     3: place, title, next, serial, speed, load, queue: the label has another name, the speed another type, and a
//        collection is new
class Port : public Vel::EntityOf<Port> {
public:
    using Speed = std::conditional_t<UPGRADE_VERSION == 3, U64, U32>;

    explicit Port(String const& name) : EntityOf(name) {}

    String label() const { return label_; }
    void labelIs(String const& v) { velSet<&Port::label_>(v); }
    Speed speed() const { return speed_; }
    void speedIs(Speed v) { velSet<&Port::speed_>(v); }
    Place place() const { return place_; }
    void placeIs(Place const& v) { velSet<&Port::place_>(v); }
    Load load() const { return load_; }
    void loadIs(Load const& v) { velSet<&Port::load_>(v); }
    Ptr<Port> next() const { return next_; }
    void nextIs(Ptr<Port> const& v) { velSet<&Port::next_>(v); }

#if UPGRADE_VERSION == 1
    bool aged() const { return aged_; }
    void agedIs(bool v) { velSet<&Port::aged_>(v); }
    void changeOwn(U32 number) { agedIs(number % 2 != 0); }  // what not all versions have

    static constexpr auto description() {
        return Vel::entity("Fleet::Port", Vel::attribute<&Port::label_, &Port::label, &Port::labelIs>("label"),
            Vel::attribute<&Port::speed_, &Port::speed, &Port::speedIs>("speed"),
            Vel::attribute<&Port::place_, &Port::place, &Port::placeIs>("place"),
            Vel::attribute<&Port::load_, &Port::load, &Port::loadIs>("load"),
            Vel::attribute<&Port::next_, &Port::next, &Port::nextIs>("next"),
            Vel::attribute<&Port::aged_, &Port::aged, &Port::agedIs>("aged"));
    }
#else
    U64 serial() const { return serial_; }
    void serialIs(U64 v) { velSet<&Port::serial_>(v); }
#if UPGRADE_VERSION == 2
    void changeOwn(U32 number) { serialIs(number); }

    static constexpr auto description() {
        return Vel::entity("Fleet::Port", Vel::attribute<&Port::next_, &Port::next, &Port::nextIs>("next"),
            Vel::attribute<&Port::serial_, &Port::serial, &Port::serialIs>("serial"),
            Vel::attribute<&Port::speed_, &Port::speed, &Port::speedIs>("speed"),
            Vel::attribute<&Port::label_, &Port::label, &Port::labelIs>("label"),
            Vel::attribute<&Port::load_, &Port::load, &Port::loadIs>("load"),
            Vel::attribute<&Port::place_, &Port::place, &Port::placeIs>("place"));
    }
#else
    U64 queue(U8 key) const { return queueExists(key) ? queues_.at(key) : 0; }
    void queueIs(U8 key, U64 length) {
        queues_[key] = length;
        velNotify<"queue">(key);
    }
    void queueDel(U8 key) {
        if (queues_.erase(key) != 0) velNotify<"queue">(key);
    }
    bool queueExists(U8 key) const { return queues_.contains(key); }
    void changeOwn(U32 number) {
        serialIs(number);
        auto const key = static_cast<U8>(number % 5);
        number % 3 == 0 ? queueDel(key) : queueIs(key, number);
    }

    static constexpr auto description() {
        return Vel::entity("Fleet::Port", Vel::attribute<&Port::place_, &Port::place, &Port::placeIs>("place"),
            Vel::attribute<&Port::label_, &Port::label, &Port::labelIs>("title"),
            Vel::attribute<&Port::next_, &Port::next, &Port::nextIs>("next"),
            Vel::attribute<&Port::serial_, &Port::serial, &Port::serialIs>("serial"),
            Vel::attribute<&Port::speed_, &Port::speed, &Port::speedIs>("speed"),
            Vel::attribute<&Port::load_, &Port::load, &Port::loadIs>("load"),
            Vel::values<&Port::queues_>(Vel::collection<U8, U64, &Port::queue, &Port::queueIs, &Port::queueDel,
                Vel::none, Vel::none, &Port::queueExists>("queue")));
    }
#endif
#endif

private:
    String label_;
    Speed speed_ = 0;
    Place place_;
    Load load_;
    Ptr<Port> next_;
#if UPGRADE_VERSION == 1
    bool aged_ = false;
#else
    U64 serial_ = 0;
#endif
#if UPGRADE_VERSION == 3
    std::map<U8, U64> queues_;
#endif
};

#if UPGRADE_VERSION == 3
// A type that earlier versions do not have.
class Fan : public Vel::EntityOf<Fan> {
public:
    explicit Fan(String const& name) : EntityOf(name) {}
    U32 turns() const { return turns_; }
    void turnsIs(U32 v) { velSet<&Fan::turns_>(v); }
    static constexpr auto description() {
        return Vel::entity("Fleet::Fan", Vel::attribute<&Fan::turns_, &Fan::turns, &Fan::turnsIs>("turns"));
    }

private:
    U32 turns_ = 0;
};
#endif

}  // namespace Fleet

#if UPGRADE_VERSION == 1
VEL_MODULE(Fleet, 405806c9ae4e0b6d, Fleet::Place, Fleet::Load, Fleet::Port);
#elif UPGRADE_VERSION == 2
VEL_MODULE(Fleet, 77f999cb93e0c27e, Fleet::Place, Fleet::Load, Fleet::Port);
#else
VEL_MODULE(Fleet, ee0074a4c0d17b45, Fleet::Place, Fleet::Load, Fleet::Port, Fleet::Fan);
#endif

namespace Fleet {
namespace {

using namespace std::chrono_literals;
using Vel::Dir;
using Vel::Entity;
using Vel::GenericValue;
using Vel::StreamAttribute;
using Vel::StreamKind;

// --- what is served ---

// Ports that change all the time. The first ones stay; others come and go.
class Ports {
public:
    Ports() {
        for (U32 i = 0; i < staying; ++i) root_->entryIs(Port::newEntity(Vel::format("port%u", i)));
#if UPGRADE_VERSION == 3
        root_->entryIs(fan_);
#endif
    }

    Ptr<Dir> const& root() const { return root_; }
    void change() {
        U32 const number = static_cast<U32>(random_());
        U32 const which = number % all;
        String const name = Vel::format("port%u", which);
        if (which >= staying && number / 64 % 8 == 0 && root_->entryDel(name.view())) return;
        change(*Vel::ptr_cast<Port>(root_->createEntity("Fleet::Port", name.view())), which, number / 512);
#if UPGRADE_VERSION == 3
        fan_->turnsIs(number);
#endif
    }

private:
    static constexpr U32 staying = 4, all = 8;

    void change(Port& port, U32 which, U32 number) {
        switch (number % 6) {
        case 0:
            return port.labelIs(Vel::format("label %u", number));
        case 1:
            return port.speedIs(number);
        case 2:
            return port.placeIs({static_cast<U16>(number), static_cast<U16>(which)});
        case 3:
            return port.loadIs({number, which + 1});
        case 4:
            return port.nextIs(nextOf(which, number));
        default:
            return port.changeOwn(number / 6);
        }
    }
    // Ports refer only to ports that stay, and only forwards, so that none refers to itself by others.
    Ptr<Port> nextOf(U32 which, U32 number) const {
        U32 const next = number / 6 % staying;
        bool const isForwards = which >= staying || next > which;
        return isForwards ? Vel::ptr_cast<Port>(root_->entry(Vel::format("port%u", next).view())) : nullptr;
    }

    Ptr<Dir> root_ = Dir::newEntity("ports");
    std::minstd_rand random_{std::random_device()()};
#if UPGRADE_VERSION == 3
    Ptr<Fan> fan_ = Fan::newEntity("fan");
#endif
};

// --- texts ---

String valuesText(Entity& entity, StreamAttribute const& row, Vel::VelAttr attr) {
    String text;
    std::unique_ptr<Vel::NboAttrLog::Bookmark> const keys(row.bookmark(entity));
    while (keys->left() != 0) {
        Vel::NboAttrLog::Out bytes;
        keys->next(bytes);
        Vel::NboAttrLog::In in(bytes.bytes());
        GenericValue const key(attr.keyType(), in);
        GenericValue value(attr.valueType());
        entity.attributeOp(value.data(), attr, Vel::AttributeOp::get, key.data());
        text = text + (text.empty() ? "" : ", ") + key.strep() + ": " + value.strep();
    }
    return "{" + text + "}";
}

String attributeText(Entity& entity, StreamAttribute const& row, Vel::VelAttr attr) {
    if (row.kind == StreamKind::values) return valuesText(entity, row, attr);
    if (row.kind == StreamKind::pointer) {
        Entity const* const target = row.target(entity);
        return target ? target->name() : String("None");
    }
    GenericValue value(attr.valueType());
    entity.attributeOp(value.data(), attr, Vel::AttributeOp::get);
    return value.strep();
}

// "port0 = Fleet::Port", and a line for each attribute: "port0.speed = 7". By reflection, so that it can print what only
// another version has.
void print(Entity& entity) {
    Vel::VelType const type = entity.fwkType();
    std::cout << entity.name() << " = " << type.name() << '\n';
    for (StreamAttribute const& row : type.glue().stream().attributes) {
        auto const attr = *type.attributeOfId(row.id);
        std::cout << entity.name() << '.' << attr.name() << " = " << attributeText(entity, row, attr) << '\n';
    }
}

void printAll(Entity& root) {
    Vel::ptr_cast<Dir>(Ptr<Entity>(&root))->visitEntries([](Ptr<Entity> const& entry) { print(*entry); });
}

// --- the agent ---

// Another agent, and the copy of its ports.
class Peer {
public:
    Peer(Mount::Loop& loop, String const& name, Ptr<Dir> const& place, bool isExact)
        : client_(loop, Mount::Address::unixSocket(name), place, name, options(isExact)) {
        client_.onErrorIs([this](String const& error) { errors_.insert(error); });
    }

    void printCopy() {
        std::cout << Mount::stateName(client_.state()) << '\n';
        if (auto const root = client_.replica().root()) printAll(*root);
    }
    void printDifferences() {
        for (String const& line : client_.replica().differences()) std::cout << line << '\n';
    }
    void printErrors() const {
        for (String const& error : errors_) std::cout << error << '\n';
    }

private:
    static Mount::Client::Options options(bool isExact) {
        Mount::Client::Options options;
        options.firstDelay = 2ms;
        options.lastDelay = 20ms;
        if (!isExact) options.policy = {.byName = true, .described = true};
        return options;
    }

    Mount::Client client_;
    std::set<String> errors_;  // all since it began
};

class Agent {
public:
    explicit Agent(String const& name) { server_.listen(Mount::Address::unixSocket(name)); }
    void mount(String const& name, bool isExact) {
        peers_.emplace(name, std::make_unique<Peer>(loop_, name, copies_, isExact));
    }

    // Changes what it serves, and does what it reads, a line each, until there is no more to read.
    void run() {
        while (readsOn()) {
            for (int i = 0; isChanging_ && i < 10; ++i) ports_.change();
            loop_.runFor(500us);
        }
    }

private:
    bool readsOn() {
        pollfd input{STDIN_FILENO, POLLIN, 0};
        while (::poll(&input, 1, 0) > 0) {
            char c = 0;
            if (::read(STDIN_FILENO, &c, 1) != 1) return false;
            if (c != '\n') {
                line_ += c;
                continue;
            }
            answer(std::exchange(line_, {}));
        }
        return true;
    }
    // An answer begins with what was asked, and ends with an empty line.
    void answer(std::string const& asked) {
        std::cout << asked << '\n';
        auto const space = std::min(asked.find(' '), asked.size());
        std::string const what = asked.substr(0, space);
        auto const peer = peers_.find(String(asked.substr(std::min(space + 1, asked.size()))));
        if (what == "stop" || what == "go") isChanging_ = what == "go";
        if (what == "own") printAll(*ports_.root());
        if (peer != peers_.end()) answer(what, *peer->second);
        std::cout << std::endl;
    }
    static void answer(std::string const& what, Peer& peer) {
        if (what == "copy") peer.printCopy();
        if (what == "differences") peer.printDifferences();
        if (what == "errors") peer.printErrors();
    }

    Mount::Loop loop_;
    Ports ports_;
    Mount::Server server_{loop_, ports_.root()};
    Ptr<Dir> copies_ = Dir::newEntity("copies");
    std::map<String, std::unique_ptr<Peer>> peers_;
    std::string line_;
    bool isChanging_ = true;
};

}  // namespace
}  // namespace Fleet

// upgrade_agent_1 [--exact] NAME PEER...: serves at the Unix socket NAME in this folder, and mounts what is served at the
// sockets PEER: with the policy exact, or else by name and as described.
int main(int argc, char** argv) {
    std::vector<Vel::String> words(argv + 1, argv + argc);
    bool const isExact = !words.empty() && words.front() == Vel::String("--exact");
    if (isExact) words.erase(words.begin());
    if (words.empty()) {
        std::cerr << "usage: " << argv[0] << " [--exact] NAME PEER...\n";
        return 2;
    }
    try {
        Fleet::Agent agent(words[0]);
        for (std::size_t i = 1; i < words.size(); ++i) agent.mount(words[i], isExact);
        agent.run();
    } catch (std::exception const& error) {
        std::cerr << words[0] << ": " << error.what() << '\n';
        return 1;
    }
}
