#include "Vel/stream/StreamPolicy.h"
#include "Ports.h"
#include "StreamTools.h"
#include "Vel/base/Exception.h"
#include "Vel/describe/ModuleDescription.h"
#include "Vel/entity/ForeignEntity.h"
#include "Vel/entity/Together.h"
#include "Vel/stream/internal/StreamProtocol.h"

#include <algorithm>
#include <memory>
#include <random>
#include <vector>

// What a reader does about a source whose modules are other versions, by each policy.

// The newer version of the module. It is not registered, so the registry of this process has the older one only.
namespace Ports {

extern Vel::Detail::ModuleTableOf<New::Holder> const holders;
extern Vel::Detail::ModuleTableOf<New::Mood, New::Point, New::Port, New::Rack, New::FastPort> const newer;

}  // namespace Ports

#define HOME(TYPE, INDEX)                                                                                              \
    template <> Vel::VelType Vel::DefinedByVEL_MODULE<TYPE>::type() { return {&Ports::newer.header, INDEX}; }
HOME(Ports::New::Mood, 0)
HOME(Ports::New::Point, 1)
HOME(Ports::New::Port, 2)
HOME(Ports::New::Rack, 3)
HOME(Ports::New::FastPort, 4)
template <> Vel::VelType Vel::DefinedByVEL_MODULE<Ports::New::Holder>::type() { return {&Ports::holders.header, 0}; }
#undef HOME

namespace Ports {

constinit Vel::Detail::ModuleTableOf<New::Holder> const holders = Vel::Detail::moduleTable<New::Holder>("Holders");
constinit Vel::Detail::ModuleTableOf<New::Mood, New::Point, New::Port, New::Rack, New::FastPort> const newer =
    Vel::Detail::moduleTable<New::Mood, New::Point, New::Port, New::Rack, New::FastPort>("Ports");

}  // namespace Ports

template struct Vel::DefinedByVEL_MODULE<Ports::New::Mood>;
template struct Vel::DefinedByVEL_MODULE<Ports::New::Point>;
template struct Vel::DefinedByVEL_MODULE<Ports::New::Port>;
template struct Vel::DefinedByVEL_MODULE<Ports::New::Rack>;
template struct Vel::DefinedByVEL_MODULE<Ports::New::FastPort>;
template struct Vel::DefinedByVEL_MODULE<Ports::New::Holder>;

namespace Ports {

// An entity that is the same on both sides, but for the types of a method.
class Caller : public Vel::EntityOf<Caller> {
public:
    explicit Caller(String const& name) : EntityOf(name) {}

    U32 calls() const { return calls_; }
    void callsIs(U32 v) { velSet<&Caller::calls_>(v); }
    Old::Mood called(Old::Mood mood) {
        callsIs(calls_ + 1);
        return mood;
    }
    static constexpr auto description() {
        return Vel::entity("Ports::Caller", Vel::attribute<&Caller::calls_, &Caller::calls, &Caller::callsIs>("calls"),
            Vel::method<&Caller::called>("called", "mood"));
    }

private:
    U32 calls_ = 0;
};

}  // namespace Ports

VEL_MODULE(PortCalls, cfd921f1edcdc615, Ports::Caller);
VEL_MODULE(Ports, 7d0ea731f8130b83, Ports::Old::Mood, Ports::Old::Point, Ports::Old::Port);

namespace StreamTest {
namespace {

using Vel::AttrLogReplica;
using Vel::Dir;
using Vel::ForeignEntity;
using Vel::GenericValue;
using Vel::Ptr;
using Vel::String;
using Vel::StreamFault;
using Vel::StreamPolicy;
using Vel::U16;
using Vel::U64;
using Vel::U8;
namespace Old = Ports::Old;
namespace New = Ports::New;

constexpr StreamPolicy exact{}, byName{.byName = true}, described{.described = true},
    both{.byName = true, .described = true};

template <class E> Ptr<E> entityAt(Dir& dir, char const* path) {
    auto const found = dir.entity(path);
    EXPECT_TRUE(found) << path;
    return Vel::ptr_cast<E>(found);
}
std::string textAt(ForeignEntity const& entity, char const* attribute) {
    auto const attr = entity.fwkType().attribute(attribute);
    return attr ? entity.value(attr->attributeId()).strep().stdString() : "no such attribute";
}
Vel::AttributeId idOf(Vel::Entity const& entity, char const* attribute) {
    return entity.fwkType().attribute(attribute)->attributeId();
}

// A newer source with a tree, and a copy by a policy.
class StreamPolicyTest : public testing::Test {
protected:
    StreamPolicyTest() {
        port->labelIs("uplink");
        port->speedIs(0x100000007);
        port->serialIs(99);
        port->moodIs(New::MoodName::wild);
        port->pointIs({3, 4});
        port->markIs(5, {6, 7});
        port->laneIs("lane 1")->labelIs("first");
        root->entryIs(port);
        other->labelIs("other");
        root->entryIs(other);
        port->peerIs(other);
    }
    ~StreamPolicyTest() override {
        port->peerIs(nullptr);
        port->linkDel(1);
        port->linkDel(2);
    }

    void connect(StreamPolicy policy) {
        if (replica) disconnect();
        if (!replica || !(policy.byName == used.byName && policy.described == used.described))
            replica = std::make_unique<AttrLogReplica>(
                place, "r", AttrLogReplica::Options{.path = {}, .wantsToWrite = true, .policy = policy});
        used = policy;
        reader = source.newReader();
        replica->connected();
        run();
    }
    void disconnect() {
        reader->closed({});
        reader = nullptr;
        replica->closed({});
    }
    void run() {
        while (replica->wantsOutput() || reader->wantsOutput()) {
            reader->input(takeOutput(*replica));
            Bytes const bytes = takeOutput(*reader);
            eachMessage(bytes, [this](auto message) {
                In in(message.subspan(1));
                if (static_cast<MessageKind>(message[0]) == MessageKind::description)
                    told.push_back("description " + in.nextString().stdString());
                else if (static_cast<MessageKind>(message[0]) == MessageKind::type &&
                         Vel::NboAttrLog::nextCompact(in) + 1)
                    told.push_back("type " + in.nextString().stdString());
            });
            replica->input(bytes);
        }
    }
    void expectSynced() {
        EXPECT_EQ(replica->error(), "");
        EXPECT_EQ(replica->state(), AttrLogReplica::State::synced);
    }
    Dir& copy() { return *Vel::ptr_cast<Dir>(replica->root()); }
    Strings differences() {
        Strings lines;
        for (String const& line : replica->differences()) lines.push_back(line.stdString());
        std::sort(lines.begin(), lines.end());
        return lines;
    }

