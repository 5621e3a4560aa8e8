#include "MountFixture.h"

#include "Mount/Answer.h"
#include "Mount/History.h"
#include "Vel/base/Exception.h"

#include <gmock/gmock.h>

// Who has changed what at a server, for other processes.
namespace {

using namespace MountTest;
using Mount::Change;
using Mount::History;
using testing::EndsWith;
using testing::MatchesRegex;
using testing::StartsWith;

constexpr auto asked = History::List::asked, own = History::List::own, last = History::List::last;

class HistoryTest : public SharedTest {
protected:
    void serve(std::size_t history, std::size_t ownChanges = 0, std::size_t lastChanges = 0) {
        Server::Options options;
        options.source.mayWrite = true;
        options.history = history;
        options.ownChanges = ownChanges;
        options.lastChanges = lastChanges;
        server.emplace(loop, served, options);
        server->listen(address());
        Client::Options writing;
        writing.wantsToWrite = true;
        writer.emplace(loop, address(), here, "copy", writing);
        ASSERT_TRUE(writer->sync(enough)) << writer->error();
    }
    void write(U32 id) {
        Mount::Answer answer(loop);
        writer->replica().write(*copyAt("copy/g"), Vel::attributeId<GenerationEntity>("generation"),
            Mox::Generation(id, true), answer.told());
        EXPECT_TRUE(answer.wait(enough).hasChanged());
    }
    Ptr<History> mounted() {
        Client::Options options;
        options.path = Mount::historyPath;
        reader.emplace(loop, address(), here, "history", options);
        EXPECT_TRUE(reader->sync(enough)) << reader->error();
        return Vel::ptr_cast<History>(here->entity("history"));
    }
    static std::vector<U64> numbers(History const& history, History::List list = History::List::asked) {
        std::vector<U64> all;
        history.visitChanges(list, [&](U64 number) { all.push_back(number); });
        return all;
    }

    Ptr<GenerationEntity> original = generation(served, "g", 1);
    std::optional<Server> server;
    std::optional<Client> writer, reader;
};

TEST_F(HistoryTest, ChangesAndTheirAuthorsCanBeMounted) {
    serve(100);
    write(7);
    auto const copy = mounted();
    write(8);
    ASSERT_TRUE(until([&] { return copy->changeExists(asked, 1); }));
    Change const change = copy->change(asked, 1);
    EXPECT_THAT(change.author().stdString(), MatchesRegex("[^ ]+ \\(process [0-9]+\\)"));
    EXPECT_THAT(change.author().stdString(), EndsWith("process " + std::to_string(::getpid()) + ")"));
    EXPECT_EQ(change.path(), "/g");
    EXPECT_EQ(change.attribute(), "generation");
    EXPECT_EQ(change.before(), "Value('Mox::Generation', ** {'id': 7, 'valid': True})");
    EXPECT_EQ(change.wanted(), "Value('Mox::Generation', ** {'id': 8, 'valid': True})");
    EXPECT_EQ(change.result(), "done");
    EXPECT_GT(change.time().value(), 1.6e9);
    EXPECT_EQ(copy->change(asked, 0).result(), "done");
    EXPECT_EQ(server->history()->change(asked, 0), copy->change(asked, 0));
}

TEST_F(HistoryTest, CopyHasOnlyTheNewest) {
    serve(3);
    write(2);
    auto const copy = mounted();
    for (U32 id = 3; id <= 8; ++id) write(id);
    EXPECT_TRUE(until([&] { return copy->changeExists(asked, 6); }));
    EXPECT_EQ(numbers(*copy), (std::vector<U64>{4, 5, 6}));
    EXPECT_EQ(numbers(*server->history()), (std::vector<U64>{4, 5, 6}));
    EXPECT_EQ(copy->change(asked, 3), Change());
}

TEST_F(HistoryTest, PeerOfTcpIsAnAddress) {
    serve(100);
    Address const bound = server->listen(Address("tcp:127.0.0.1:0"));
    Client::Options writing;
    writing.wantsToWrite = true;
    writer.emplace(loop, bound, here, "copy", writing);
    ASSERT_TRUE(writer->sync(enough)) << writer->error();
    write(7);
    EXPECT_THAT(server->history()->change(asked, 0).author().stdString(), MatchesRegex("127\\.0\\.0\\.1:[0-9]+"));
}

TEST_F(HistoryTest, NobodyChangesTheHistory) {
    serve(100);
    write(7);
    Client::Options options;
    options.path = Mount::historyPath;
    options.wantsToWrite = true;
    reader.emplace(loop, address(), here, "history", options);
    ASSERT_TRUE(reader->sync(enough)) << reader->error();
    auto const copy = Vel::ptr_cast<History>(here->entity("history"));
    constexpr auto change = Vel::attributeId<History>("change");
    Mount::Answer forged(loop), deleted(loop);
    reader->replica().writeKey(*copy, change, U64(0), Change(), forged.told());
    reader->replica().deleteKey(*copy, change, U64(0), deleted.told());
    EXPECT_EQ(forged.wait(enough).result, Vel::WriteResult::rejected);
    EXPECT_EQ(deleted.wait(enough).text, "nobody can change what has happened");
    EXPECT_EQ(server->history()->change(asked, 0).path(), "/g");
    EXPECT_EQ(server->history()->change(asked, 1).result(), "rejected") << "the attempts are a part of it";
}

TEST_F(HistoryTest, WithoutOneNothingIsThere) {
    serve(0);
    EXPECT_FALSE(server->history());
    Client::Options options;
    options.path = Mount::historyPath;
    reader.emplace(loop, address(), here, "history", options);
    EXPECT_FALSE(reader->sync(std::chrono::seconds(0)));
    EXPECT_TRUE(until([&] { return reader->fault() == Vel::StreamFault::nothingThere; }));
}

TEST_F(HistoryTest, OwnAndLastChangesCanBeMounted) {
    serve(3, 2, 10);
    auto const copy = mounted();
    write(7);
    for (U32 id = 10; id < 15; ++id) original->generationIs({id, true});
    ASSERT_TRUE(until([&] { return copy->changeExists(own, 4) && copy->changeExists(asked, 0); }));
    EXPECT_EQ(numbers(*copy, own), (std::vector<U64>{3, 4}));
    Change const change = copy->change(own, 4);
    EXPECT_EQ(change.author(), "this process");
    EXPECT_EQ(change.path(), "/g");
    EXPECT_EQ(change.attribute(), "generation");
    EXPECT_EQ(change.wanted(), "Value('Mox::Generation', ** {'id': 14, 'valid': True})");
    EXPECT_TRUE(until([&] { return copy->change(last, 0) == change; }));
    EXPECT_EQ(numbers(*copy, last), std::vector<U64>{0});
}

// What is served at the path of the history is notified, too, while somebody reads it.
TEST_F(HistoryTest, HistoryIsNoPartOfItself) {
    serve(0, 20, 20);
    auto const copy = mounted();
    original->generationIs({5, true});
    ASSERT_TRUE(until([&] { return copy->changeExists(own, 0); }));
    EXPECT_EQ(numbers(*server->history(), own), std::vector<U64>{0});
    EXPECT_EQ(numbers(*server->history(), last), std::vector<U64>{0});
}

TEST_F(HistoryTest, IsNotAPartOfWhatIsServed) {
    serve(100);
    EXPECT_FALSE(here->entity("copy/@history"));
    EXPECT_EQ(served->entries(), 1u);
}

}  // namespace
