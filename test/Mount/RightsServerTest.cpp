#include "Certificates.h"
#include "MountFixture.h"

#include "Mount/Answer.h"
#include "Mount/Rights.h"
#include "Vel/base/Exception.h"
#include "Vel/describe/Module.h"

// Servers whose readers may not all read and change everything.
namespace RightsServerTest {

// Refers to a generation that is in no place.
class Shelf : public Vel::EntityOf<Shelf> {
public:
    explicit Shelf(Vel::String const& name) : EntityOf(name) {}

    Vel::Ptr<Mox::GenerationEntity> loose() const { return loose_; }
    void looseIs(Vel::Ptr<Mox::GenerationEntity> const& v) { velSet<&Shelf::loose_>(v); }

    static constexpr auto description() {
        return Vel::entity(
            "RightsServerTest::Shelf", Vel::attribute<&Shelf::loose_, &Shelf::loose, &Shelf::looseIs>("loose"));
    }

private:
    Vel::Ptr<Mox::GenerationEntity> loose_;
};

namespace {

using namespace MountTest;
using Mount::History;
using Vel::WriteResult;

class RightsServerTest : public SharedTest {
protected:
    RightsServerTest() {
        auto const open = Vel::ptr_cast<Dir>(served->createEntity("Vel::Dir", "open"));
        auto const hidden = Vel::ptr_cast<Dir>(served->createEntity("Vel::Dir", "hidden"));
        generation(open, "g", 1);
        generation(hidden, "g", 2);
        generation(hidden, "shown", 3);
    }
    // Serves at a Unix socket and at loopback. "ME" in the rules is this process's user.
    void serve(std::string rules) {
        for (std::size_t at; (at = rules.find("ME")) != rules.npos;) rules.replace(at, 2, std::to_string(::geteuid()));
        Server::Options options = quickServer();
        options.rights = Mount::Rights::of(rules);
        options.history = 100;
        server.emplace(loop, served, options);
        server->listen(address());
        tcp = server->listen(Address("tcp:127.0.0.1:0"));
    }
    Client& mount(Address const& where, char const* name, char const* path = "") {
        Client::Options options = quick(path);
        options.wantsToWrite = true;
        clients.push_back(std::make_unique<Client>(loop, where, here, name, options));
        return *clients.back();
    }
    WriteResult write(Client& client, char const* path, U32 id) {
        Mount::Answer answer(loop);
        client.replica().write(
            *copyAt(path), Vel::attributeId<GenerationEntity>("generation"), Mox::Generation(id, true), answer.told());
        return answer.wait(enough).result;
    }
    std::string errorOf(Client& client) {
        EXPECT_TRUE(until([&] { return !client.error().empty(); }));
        std::string const error = client.error().stdString();
        return error.substr(std::min(error.find("refused: "), error.size()));
    }
    std::vector<std::string> pathsIn(char const* name) const {
        std::vector<std::string> paths;
        auto const history = Vel::ptr_cast<History>(here->entity(name));
        history->visitChanges(Vel::HistoryList::asked, [&](U64 n) {
            paths.push_back(std::to_string(n) + " " + history->change(Vel::HistoryList::asked, n).path().stdString());
        });
        return paths;
    }