    Ptr<Dir> root = Dir::newEntity("r");
    Ptr<New::Port> port = New::Port::newEntity("port"), other = New::Port::newEntity("other");
    Vel::AttrLogSource source{root, {.mayWrite = true}};
    Ptr<Dir> place = Dir::newEntity("");
    StreamPolicy used;
    std::unique_ptr<Vel::StreamPeer> reader;
    std::unique_ptr<AttrLogReplica> replica;
    Strings told;  // of types and modules
};

TEST_F(StreamPolicyTest, ExactRefusesAndNamesBothFingerprints) {
    connect(exact);
    EXPECT_EQ(replica->fault(), StreamFault::otherVersion);
    EXPECT_EQ(replica->error(),
        Vel::format("refused: module Ports has fingerprint %016lx at the server and %016lx at the client",
            Vel::typeOf<New::Port>().moduleFingerprint(), Vel::typeOf<Old::Port>().moduleFingerprint()));
    EXPECT_EQ(told, Strings{"type Vel::Dir"});
    EXPECT_EQ(differences(), Strings());
}

TEST_F(StreamPolicyTest, ModuleIsDescribedOnceAndBeforeItsTypes) {
    auto const rack = New::Rack::newEntity("rack");
    root->entryIs(rack);
    connect(both);
    expectSynced();
    EXPECT_EQ(told, (Strings{"type Vel::Dir", "description Ports", "type Ports::Port", "type Ports::Rack"}));
}

TEST_F(StreamPolicyTest, ReaderWithAllModulesIsDescribedNothing) {
    auto const plain = Dir::newEntity("r");
    plain->entryIs(Old::Port::newEntity("old"));
    Bytes bytes[2];
    for (bool const describes : {false, true}) {
        Vel::AttrLogSource all(plain);
        AttrLogReplica copy(Dir::newEntity(""), "r", {.policy = describes ? both : exact});
        auto const line = all.newReader();
        copy.connected();
        line->input(takeOutput(copy));
        bytes[describes] = takeOutput(*line);
        copy.input(bytes[describes]);
        EXPECT_EQ(copy.state(), AttrLogReplica::State::synced);
    }
    EXPECT_EQ(hex(bytes[0]), hex(bytes[1]));
}

// --- described ---

TEST_F(StreamPolicyTest, DescribedCopyHasAllThatIsSent) {
    connect(described);
    expectSynced();
    auto const there = entityAt<ForeignEntity>(copy(), "port");
    EXPECT_STREQ(there->fwkType().name(), "Ports::Port");
    EXPECT_EQ(there->fwkType().moduleName(), "Ports");
    EXPECT_EQ(textAt(*there, "serial"), "99");
    EXPECT_EQ(textAt(*there, "speed"), "4294967303");
    EXPECT_EQ(textAt(*there, "label"), "'uplink'");
    EXPECT_EQ(textAt(*there, "mood"), "'wild'");
    EXPECT_EQ(textAt(*there, "point"), "Value('Ports::Point', ** {'x': 3, 'y': 4})");
    EXPECT_EQ(there->target(idOf(*there, "peer")), copy().entry("other"));
    EXPECT_EQ(there->members(idOf(*there, "mark")), 1u);
    EXPECT_EQ(textAt(*entityAt<ForeignEntity>(copy(), "port/lane 1"), "label"), "'first'");
    EXPECT_EQ(copy().entity("port/lane 1")->path(), "/r/port/lane 1");
    EXPECT_EQ(copy().entity("port/lane 1")->parent(), there.get());
    std::string original = treeOf(*root);
    EXPECT_EQ(treeOf(copy()), original);
    EXPECT_EQ(differences(), Strings());
}

TEST_F(StreamPolicyTest, DescribedCopyFollows) {
    connect(described);
    auto const there = entityAt<ForeignEntity>(copy(), "port");
    Strings notes;
    auto const observer = Vel::notifieeOf(*there, [&](Vel::AttributeId id, Vel::NotifieeKey const* key) {
        std::string line = there->fwkType().attributeOfId(id)->name();
        if (key) line += "[" + key->type().glue().genericIfStrRep(key->data(), key->type()).stdString() + "]";
        notes.push_back(line);
    });
    port->moodIs(New::MoodName::angry);
    port->markIs(5, {8, 9});
    port->markIs(6, {1, 1});
    port->markDel(5);
    port->peerIs(nullptr);
    port->laneIs("lane 2");
    port->laneDel("lane 1");
    run();
    expectSynced();
    EXPECT_EQ(notes, (Strings{"mood", "mark[5]", "mark[6]", "mark[5]", "peer", "lane['lane 2']", "lane['lane 1']"}));
    EXPECT_EQ(textAt(*there, "mood"), "'angry'");
    EXPECT_EQ(treeOf(copy()), treeOf(*root));
    notes.clear();
    port->moodIs(New::MoodName::angry);
    run();
    EXPECT_EQ(notes, Strings());
}

// Without it nobody here would know whether an attribute has a value of the type, or refers to an entity of it.
TEST_F(StreamPolicyTest, ModulesOfTypesThatAreReferredToAreDescribed) {
    root->entryDelAll();
    auto const holder = New::Holder::newEntity("holder");
    root->entryIs(holder);
    connect(described);
    expectSynced();
    EXPECT_EQ(told, (Strings{"type Vel::Dir", "description Holders", "description Ports", "type Holders::Holder"}));
    auto const there = entityAt<ForeignEntity>(copy(), "holder");
    EXPECT_EQ(there->target(idOf(*there, "rack")), nullptr);
    EXPECT_STREQ(there->fwkType().attribute("rack")->valueType().name(), "Ports::Rack");
    holder->rackIs(New::Rack::newEntity("rack"));
    run();
    expectSynced();
    EXPECT_STREQ(there->target(idOf(*there, "rack"))->fwkType().name(), "Ports::Rack");
    EXPECT_EQ(treeOf(copy()), treeOf(*root));
}

// A described copy is kept over connections as a typed one is, and its observers hear of the differences only.
TEST_F(StreamPolicyTest, DescribedCopyIsKeptByTheNextConnection) {
    connect(described);
    auto const there = entityAt<ForeignEntity>(copy(), "port");
    Ptr<Vel::Entity> const lane = copy().entity("port/lane 1");
    Strings notes;
    auto const observer = Vel::notifieeOf(
        *there, [&](Vel::AttributeId id) { notes.push_back(there->fwkType().attributeOfId(id)->name()); });
    disconnect();
    port->labelIs("changed");
    port->markDel(5);
    reader = source.newReader();
    replica->connected();
    run();
    expectSynced();
    EXPECT_EQ(copy().entry("port"), there);
    EXPECT_EQ(copy().entity("port/lane 1"), lane);
    EXPECT_EQ(notes, (Strings{"label", "mark"}));
    EXPECT_EQ(treeOf(copy()), treeOf(*root));
}

// Each connection describes the module again. Entities that come later share the description that is there.
TEST_F(StreamPolicyTest, DescriptionsOfFormerConnectionsAreNotKeptTwice) {
    connect(described);
    auto const there = entityAt<ForeignEntity>(copy(), "port");
    auto const connectAgain = [this] {
        disconnect();
        reader = source.newReader();
        replica->connected();
        run();
        expectSynced();
        return replica->copySize();
    };
    std::size_t const size = connectAgain();
    root->entryIs(New::Port::newEntity("added0"));
    run();
    std::size_t const cost = replica->copySize() - size;
    for (char const* const name : {"added1", "added2", "added3"}) {
        disconnect();
        root->entryIs(New::Port::newEntity(name));
        reader = source.newReader();
        replica->connected();
        run();
        expectSynced();
        EXPECT_EQ(entityAt<ForeignEntity>(copy(), name)->fwkType(), there->fwkType());
    }
    EXPECT_EQ(connectAgain(), size + 4 * cost);
}

// Live readers share a log. The description reaches only the reader that needs it, before the type.
TEST_F(StreamPolicyTest, LiveReaderIsDescribedAModuleWhenItIsNeeded) {
    root->entryDelAll();
    connect(both);
    AttrLogReplica second(Dir::newEntity(""), "r", {.policy = exact});
    auto const line = source.newReader();
    second.connected();
    line->input(takeOutput(second));
    second.input(takeOutput(*line));
    EXPECT_EQ(source.liveReaders(), 2u);
    EXPECT_EQ(told, Strings{"type Vel::Dir"});
    root->entryIs(New::Rack::newEntity("rack"));
    run();
    expectSynced();
    EXPECT_EQ(told, (Strings{"type Vel::Dir", "description Ports", "type Ports::Rack"}));
    EXPECT_EQ(textAt(*entityAt<ForeignEntity>(copy(), "rack"), "mood"), "'calm'");
    Bytes const bytes = takeOutput(*line);
    second.input(bytes);
    EXPECT_EQ(second.fault(), StreamFault::otherVersion);
    for (std::string const& text : messages(bytes)) EXPECT_FALSE(text.starts_with("14")) << text;
}

// The same with a message of the log that is sent in part when the module is needed.
TEST_F(StreamPolicyTest, DescriptionDoesNotCutAMessage) {
    root->entryDelAll();
    root->entryIs(Old::Port::newEntity("old"));
    connect(both);
    Vel::ptr_cast<Old::Port>(root->entry("old"))->labelIs(std::string(100, 'x'));
    Bytes all;
    auto const take = [&](std::size_t count) {
        auto const bytes = reader->output(count);
        all.insert(all.end(), bytes.begin(), bytes.end());
        reader->outputTaken(bytes.size());
    };
    take(50);
    root->entryIs(New::Rack::newEntity("rack"));
    while (reader->wantsOutput()) take(7);
    replica->input(all);
    expectSynced();
    EXPECT_EQ(textAt(*entityAt<ForeignEntity>(copy(), "rack"), "mood"), "'calm'");
    EXPECT_EQ(Vel::ptr_cast<Old::Port>(copy().entry("old"))->label(), String(std::string(100, 'x')));
}

// Its type would be gone with the connection to the first source.
TEST_F(StreamPolicyTest, DescribedCopyIsNotServed) {
    connect(described);
    auto const there = copy().entry("port");
    Vel::AttrLogSource again(there);
    AttrLogReplica second(Dir::newEntity(""), "port", {.policy = both});
    auto const line = again.newReader();
    second.connected();
    line->input(takeOutput(second));
    second.input(takeOutput(*line));
    EXPECT_EQ(second.error(), "refused: the server knows the type of this entity only from a description");

    Vel::AttrLogSource all(replica->root());  // what refers to it has a null there
    AttrLogReplica third(Dir::newEntity(""), "r", {.policy = both});
    auto const other = all.newReader();
    third.connected();
    other->input(takeOutput(third));
    third.input(takeOutput(*other));
    EXPECT_EQ(third.state(), AttrLogReplica::State::synced);
    EXPECT_EQ(Vel::ptr_cast<Dir>(third.root())->entries(), 0u);
}

// --- by name ---

Strings const portDifferences{"Ports::Port.aged: only here: it keeps its value",
    "Ports::Port.lane: only at the server: not copied",
    "Ports::Port.mood: another version of Ports::Mood at the server: not copied",
    "Ports::Port.serial: only at the server: not copied", "Ports::Port.speed: U64 at the server, U32 here: not copied"};

TEST_F(StreamPolicyTest, CopyByNameHasWhatIsTheSameOnBothSides) {
    connect(byName);
    expectSynced();
    auto const there = entityAt<Old::Port>(copy(), "port");
    EXPECT_EQ(there->label(), "uplink");
    EXPECT_EQ(there->point(), (Old::Point{3, 4}));
    EXPECT_EQ(there->mark(5), (Old::Point{6, 7}));
    EXPECT_EQ(there->peer(), entityAt<Old::Port>(copy(), "other"));
    EXPECT_EQ(there->speed(), 0u);  // no number is converted
    EXPECT_EQ(there->mood(), Old::Mood());
    EXPECT_FALSE(there->aged());
    EXPECT_EQ(differences(), portDifferences);
}

TEST_F(StreamPolicyTest, CopyByNameFollows) {
    connect(byName);
    auto const there = entityAt<Old::Port>(copy(), "port");
    Strings notes;
    auto const observer = Vel::notifieeOf(
        *there, [&](Vel::AttributeId id) { notes.push_back(there->fwkType().attributeOfId(id)->name()); });
    port->serialIs(5);
    port->speedIs(6);
    port->moodIs(New::MoodName::angry);
    port->labelIs("new");
    port->markIs(7, {1, 2});
    port->markDel(5);
    port->laneIs("lane 2")->labelIs("second");
    port->laneDel("lane 1");
    port->peerIs(nullptr);
    run();
    expectSynced();
    EXPECT_EQ(notes, (Strings{"label", "mark", "mark", "peer"}));
    EXPECT_EQ(there->label(), "new");
    EXPECT_EQ(there->mark(7), (Old::Point{1, 2}));
    EXPECT_FALSE(there->markExists(5));
    EXPECT_EQ(there->peer(), nullptr);
    EXPECT_EQ(differences(), portDifferences);
}

// What the copy does not have is passed over, and the rest is still set as one.
TEST_F(StreamPolicyTest, CopyByNameHasItsPartOfValuesThatChangeTogether) {
    connect(byName);
    auto const there = entityAt<Old::Port>(copy(), "port");
    Strings notes;
    auto const observer = Vel::notifieeOf(*there, [&](Vel::AttributeId id) {
        notes.push_back(there->fwkType().attributeOfId(id)->name() + (" " + there->label().stdString()));
    });
    Vel::together(*port, [&] {
        port->serialIs(100);
        port->pointIs({1, 2});
        port->moodIs(New::MoodName::angry);
        port->labelIs("both");
    });
    Vel::together(*port, [&] {
        port->serialIs(101);
        port->speedIs(8);
    });
    run();
    expectSynced();
    EXPECT_EQ(notes, (Strings{"point both", "label both"}));
    EXPECT_EQ(there->point(), (Old::Point{1, 2}));
    EXPECT_EQ(there->speed(), 0u);
}

TEST_F(StreamPolicyTest, DescribedCopyHasValuesThatChangeTogether) {
    connect(described);
    Vel::together(*port, [&] {
        port->serialIs(100);
        port->moodIs(New::MoodName::angry);
    });
    run();
    expectSynced();
    EXPECT_EQ(treeOf(copy()), treeOf(*root));
}

TEST_F(StreamPolicyTest, CopyByNameIsKeptByTheNextConnection) {
    connect(byName);
    auto const there = entityAt<Old::Port>(copy(), "port");
    there->agedIs(true);  // what the server does not know stays
    Strings notes;
    auto const observer = Vel::notifieeOf(
        *there, [&](Vel::AttributeId id) { notes.push_back(there->fwkType().attributeOfId(id)->name()); });
    disconnect();
    port->labelIs("changed");
    port->markIs(9, {9, 9});
    port->markDel(5);
    reader = source.newReader();
    replica->connected();
    run();
    expectSynced();
    EXPECT_EQ(copy().entry("port"), there);
    EXPECT_EQ(notes, (Strings{"mark", "label", "mark"}));
    EXPECT_FALSE(there->markExists(5));
    EXPECT_TRUE(there->aged());
}

TEST_F(StreamPolicyTest, ByNameAloneRefusesATypeThatIsNotHere) {
    root->entryIs(New::Rack::newEntity("rack"));
    connect(byName);
    EXPECT_EQ(replica->fault(), StreamFault::noSuchModule);
    EXPECT_EQ(replica->error(), "no module of the client has the entity type 'Ports::Rack'");
}

// --- both ---

TEST_F(StreamPolicyTest, WithBothPoliciesEachTypeIsCopiedAsWellAsItCanBe) {
    auto const rack = New::Rack::newEntity("rack");
    rack->uplinkIs(port);
    rack->slotIs(1, port);
    rack->slotIs(300, root);
    rack->moodIs(New::MoodName::angry);
    root->entryIs(rack);
    connect(both);
    expectSynced();
    auto const there = entityAt<ForeignEntity>(copy(), "rack");
    EXPECT_EQ(there->target(idOf(*there, "uplink")), entityAt<Old::Port>(copy(), "port"));
    EXPECT_EQ(textAt(*there, "mood"), "'angry'");
    EXPECT_EQ(there->members(idOf(*there, "slot")), 2u);
    GenericValue const key(Vel::typeOf<U16>(), "300");
    Ptr<Vel::Entity> member;
    there->attributeOp(&member, *there->fwkType().attribute("slot"), Vel::AttributeOp::get, key.data());
    EXPECT_EQ(member, replica->root());
    EXPECT_EQ(differences(), portDifferences);
    rack->slotDel(300);
    rack->uplinkIs(nullptr);
    run();
    EXPECT_EQ(there->members(idOf(*there, "slot")), 1u);
    EXPECT_EQ(there->target(idOf(*there, "uplink")), nullptr);
}

// A class of the server derives from one that is here, too. Its entity is none of that class here, so what is declared
// to refer to the class cannot refer to the entity.
TEST_F(StreamPolicyTest, ForeignEntityIsNotPutWhereAClassOfThisProcessBelongs) {
    port->linkIs(1, other);
    connect(both);
    auto const there = entityAt<Old::Port>(copy(), "port");
    EXPECT_EQ(there->link(1), copy().entry("other"));
    auto const fast = New::FastPort::newEntity("fast");
    fast->lanesIs(4);
    fast->labelIs("fast");
    port->peerIs(fast);
    port->linkIs(1, fast);
    port->linkIs(2, fast);
    run();
    expectSynced();
    EXPECT_EQ(there->peer(), nullptr);
    EXPECT_EQ(there->link(1), nullptr);
    EXPECT_EQ(there->link(2), nullptr);
    root->entryIs(fast);  // and where any entity may be
    run();
    expectSynced();
    auto const foreign = entityAt<ForeignEntity>(copy(), "fast");
    EXPECT_EQ(textAt(*foreign, "lanes"), "4");
    EXPECT_EQ(textAt(*foreign, "label"), "'fast'");
    Strings expected = portDifferences;
    for (char const* const attribute : {"link", "peer"})
        expected.push_back(std::string("Ports::Port.") + attribute +
                           ": a Ports::FastPort is there at the server, which is no Ports::Port here: not copied");
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(differences(), expected);
    port->peerIs(other);
    port->linkIs(1, other);
    run();
    expectSynced();
    EXPECT_EQ(there->peer(), copy().entry("other"));
    EXPECT_EQ(there->link(1), copy().entry("other"));
}

// --- random changes ---

// A newer source with a small log, which changes at random, and a copy that is sent a little at a time and loses its
// connection now and then.
class RandomPolicyTest : public testing::TestWithParam<unsigned> {
protected:
    explicit RandomPolicyTest() : random(GetParam()) { root->entryIs(ports.front()); }
    unsigned below(unsigned n) { return static_cast<unsigned>(random() % n); }
    New::Port& anyPort() { return *ports[below(static_cast<unsigned>(ports.size()))]; }
    // A port that came after this one, or none. So there are no circles, which a copy could not free.
    Ptr<New::Port> laterPort(New::Port const& port) {
        auto const at = std::find(ports.begin(), ports.end(), &port);
        auto const later = static_cast<unsigned>(ports.end() - at) - 1;
        return later == 0 ? nullptr : *(at + 1 + below(later));
    }
    void change() {
        New::Port& port = anyPort();
        auto const key = static_cast<U8>(below(5));
        switch (below(15)) {
        case 0:
            return port.serialIs(random());
        case 1:
            return port.speedIs(random());
        case 2:
            return port.labelIs(std::string(below(9), 'x'));
        case 3:
            return port.moodIs(static_cast<New::MoodName>(below(4)));
        case 4:
            return port.pointIs({14 + below(9), below(9)});
        case 5:
            return port.peerIs(below(3) == 0 ? nullptr : laterPort(port));
        case 6:
            return port.markIs(key, {below(9), below(9)});
        case 7:
            return port.markDel(key);
        case 8:
            if (auto const lane = port.laneIs("lane " + std::to_string(key));
                std::find(ports.begin(), ports.end(), lane) == ports.end())
                ports.push_back(lane);
            return;
        case 9:
            return void(port.laneDel("lane " + std::to_string(key)));
        case 10:
            racks.push_back(New::Rack::newEntity("rack " + std::to_string(racks.size())));
            return root->entryIs(racks.back());
        case 11:
            if (auto const later = laterPort(port)) port.linkIs(key, later);
            return;
        case 12:
            return port.linkDel(key);
        case 13:
            if (!racks.empty()) racks.back()->uplinkIs(Ptr<New::Port>(&port));
            return;
        default:
            if (!racks.empty()) racks.back()->slotIs(1, Ptr<Vel::Entity>(&port));
        }
    }
    void connect(AttrLogReplica& replica) {
        reader = source.newReader();
        replica.connected();
        reader->input(takeOutput(replica));
    }
    void read(AttrLogReplica& replica, std::size_t count) {
        auto const bytes = reader->output(count);
        replica.input(bytes);
        reader->outputTaken(bytes.size());
    }
    // Changes and reads, and calls check(copy) whenever the copy is complete.
    template <class F> void run(StreamPolicy policy, F check) {
        AttrLogReplica replica(place, "r", {.policy = policy});
        connect(replica);
        unsigned checks = 0;
        for (int step = 0; step < 3000; ++step) {
            change();
            if (below(2) == 0) read(replica, 1 + below(200));
            if (below(300) == 0) {
                reader->closed({});
                replica.closed({});
                connect(replica);
            }
            if (below(60) != 0) continue;
            while (reader->wantsOutput()) read(replica, 1 + below(2000));
            ASSERT_EQ(replica.error(), "");
            ASSERT_EQ(replica.state(), AttrLogReplica::State::synced);
            ASSERT_NO_FATAL_FAILURE(check(*replica.root()));
            ++checks;
        }
        EXPECT_GT(checks, 20u);
        reader->closed({});
        replica.closed({});
    }

