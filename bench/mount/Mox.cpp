// Mox's own mounts: the number is an attribute of an entity, and the listener is told by the copy's observer.

#include "Contestant.h"
#include "RoundTrip.h"

#include "Mount/Client.h"
#include "Mount/Server.h"

#include "Redundancy/RedundancyStatus.h"

#include "Vel/entity/NotifieeList.h"

namespace Bench {
namespace {

using Redundancy::RedundancyStatus;

// Changes between two looks at the loop, when they come fast: what a socket takes at once.
constexpr std::size_t changesAtOnce = 4000;
// Bytes that the slowest reader may be behind before the source waits; a quarter of what the log holds.
constexpr std::size_t backlogLimit = 256 << 10;
constexpr auto statusInterval = std::chrono::milliseconds(50);

class MoxSource final : public Source {
public:
    explicit MoxSource(std::string const& path) : server_(loop_, number_, options()) {
        server_.listen(Mount::Address::unixSocket(path.c_str()));
    }

    bool hasReaders(std::size_t count) override { return server_.connections() >= count; }
    void change(std::uint32_t value) override {
        number_->activeCellIdIs(value);
        if (++held_ == changesAtOnce) flush();
    }
    void flush() override {
        held_ = 0;
        loop_.poll();
        if (server_.backlog() <= backlogLimit) return;
        if (!loop_.runUntil([&] { return server_.backlog() <= backlogLimit / 2; }, std::chrono::seconds(30)))
            throw Failure("readers do not keep up");
    }
    void serve(Nanoseconds time) override { loop_.runFor(std::chrono::nanoseconds(time)); }
    std::uint64_t leftOut() override {
        loop_.runFor(3 * statusInterval);
        return server_.status()->coalesced();
    }

private:
    static Mount::ServerOptions options() {
        Mount::ServerOptions result;
        result.statusInterval = statusInterval;
        return result;
    }

    Mount::Loop loop_;
    Vel::Ptr<RedundancyStatus> number_ = Redundancy::redundancyStatusFactory("number");
    Mount::Server server_;
    std::size_t held_ = 0;
};

class MoxReader final : public Reader, private Vel::Notifiee {
public:
    explicit MoxReader(std::string const& path)
        : client_(loop_, Mount::Address::unixSocket(path.c_str()), place_, "copy") {
        if (!client_.sync(std::chrono::seconds(30))) throw Failure("no copy: " + client_.error().stdString());
        number_ = Vel::ptr_cast<RedundancyStatus>(client_.replica().root());
        notifierIs(number_.get());
    }

    void receive(Listener& listener, Deadline const& deadline) override {
        listener_ = &listener;
        if (!loop_.runUntil([&] { return listener.isDone; }, std::chrono::nanoseconds(deadline.left())))
            throw Failure("changes did not come: " + client_.error().stdString());
        listener_ = nullptr;
    }

private:
    void handleAttribute(Vel::AttributeId) override {
        if (listener_ && !listener_->isDone) listener_->changed(number_->activeCellId());
    }

    Mount::Loop loop_;
    Vel::Ptr<Vel::Dir> place_ = Vel::Dir::newEntity("");
    Mount::Client client_;
    Vel::Ptr<RedundancyStatus> number_;
    Listener* listener_ = nullptr;
};

class MoxContestant final : public Contestant {
public:
    std::string name() const override { return "Mox"; }
    std::unique_ptr<Source> source() override { return std::make_unique<MoxSource>(socket()); }
    std::unique_ptr<Reader> reader() override { return std::make_unique<MoxReader>(socket()); }
};

// --- writes ---

class MoxOwner final : public Owner {
public:
    explicit MoxOwner(std::string const& path) : server_(loop_, number_, options()) {
        server_.listen(Mount::Address::unixSocket(path.c_str()));
    }
    void serve(Nanoseconds time) override { loop_.runFor(std::chrono::nanoseconds(time)); }

private:
    static Mount::ServerOptions options() {
        Mount::ServerOptions result;
        result.source.mayWrite = true;
        return result;
    }

    Mount::Loop loop_;
    Vel::Ptr<RedundancyStatus> number_ = Redundancy::redundancyStatusFactory("number");
    Mount::Server server_;
};

class MoxWriter final : public Writer {
public:
    explicit MoxWriter(std::string const& path)
        : client_(loop_, Mount::Address::unixSocket(path.c_str()), place_, "copy", options()) {
        if (!client_.sync(std::chrono::seconds(30))) throw Failure("no copy: " + client_.error().stdString());
        number_ = Vel::ptr_cast<RedundancyStatus>(client_.replica().root());
    }

    // The copy has the new value when the answer is told, or a later one.
    void ask(std::uint32_t value) override {
        client_.replica().write(*number_, Vel::attributeId<RedundancyStatus>("activeCellId"), Vel::U32(value),
            [this, value](Vel::WriteAnswer const& answer) {
                isWrong_ |= answer.result != Vel::WriteResult::done || number_->activeCellId() < value;
                ++answers_;
            });
    }
    void await(std::uint64_t answers, Deadline const& deadline) override {
        if (answers_ < answers)
            loop_.runUntil([&] { return answers_ >= answers; }, std::chrono::nanoseconds(deadline.left()));
        if (answers_ < answers || isWrong_) throw Failure("another answer than done: " + client_.error().stdString());
    }
    std::uint32_t stored(Deadline const&) override { return number_->activeCellId(); }

private:
    static Mount::ClientOptions options() {
        Mount::ClientOptions result;
        result.wantsToWrite = true;
        return result;
    }

    Mount::Loop loop_;
    Vel::Ptr<Vel::Dir> place_ = Vel::Dir::newEntity("");
    Mount::Client client_;
    Vel::Ptr<RedundancyStatus> number_;
    std::uint64_t answers_ = 0;
    bool isWrong_ = false;
};

class MoxWriteContestant final : public WriteContestant {
public:
    std::string name() const override { return "Mox"; }
    std::unique_ptr<Owner> owner() override { return std::make_unique<MoxOwner>(socket()); }
    std::unique_ptr<Writer> writer() override { return std::make_unique<MoxWriter>(socket()); }
};

}  // namespace

std::unique_ptr<WriteContestant> moxWriteContestant() { return std::make_unique<MoxWriteContestant>(); }

std::unique_ptr<Contestant> moxContestant() { return std::make_unique<MoxContestant>(); }

}  // namespace Bench