    std::optional<Server> server;
    Address tcp{"tcp:127.0.0.1:0"};
    std::vector<std::unique_ptr<Client>> clients;
};

TEST_F(RightsServerTest, UserSeesMoreThanSomebodyOnTheSameMachine) {
    serve("everybody / read\neverybody /hidden nothing\nuser:ME /hidden read");
    ASSERT_TRUE(mount(address(), "user").sync(enough));
    ASSERT_TRUE(mount(tcp, "other").sync(enough));
    EXPECT_EQ(idAt("user/hidden/g"), 2u);
    EXPECT_EQ(idAt("other/open/g"), 1u);
    EXPECT_FALSE(here->entity("other/hidden"));
}

TEST_F(RightsServerTest, GroupOfTheUserIsKnown) {
    serve("group:" + std::to_string(::getegid()) + " /open read");
    ASSERT_TRUE(mount(address(), "user", "/open").sync(enough));
    EXPECT_EQ(idAt("user/g"), 1u);
    EXPECT_EQ(errorOf(mount(tcp, "other", "/open")), errorOf(mount(tcp, "none", "/open")));
}

TEST_F(RightsServerTest, HiddenPathIsRefusedLikeOneThatDoesNotExist) {
    serve("everybody / read\neverybody /hidden nothing\neverybody /hidden/shown read");
    std::string const missing = errorOf(mount(tcp, "a", "/nowhere"));
    std::string hidden = errorOf(mount(tcp, "b", "/hidden"));
    EXPECT_EQ(hidden.replace(hidden.find("hidden"), 6, "nowhere"), missing);
    EXPECT_EQ(errorOf(mount(tcp, "c", "/hidden/g")), "refused: there is nothing at '/hidden/g'");
    ASSERT_TRUE(mount(tcp, "d", "/hidden/shown").sync(enough));
    EXPECT_EQ(copyAt("d")->generation().id(), 3u);
}

TEST_F(RightsServerTest, WritesGoByThePath) {
    serve("everybody / read\neverybody /hidden nothing\nuser:ME /open write");
    Client& user = mount(address(), "user");
    Client& other = mount(tcp, "other");
    ASSERT_TRUE(user.sync(enough));
    ASSERT_TRUE(other.sync(enough));
    EXPECT_EQ(write(user, "user/open/g", 8), WriteResult::done);
    EXPECT_FALSE(other.replica().mayWrite());
}

TEST_F(RightsServerTest, HistoryHasWhatTheReaderMayRead) {
    serve("everybody / read\neverybody /hidden nothing\nuser:ME / write\nuser:ME /hidden write");
    ASSERT_TRUE(mount(tcp, "early", Mount::historyPath).sync(enough));
    Client& user = mount(address(), "user");
    ASSERT_TRUE(user.sync(enough));
    for (U32 i = 0; i < 3; ++i) {
        EXPECT_EQ(write(user, "user/hidden/g", 10 + i), WriteResult::done);
        EXPECT_EQ(write(user, "user/open/g", 10 + i), WriteResult::done);
    }
    ASSERT_TRUE(mount(address(), "all", Mount::historyPath).sync(enough));
    ASSERT_TRUE(mount(tcp, "late", Mount::historyPath).sync(enough));
    EXPECT_EQ(pathsIn("all").size(), 6u);
    std::vector<std::string> const open{"0 /open/g", "1 /open/g", "2 /open/g"};
    EXPECT_EQ(pathsIn("late"), open);
    EXPECT_TRUE(until([&] { return pathsIn("early") == open; }));
}

TEST_F(RightsServerTest, HistoryOfWhatIsInNoPlaceIsForThoseWhoMayReadEverything) {
    auto const shelf = Vel::ptr_cast<Shelf>(
        Vel::ptr_cast<Dir>(served->entity("hidden"))->createEntity("RightsServerTest::Shelf", "s"));
    shelf->looseIs(Mox::generationEntityFactory("loose"));
    serve("everybody / read\neverybody /hidden nothing\nuser:ME / write\nuser:ME /hidden write");
    ASSERT_TRUE(mount(tcp, "part", Mount::historyPath).sync(enough));
    ASSERT_TRUE(mount(address(), "all", Mount::historyPath).sync(enough));
    Client& user = mount(address(), "user");
    ASSERT_TRUE(user.sync(enough));
    Mount::Answer answer(loop);
    user.replica().write(*Vel::ptr_cast<Shelf>(here->entity("user/hidden/s"))->loose(),
        Vel::attributeId<GenerationEntity>("generation"), Mox::Generation(9, true), answer.told());
    EXPECT_EQ(answer.wait(enough).result, WriteResult::done);
    EXPECT_EQ(write(user, "user/open/g", 9), WriteResult::done);
    EXPECT_TRUE(until([&] { return !pathsIn("part").empty(); }));
    EXPECT_EQ(pathsIn("part"), std::vector<std::string>{"0 /open/g"});
    EXPECT_TRUE(until([&] { return pathsIn("all").size() == 2; }));
}

TEST_F(RightsServerTest, HistoryIsThereForThoseWhoMayReadItsPath) {
    serve("everybody / read\nuser:ME @history nothing\neverybody /hidden nothing");
    EXPECT_EQ(errorOf(mount(address(), "user", Mount::historyPath)), "refused: there is nothing at '@history'");
    EXPECT_TRUE(mount(tcp, "other", Mount::historyPath).sync(enough));
    serve("everybody /open read");
    EXPECT_EQ(errorOf(mount(tcp, "third", Mount::historyPath)), "refused: there is nothing at '@history'");
}

TEST_F(RightsServerTest, OldChangesLeaveTheFilteredHistory) {
    auto const kept = std::make_shared<Vel::WriteHistory>(3);
    auto const part = History::of(kept, "history", [](auto const& place) { return place == "open"; });
    auto const entity = generation(served, "x", 1);
    auto const note = [&](char const* place) {
        U64 const number = kept->asked(*entity, Vel::attributeId<GenerationEntity>("generation"), "me");
        kept->placeIs(number, place);
        kept->answered(number, {WriteResult::done});
    };
    std::vector<U64> told;
    auto const observer =
        notifieeOf(*part, [&](Vel::AttributeId, Vel::NotifieeKey const* key) { told.push_back(key->as<U64>()); });
    note("open"), note("hidden"), note("open"), note("hidden"), note("open");
    EXPECT_EQ(told, (std::vector<U64>{0, 1, 0, 2}));
    EXPECT_FALSE(part->changeExists(Vel::HistoryList::asked, 0));
    EXPECT_TRUE(part->changeExists(Vel::HistoryList::asked, 1));
    EXPECT_TRUE(part->changeExists(Vel::HistoryList::asked, 2));
    EXPECT_FALSE(part->changeExists(Vel::HistoryList::asked, 3));
}

TEST_F(RightsServerTest, RightsExcludeWritersAndChangesThatNobodyAskedFor) {
    Server::Options options;
    options.rights = Mount::Rights::of("everybody / read");
    options.source.mayWrite = true;
    EXPECT_THROW(Server(loop, served, options), Vel::RangeException);
    options.source.mayWrite = false;
    options.writers = {"root"};
    EXPECT_THROW(Server(loop, served, options), Vel::RangeException);
    options.writers.clear();
    options.ownChanges = 1;
    EXPECT_THROW(Server(loop, served, options), Vel::RangeException);
    options.ownChanges = 0;
    options.lastChanges = 1;
    EXPECT_THROW(Server(loop, served, options), Vel::RangeException);
    options.lastChanges = 0;
    EXPECT_NO_THROW(Server(loop, served, options));
}

TEST_F(RightsServerTest, CertificatesAreMatchedByTheirNames) {
    Certificates certificates;
    Server::Options options = quickServer();
    options.peer.tls = certificates.issue({"state server", {"IP:127.0.0.1"}});
    options.rights = Mount::Rights::of("name:*.lab.example /open read\nname:db7.lab.example / read");
    server.emplace(loop, served, options);
    Address const place = server->listen("tls:127.0.0.1:0");
    auto const as = [&](char const* name, char const* copy) {
        Client::Options reading = quick(copy == std::string_view("db7") ? "" : "/open");
        reading.peer.tls = certificates.issue({name, {}});
        clients.push_back(std::make_unique<Client>(loop, place, here, copy, reading));
        return clients.back().get();
    };
    ASSERT_TRUE(as("db7.lab.example", "db7")->sync(enough));
    EXPECT_EQ(idAt("db7/hidden/g"), 2u);
    ASSERT_TRUE(as("db8.lab.example", "db8")->sync(enough));
    EXPECT_EQ(idAt("db8/g"), 1u);
    EXPECT_EQ(errorOf(*as("lab.example", "lab")), "refused: there is nothing at '/open'");
}

}  // namespace
}  // namespace RightsServerTest

VEL_MODULE(RightsServerTest, ce9960a79e8bf797, RightsServerTest::Shelf);