    std::mt19937_64 random;
    Ptr<Dir> root = Dir::newEntity("r");
    std::vector<Ptr<New::Port>> ports{New::Port::newEntity("port")};
    std::vector<Ptr<New::Rack>> racks;
    Vel::AttrLogSource source{root, {.logSize = 600, .chunkSize = 100}};
    Ptr<Dir> place = Dir::newEntity("");
    std::unique_ptr<Vel::StreamPeer> reader;
};

TEST_P(RandomPolicyTest, DescribedCopyBecomesEqual) {
    run(described, [&](Vel::Entity const& copy) { ASSERT_EQ(treeOf(copy), treeOf(*root)); });
}

// What both sides have, port by port; a port that can be reached by the racks only is a foreign entity's target.
TEST_P(RandomPolicyTest, CopyByNameBecomesEqualWhereBothSidesAreTheSame) {
    run(both, [&](Vel::Entity const& copy) {
        Vel::Entity const* theirs = ports.front().get();
        Vel::Entity const* ours = copy.entity("port").get();
        for (int depth = 0; depth < 100 && theirs; ++depth) {
            ASSERT_TRUE(ours);
            auto const& there = static_cast<New::Port const&>(*theirs);
            auto const& here = static_cast<Old::Port const&>(*ours);
            ASSERT_EQ(here.label(), there.label());
            ASSERT_EQ(here.point(), (Old::Point{there.point().x, there.point().y}));
            ASSERT_EQ(here.speed(), 0u);
            for (U8 key = 0; key < 5; ++key) {
                ASSERT_EQ(here.markExists(key), there.markExists(key));
                ASSERT_EQ(here.mark(key), (Old::Point{there.mark(key).x, there.mark(key).y}));
                ASSERT_EQ(here.link(key) == nullptr, there.link(key) == nullptr);
                if (there.link(key)) {
                    ASSERT_EQ(here.link(key)->label(), there.link(key)->label());
                }
            }
            theirs = there.peer().get();
            ours = here.peer().get();
        }
        ASSERT_EQ(ours == nullptr, theirs == nullptr);
        for (auto const& rack : racks) {
            auto const found = copy.entity(rack->name());
            ASSERT_TRUE(found);
            auto const& here = static_cast<ForeignEntity const&>(*found);
            ASSERT_EQ(textAt(here, "mood"), rack->mood() == New::Mood() ? "'calm'" : "?");
            auto const uplink = here.target(idOf(here, "uplink"));
            ASSERT_EQ(uplink == nullptr, rack->uplink() == nullptr);
            if (!uplink) continue;
            ASSERT_EQ(static_cast<Old::Port const&>(*uplink).label(), rack->uplink()->label());
        }
    });
}

INSTANTIATE_TEST_SUITE_P(Seeds, RandomPolicyTest, testing::Range(0u, 10u));

// --- changes that are asked for ---

TEST_F(StreamPolicyTest, ChangesOfADescribedCopyReachTheSource) {
    connect(described);
    auto const there = entityAt<ForeignEntity>(copy(), "port");
    Strings answers;
    auto const note = [&](Vel::WriteAnswer const& answer) {
        answers.push_back(std::string(writeResultName(answer.result)) +
                          (answer.value ? " " + answer.value->strep().stdString() : "") +
                          (answer.text.empty() ? "" : " " + answer.text.stdString()));
    };
    auto const write = [&](char const* attribute, char const* text) {
        auto const attr = *there->fwkType().attribute(attribute);
        replica->write(*there, attr.attributeId(), GenericValue(attr.valueType(), text), note);
    };
    write("speed", "8");
    write("mood", "'angry'");
    write("point", "Value('Ports::Point', ** {'x': 1, 'y': 2})");
    write("point", "Value('Ports::Point', ** {'x': 13, 'y': 2})");
    auto const mark = *there->fwkType().attribute("mark");
    auto const point = mark.valueType();
    replica->writeKey(
        *there, mark.attributeId(), U8(9), GenericValue(point, "Value('Ports::Point', ** {'x': 5, 'y': 6})"), note);
    GenericValue const expected(point);
    Vel::ValueRef const expectedRef(expected);
    replica->writeKeyIf(*there, mark.attributeId(), U8(9), &expectedRef, expected, note);
    replica->deleteKey(*there, mark.attributeId(), U8(5), note);
    run();
    EXPECT_EQ(answers, (Strings{"done", "done", "done", "rejected a point at 13", "done",
                           "differs Value('Ports::Point', ** {'x': 5, 'y': 6})", "done"}));
    EXPECT_EQ(port->speed(), 8u);
    EXPECT_EQ(port->mood(), New::Mood(New::MoodName::angry));
    EXPECT_EQ(port->point(), (New::Point{1, 2}));
    EXPECT_EQ(port->mark(9), (New::Point{5, 6}));
    EXPECT_EQ(treeOf(copy()), treeOf(*root));
    EXPECT_THROW(replica->write(*there, idOf(*there, "speed"), U32(8)), Vel::TypeException);
}

TEST_F(StreamPolicyTest, ChangesOfACopyByNameHaveTheNumbersOfTheSource) {
    connect(byName);
    auto const there = entityAt<Old::Port>(copy(), "port");
    replica->write(*there, Vel::attributeId<Old::Port>("label"), String("from here"));
    replica->writeKey(*there, Vel::attributeId<Old::Port>("mark"), U8(1), Old::Point{7, 7});
    run();
    EXPECT_EQ(port->label(), "from here");
    EXPECT_EQ(port->mark(1), (New::Point{7, 7}));
    EXPECT_THROW(replica->write(*there, Vel::attributeId<Old::Port>("speed"), U32(1)), Vel::RangeException);
    EXPECT_THROW(replica->write(*there, Vel::attributeId<Old::Port>("aged"), true), Vel::RangeException);
}

TEST_F(StreamPolicyTest, HelloHasNoUnknownWishes) {
    for (unsigned const wishes : {3u, 4u}) {
        auto const line = source.newReader();
        line->input(message(MessageKind::hello, [&](Out& out) {
            out << Vel::streamMagic << Vel::streamVersion << static_cast<U8>(wishes) << String() << U32(0);
        }));
        EXPECT_EQ(line->error(), wishes == 4 ? "a hello with unknown wishes" : "");
    }
}

// --- lies ---

// A copy that is sent messages by hand.
class LyingSourceTest : public testing::Test {
protected:
    void connect(StreamPolicy policy, Vel::StreamLimits const& limits = {}) {
        replica =
            std::make_unique<AttrLogReplica>(place, "r", AttrLogReplica::Options{.limits = limits, .policy = policy});
        replica->connected();
        replica->input(message(MessageKind::welcome, [](Out& out) { out << Vel::streamVersion << true; }));
    }
    void connectAgain() {
        replica->closed({});
        replica->connected();
        replica->input(message(MessageKind::welcome, [](Out& out) { out << Vel::streamVersion << true; }));
    }
    std::string announceRoot() {
        using Vel::NboAttrLog::Compact;
        replica->input(message(
            MessageKind::announce, [](Out& out) { out << Compact{1} << Compact{0} << Compact{0} << String("r"); }));
        return replica->error().stdString();
    }
    std::string describe(std::string const& name, std::string const& text, bool truly = true) {
        U64 const fingerprint = Vel::ModuleDescription::fingerprintOf(text) + !truly;
        replica->input(
            message(MessageKind::description, [&](Out& out) { out << String(name) << fingerprint << String(text); }));
        return replica->error().stdString();
    }
    std::string type(U32 index, std::string const& name, std::string const& module, U64 fingerprint) {
        replica->input(message(MessageKind::type, [&](Out& out) {
            out << Vel::NboAttrLog::Compact{index} << String(name) << String(module) << fingerprint;
        }));
        return replica->error().stdString();
    }

