// Publish and subscribe of a Redis server that keeps nothing on disk, by hiredis over a Unix socket.

#include "Contestant.h"
#include "RoundTrip.h"

#include <cstring>

#include <hiredis/hiredis.h>

namespace Bench {
namespace {

constexpr char head[] = "*3\r\n$7\r\nPUBLISH\r\n$6\r\nnumber\r\n$32\r\n";
constexpr std::size_t headSize = sizeof head - 1;

class Connection {
public:
    explicit Connection(std::string const& path) : context_(redisConnectUnix(path.c_str())) {
        if (!context_ || context_->err) fail();
    }
    Connection(Connection const&) = delete;
    Connection& operator=(Connection const&) = delete;
    ~Connection() { redisFree(context_); }

    [[noreturn]] void fail() const {
        throw Failure(std::string("Redis: ") + (context_ ? context_->errstr : "no connection"));
    }
    void timeoutIs(Nanoseconds time) {
        if (redisSetTimeout(context_, {static_cast<time_t>(time / second + 1), 0}) != REDIS_OK) fail();
    }
    redisContext* get() const { return context_; }

    struct Free {
        void operator()(redisReply* reply) const { freeReplyObject(reply); }
    };
    using Reply = std::unique_ptr<redisReply, Free>;
    Reply reply() {
        void* reply = nullptr;
        if (redisGetReply(context_, &reply) != REDIS_OK) fail();
        return Reply(static_cast<redisReply*>(reply));
    }

private:
    redisContext* context_;
};

class RedisSource final : public Source {
public:
    explicit RedisSource(std::string const& path) : connection_(path) {
        std::memcpy(command_, head, headSize);
        std::memcpy(command_ + headSize + messageSize, "\r\n", 2);
    }

    bool hasReaders(std::size_t) override { return true; }  // each waits for the server's word
    void change(std::uint32_t value) override {
        std::memcpy(command_ + headSize, &value, sizeof value);
        if (redisAppendFormattedCommand(connection_.get(), command_, sizeof command_) != REDIS_OK) connection_.fail();
        ++waiting_;
        if (++held_ == batch) flush();
    }
    void flush() override {
        for (int done = 0; !done;)
            if (redisBufferWrite(connection_.get(), &done) != REDIS_OK) connection_.fail();
        held_ = 0;
        // One batch is under way while the next is made.
        for (; waiting_ > batch; --waiting_)
            if (connection_.reply()->type != REDIS_REPLY_INTEGER) throw Failure("Redis: not published");
    }
    void serve(Nanoseconds time) override { sleepUntil(now() + time); }

private:
    Connection connection_;
    char command_[headSize + messageSize + 2]{};  // made once, and sent with another value each time
    std::size_t held_ = 0;
    std::size_t waiting_ = 0;  // for their replies
};

class RedisReader final : public Reader {
public:
    explicit RedisReader(std::string const& path) : connection_(path) {
        Connection::Reply const reply(static_cast<redisReply*>(redisCommand(connection_.get(), "SUBSCRIBE number")));
        if (!reply || reply->type != REDIS_REPLY_ARRAY) connection_.fail();
    }

    void receive(Listener& listener, Deadline const& deadline) override {
        connection_.timeoutIs(deadline.left());
        while (!listener.isDone) {
            auto const reply = connection_.reply();
            if (reply->type != REDIS_REPLY_ARRAY || reply->elements != 3 || reply->element[2]->len != messageSize)
                throw Failure("Redis: another message than was sent");
            std::uint32_t value = 0;
            std::memcpy(&value, reply->element[2]->str, sizeof value);
            listener.changed(value);
        }
    }

private:
    Connection connection_;
};

std::unique_ptr<Program> startedServer(std::string const& socket, std::string const& directory, Deadline const& limit) {
    auto server = std::make_unique<Program>(std::vector<std::string>{"redis-server", "--port", "0", "--unixsocket",
        socket, "--save", "", "--appendonly", "no", "--daemonize", "no", "--dir", directory,
        "--client-output-buffer-limit", "pubsub 0 0 0"});  // readers that are behind are not dropped
    limit.await("for the Redis server", [&] {
        if (server->hasEnded()) throw Failure("the Redis server does not start");
        std::unique_ptr<redisContext, decltype(&redisFree)> const attempt(redisConnectUnix(socket.c_str()), redisFree);
        return attempt && !attempt->err;
    });
    return server;
}

class RedisContestant final : public Contestant {
public:
    std::string name() const override { return "Redis"; }
    void start(std::string const& directory, Deadline const& deadline) override {
        Contestant::start(directory, deadline);
        server_ = startedServer(socket(), directory, deadline);
    }
    void stop() override { server_.reset(); }
    Nanoseconds brokerTime() const override { return cpuTime(server_->pid()); }
    std::unique_ptr<Source> source() override { return std::make_unique<RedisSource>(socket()); }
    std::unique_ptr<Reader> reader() override { return std::make_unique<RedisReader>(socket()); }

private:
    std::unique_ptr<Program> server_;
};

// --- writes ---

// The server has the number, so this process does nothing.
class RedisOwner final : public Owner {
public:
    void serve(Nanoseconds time) override { sleepUntil(now() + time); }
};

constexpr char setHead[] = "*3\r\n$3\r\nSET\r\n$6\r\nnumber\r\n$32\r\n";
constexpr std::size_t setHeadSize = sizeof setHead - 1;

class RedisWriter final : public Writer {
public:
    explicit RedisWriter(std::string const& path) : connection_(path) {
        std::memcpy(command_, setHead, setHeadSize);
        std::memcpy(command_ + setHeadSize + messageSize, "\r\n", 2);
    }

    void ask(std::uint32_t value) override {
        std::memcpy(command_ + setHeadSize, &value, sizeof value);
        if (redisAppendFormattedCommand(connection_.get(), command_, sizeof command_) != REDIS_OK) connection_.fail();
    }
    void await(std::uint64_t answers, Deadline const&) override {
        for (; answers_ < answers; ++answers_)
            if (connection_.reply()->type != REDIS_REPLY_STATUS) throw Failure("Redis: not set");
    }
    std::uint32_t stored(Deadline const&) override {
        Connection::Reply const reply(static_cast<redisReply*>(redisCommand(connection_.get(), "GET number")));
        if (!reply || reply->type != REDIS_REPLY_STRING || reply->len != messageSize) connection_.fail();
        std::uint32_t value = 0;
        std::memcpy(&value, reply->str, sizeof value);
        return value;
    }

private:
    Connection connection_;
    char command_[setHeadSize + messageSize + 2]{};
    std::uint64_t answers_ = 0;
};

class RedisWriteContestant final : public WriteContestant {
public:
    std::string name() const override { return "Redis SET"; }
    void start(std::string const& directory, Deadline const& deadline) override {
        WriteContestant::start(directory, deadline);
        server_ = startedServer(socket(), directory, deadline);
    }
    void stop() override { server_.reset(); }
    std::unique_ptr<Owner> owner() override { return std::make_unique<RedisOwner>(); }
    std::unique_ptr<Writer> writer() override { return std::make_unique<RedisWriter>(socket()); }

private:
    std::unique_ptr<Program> server_;
};

}  // namespace

std::unique_ptr<Contestant> redisContestant() {
    if (!isInstalled("redis-server")) return nullptr;
    return std::make_unique<RedisContestant>();
}

std::unique_ptr<WriteContestant> redisWriteContestant() {
    if (!isInstalled("redis-server")) return nullptr;
    return std::make_unique<RedisWriteContestant>();
}

}  // namespace Bench
