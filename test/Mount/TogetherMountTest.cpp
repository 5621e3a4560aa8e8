#include "MountFixture.h"

#include "Mount/Answer.h"
#include "Vel/base/Exception.h"
#include "Vel/describe/Module.h"

// Values that change together, and calls, over sockets.
namespace TogetherMountTest {

class Heater : public Vel::EntityOf<Heater> {
public:
    explicit Heater(Vel::String const& name) : EntityOf(name) {}

    Vel::U32 from() const { return from_; }
    void fromIs(Vel::U32 v) { velSet<&Heater::from_>(v); }
    Vel::U32 to() const { return to_; }
    void toIs(Vel::U32 v) {
        if (v > 1000) throw Vel::RangeException("it gets too hot");
        velSet<&Heater::to_>(v);
    }
    Vel::U32 shift(Vel::U32 by) {
        toIs(to_ + by);
        fromIs(from_ + by);
        return from_;
    }

    static constexpr auto description() {
        return Vel::entity("TogetherMountTest::Heater",
            Vel::attribute<&Heater::from_, &Heater::from, &Heater::fromIs>("from"),
            Vel::attribute<&Heater::to_, &Heater::to, &Heater::toIs>("to"), Vel::method<&Heater::shift>("shift", "by"));
    }

private:
    Vel::U32 from_ = 0;
    Vel::U32 to_ = 3;
};

namespace {

using namespace MountTest;

constexpr auto from = Vel::attributeId<Heater>("from"), to = Vel::attributeId<Heater>("to");

class HeaterMountTest : public SharedTest {
protected:
    HeaterMountTest() { served->entryIs(heater); }

    void serve(std::vector<String> const& writers = {}) {
        Server::Options options;
        options.source.mayWrite = true;
        options.writers = writers;
        server.emplace(loop, served, options);
        server->listen(address());
        Client::Options writing;
        writing.wantsToWrite = true;
        writer.emplace(loop, address(), here, "writer", writing);
        watcher.emplace(loop, address(), here, "watcher");
        ASSERT_TRUE(writer->sync(enough) && watcher->sync(enough)) << writer->error();
    }
    Ptr<Heater> copy(char const* path) { return Vel::ptr_cast<Heater>(here->entity(path)); }

    Ptr<Heater> heater = Heater::newEntity("heater");
    std::optional<Server> server;
    std::optional<Client> writer, watcher;
};

TEST_F(HeaterMountTest, ValuesThatAreWrittenTogetherAreSeenTogether) {
    serve();
    auto const seen = copy("watcher/heater");
    auto const observer = Vel::notifieeOf(*seen, [&](Vel::AttributeId) { EXPECT_EQ(seen->from() + 3, seen->to()); });
    for (U32 i = 1; i <= 200; ++i) writer->replica().writeTogether(*copy("writer/heater"), {{from, i}, {to, i + 3}});
    EXPECT_TRUE(until([&] { return seen->from() == 200; }));
    Mount::Answer answer(loop);
    writer->replica().writeTogether(*copy("writer/heater"), {{from, U32(7)}, {to, U32(5000)}}, answer.told());
    EXPECT_EQ(answer.wait(enough).result, Vel::WriteResult::rejected);
    EXPECT_EQ(answer.answer().text, "it gets too hot");
    EXPECT_EQ(answer.answer().attribute, to);
    EXPECT_EQ(heater->from(), 200u);
}

TEST_F(HeaterMountTest, MethodIsCalledAtTheServer) {
    serve();
    Mount::Answer answer(loop);
    auto const shift = Vel::attributeId<Heater>("shift");
    writer->replica().call(*copy("writer/heater"), shift, {U32(5)}, answer.told());
    ASSERT_EQ(answer.wait(enough).result, Vel::WriteResult::done);
    ASSERT_TRUE(answer.answer().value);
    EXPECT_EQ(answer.answer().value->strep(), "5");
    EXPECT_EQ(copy("writer/heater")->to(), 8u);
    EXPECT_TRUE(until([&] { return copy("watcher/heater")->to() == 8; }));
}

TEST_F(HeaterMountTest, WhoMayNotWriteMayNotCall) {
    serve({"nobody-of-this-name"});
    auto const heaterCopy = copy("writer/heater");
    EXPECT_THROW(
        writer->replica().call(*heaterCopy, Vel::attributeId<Heater>("shift"), {U32(5)}), Vel::ReadOnlyException);
    EXPECT_THROW(writer->replica().writeTogether(*heaterCopy, {{from, U32(5)}}), Vel::ReadOnlyException);
}

}  // namespace

}  // namespace TogetherMountTest

VEL_MODULE(TogetherMountTest, f7b8adc4f2a0a6ae, TogetherMountTest::Heater);