    Ptr<Dir> place = Dir::newEntity("");
    std::unique_ptr<AttrLogReplica> replica;
    std::string const text = "module M\ntype M::A form 2 base Vel::Entity flags 0 ops 0\n"
                             "attribute 258 a kind 8 ops 3 value U8 key - result -\n";
    U64 const fingerprint = Vel::ModuleDescription::fingerprintOf(text);
};

TEST_F(LyingSourceTest, DescriptionIsTheTextOfItsFingerprint) {
    connect(described);
    EXPECT_EQ(describe("M", text, false), "the description of module M has another fingerprint");
    connect(described);
    EXPECT_EQ(describe("N", text), "a description of another module");
    connect(described);
    EXPECT_EQ(describe("M", text), "");
    EXPECT_EQ(describe("M", text), "the type M::A is described twice");
    connect(described);
    EXPECT_EQ(describe("M", text + "x"), "line 4 of a description: a line without an end");
}

TEST_F(LyingSourceTest, TypeComesFromTheModuleThatWasDescribed) {
    connect(described);
    EXPECT_EQ(type(0, "M::A", "M", fingerprint), "a type that was not described");
    connect(described);
    describe("M", text);
    EXPECT_EQ(type(0, "M::A", "M", fingerprint + 1), "the type M::A comes from another module than its description");
    connect(described);
    describe("M", text);
    EXPECT_EQ(type(0, "M::A", "N", fingerprint), "the type M::A comes from another module than its description");
    connect(described);
    describe("M", text);
    EXPECT_EQ(type(0, "M::B", "M", fingerprint), "no description of M::B");
    connect(described);
    describe("M", text);
    EXPECT_EQ(type(0, "M::A", "M", fingerprint), "");
    EXPECT_EQ(type(0, "M::A", "M", fingerprint), "type 0 is there already");
}

TEST_F(LyingSourceTest, DescriptionsAreLimitedAndAskedFor) {
    connect(exact);
    EXPECT_EQ(describe("M", text), "a description that this reader has not asked for");
    Vel::StreamLimits limits;
    limits.descriptions = 2 * text.size() - 1;
    connect(described, limits);
    EXPECT_EQ(describe("M", text), "");
    std::string other = text;
    for (std::size_t at = 0; (at = other.find('M', at)) != std::string::npos;) other[at] = 'N';
    EXPECT_EQ(describe("N", other), "descriptions of more than 219 bytes");
}

// Nothing in the bytes of a value with a form of its own says where they end.
TEST_F(LyingSourceTest, ValueOfItsOwnFormLeavesTheOthersThatChangeWithIt) {
    using Vel::NboAttrLog::Compact;
    connect(described);
    std::string const own = "module M\ntype M::Own form 0 base - flags 256 ops 0\n"
                            "type M::A form 2 base Vel::Entity flags 0 ops 0\n"
                            "attribute 258 own kind 8 ops 3 value M::Own key - result -\n"
                            "attribute 259 number kind 8 ops 3 value U32 key - result -\n";
    describe("M", own);
    type(0, "M::A", "M", Vel::ModuleDescription::fingerprintOf(own));
    replica->input(
        message(MessageKind::announce, [](Out& out) { out << Compact{1} << Compact{0} << Compact{0} << String("r"); }));
    replica->input(message(MessageKind::values, [](Out& out) {
        out << Compact{1} << Compact{258} << Compact{1} << U8(0xaa) << Compact{259} << Compact{4} << U32(7);
    }));
    EXPECT_EQ(replica->error(), "");
    auto const there = Vel::ptr_cast<ForeignEntity>(replica->root());
    EXPECT_EQ(textAt(*there, "own"), "Bytes('aa')");
    EXPECT_EQ(textAt(*there, "number"), "7");
}

// A method is as it is here, and yet its argument would be another one at the source.
TEST_F(LyingSourceTest, MethodIsNotCalledIfItsTypesAreDescribedOtherwise) {
    using Vel::NboAttrLog::Compact;
    connect(both);
    auto const caller = Vel::typeOf<Ports::Caller>();
    type(0, caller.name(), std::string(caller.moduleName()), caller.moduleFingerprint());
    replica->input(
        message(MessageKind::announce, [](Out& out) { out << Compact{1} << Compact{0} << Compact{0} << String("r"); }));
    auto const call = [&] {
        replica->call(*replica->root(), Vel::attributeId<Ports::Caller>("called"), {Old::Mood()});
    };
    call();
    EXPECT_EQ(replica->unansweredWrites(), 1u);
    describe("Ports", Vel::ModuleDescription::spellingOf(Vel::typeOf<New::Mood>().module()).stdString());
    EXPECT_EQ(replica->error(), "");
    EXPECT_THROW(call(), Vel::RangeException);
    EXPECT_EQ(replica->unansweredWrites(), 1u);
}

TEST(CallVersionTest, MethodIsNotCalledForAReaderWithOtherTypes) {
    auto const caller = Ports::Caller::newEntity("c");
    Vel::AttrLogSource source(caller, {.mayWrite = true});
    U64 const here = Vel::typeOf<Old::Mood>().moduleFingerprint();
    Strings answers;
    for (bool const isSame : {true, false}) {
        AttrLogReplica replica(Dir::newEntity(""), "c", {.path = {}, .wantsToWrite = true});
        auto const reader = source.newReader();
        replica.connected();
        Bytes hello = takeOutput(replica);
        Out fingerprint;
        fingerprint << here;
        auto const at = std::search(hello.begin(), hello.end(), fingerprint.bytes().begin(), fingerprint.bytes().end());
        ASSERT_NE(at, hello.end());
        if (!isSame) *at ^= 0xff;
        reader->input(hello);
        replica.input(takeOutput(*reader));
        ASSERT_EQ(replica.state(), AttrLogReplica::State::synced) << replica.error();
        replica.call(*replica.root(), Vel::attributeId<Ports::Caller>("called"), {Old::Mood(Old::MoodName::wild)},
            [&](Vel::WriteAnswer const& answer) {
                answers.push_back(Vel::writeResultName(answer.result) + (" " + answer.text.stdString()) +
                                  (answer.value ? answer.value->strep().stdString() : ""));
            });
        reader->input(takeOutput(replica));
        replica.input(takeOutput(*reader));
        EXPECT_EQ(reader->error(), "");
        reader->closed({});
        replica.closed({});
    }
    EXPECT_EQ(answers, (Strings{"done 'wild'",
                           Vel::format("rejected module Ports has fingerprint %016lx at the server and %016lx at the "
                                       "client",
                               here, here ^ 0xff00000000000000)
                               .stdString()}));
    EXPECT_EQ(caller->calls(), 1u);
}

// The keys of a collection that is not copied take no room, however many come.
TEST_F(LyingSourceTest, SkippedKeysTakeNothing) {
    using Vel::NboAttrLog::Compact;
    Vel::StreamLimits limits;
    limits.keys = 2;
    connect(described, limits);
    std::string const own = "module M\ntype M::Own form 0 base - flags 256 ops 0\n"
                            "type M::A form 2 base Vel::Entity flags 0 ops 0\n"
                            "attribute 258 a kind 5 ops 39 value U8 key M::Own result - values\n";
    describe("M", own);
    type(0, "M::A", "M", Vel::ModuleDescription::fingerprintOf(own));
    replica->input(
        message(MessageKind::announce, [](Out& out) { out << Compact{1} << Compact{0} << Compact{0} << String("r"); }));
    std::size_t const size = replica->copySize();
    for (bool const again : {false, true}) {
        auto const place = [](Out& out) { out << Compact{1} << Compact{258}; };
        if (again) replica->input(message(MessageKind::keysAgain, place));
        for (U32 key = 0; key < 100; ++key)
            replica->input(message(MessageKind::keySet, [&](Out& out) { place(out), out << key << U8(1); }));
        if (again) replica->input(message(MessageKind::keysEnd, place));
        replica->input(message(MessageKind::keyDel, [&](Out& out) { place(out), out << U32(7); }));
    }
    EXPECT_EQ(replica->error(), "");
    EXPECT_EQ(replica->copySize(), size);
    ASSERT_EQ(replica->differences().size(), 1u);
    EXPECT_EQ(replica->differences()[0], "M::A.a: its keys have a byte form of their own: not copied");
}

// The registry of this process does not learn what a peer describes.
TEST_F(LyingSourceTest, RegistryIsNotChanged) {
    auto const before = Vel::Registry::types().size();
    connect(both);
    describe("M", text);
    EXPECT_EQ(type(0, "M::A", "M", fingerprint), "");
    EXPECT_EQ(Vel::Registry::types().size(), before);
    EXPECT_FALSE(Vel::Registry::type("M::A"));
}

// What was described counts as long as it is there, also in connections that have ended.
TEST_F(LyingSourceTest, DescriptionsThatAreStillInUseCount) {
    Vel::StreamLimits limits;
    limits.copySize = 200'000;
    connect(described, limits);
    std::vector<Ptr<Vel::Entity>> held;
    std::string error;
    for (int i = 0; i < 1000 && error.empty(); ++i) {
        if (i != 0) connectAgain();
        std::string const other =
            text + "attribute 259 b" + std::to_string(i) + " kind 8 ops 3 value U8 key - result -\n";
        error = describe("M", other);
        if (error.empty()) error = type(0, "M::A", "M", Vel::ModuleDescription::fingerprintOf(other));
        if (error.empty()) error = announceRoot();
        held.push_back(replica->root());
    }
    EXPECT_EQ(error, "a copy of more than 200000 bytes");
    EXPECT_GT(held.size(), 10u);
    EXPECT_LT(held.size(), 200u);
    held.clear();
    connectAgain();
    EXPECT_LT(replica->copySize(), 20'000u);
}

// A method is called also if the entity is one that a former connection has made.
TEST_F(LyingSourceTest, KeptEntityIsCalled) {
    std::string const callable = text + "attribute 259 reset kind 4 ops 1024 value - key - result U8\n"
                                        "parameter to M::P\n"
                                        "type M::P form 0 base - flags 0 ops 0\n"
                                        "attribute 2 x kind 0 ops 3 value U8 key - result -\n";
    connect(described);
    Ptr<Vel::Entity> kept;
    for (bool const again : {false, true}) {
        if (again) connectAgain();
        EXPECT_EQ(describe("M", callable), "");
        EXPECT_EQ(type(0, "M::A", "M", Vel::ModuleDescription::fingerprintOf(callable)), "");
        EXPECT_EQ(announceRoot(), "");
        EXPECT_TRUE(!again || replica->root() == kept);
        kept = replica->root();
        GenericValue const argument(kept->fwkType().attributeOfId(259)->parameterType(0));
        replica->call(*kept, 259, {argument});
        EXPECT_EQ(replica->unansweredWrites(), 1u);
    }
}

// A method that takes another type of value is another method, though its entity's module is the same.
TEST_F(LyingSourceTest, EntityIsNotKeptIfItsMethodsTakeOtherValues) {
    std::string const callable = text + "attribute 259 reset kind 4 ops 1024 value - key - result U8\n"
                                        "parameter to P::P\n";
    connect(described);
    Ptr<Vel::Entity> kept;
    for (char const* const field : {"U8", "U8", "U16"}) {
        std::string const part = "module P\ntype P::P form 0 base - flags 0 ops 0\nattribute 2 x kind 0 ops 3 value " +
                                 std::string(field) + " key - result -\n";
        if (kept) connectAgain();
        EXPECT_EQ(describe("P", part), "");
        EXPECT_EQ(describe("M", callable), "");
        EXPECT_EQ(type(0, "M::A", "M", Vel::ModuleDescription::fingerprintOf(callable)), "");
        EXPECT_EQ(announceRoot(), "");
        EXPECT_TRUE(!kept || (replica->root() == kept) == (std::string_view(field) == "U8"));
        kept = replica->root();
    }
}

// A large default value of a described type counts before it is made.
TEST_F(LyingSourceTest, EntitiesOfDescribedTypesAreLimitedByTheSizeOfTheCopy) {
    std::string large = "module L\n";
    std::string part = "U64";
    for (int i = 0; i < 10; ++i) {
        std::string const name = "L::V" + std::to_string(i);
        large += "type " + name + " form 0 base - flags 0 ops 0\n";
        for (int f = 2; f < 4; ++f)
            large += "attribute " + std::to_string(f) + " f" + std::to_string(f) + " kind 0 ops 3 value " + part +
                     " key - result -\n";
        part = name;
    }
    large += "type L::A form 2 base Vel::Entity flags 0 ops 0\n";
    for (int i = 0; i < 100; ++i)
        large += "attribute " + std::to_string(258 + i) + " a" + std::to_string(i) + " kind 8 ops 3 value " + part +
                 " key - result -\n";
    Vel::StreamLimits limits;
    limits.copySize = 500'000;  // and the values alone have 819200 bytes
    connect(described, limits);
    describe("L", large);
    EXPECT_EQ(type(0, "L::A", "L", Vel::ModuleDescription::fingerprintOf(large)), "");
    replica->input(message(MessageKind::announce, [](Out& out) {
        using Vel::NboAttrLog::Compact;
        out << Compact{1} << Compact{0} << Compact{0} << String("r");
    }));
    EXPECT_EQ(replica->error(), "a copy of more than 500000 bytes");
}

}  // namespace
}  // namespace StreamTest
