// A unary call of gRPC over a Unix socket, with a message of protobuf that has the number. The answer has it, too.

#include "RoundTrip.h"

#include "mount/Number.grpc.pb.h"

#include <algorithm>
#include <atomic>
#include <chrono>

#include <grpcpp/grpcpp.h>

namespace Bench {
namespace {

using Grpc::Number;
using Grpc::Value;

// Runs in threads of the library.
class Service final : public Number::CallbackService {
public:
    grpc::ServerUnaryReactor* Set(grpc::CallbackServerContext* context, Value const* wanted, Value* stored) override {
        value_ = wanted->value();
        stored->set_value(wanted->value());
        auto* const reactor = context->DefaultReactor();
        reactor->Finish(grpc::Status::OK);
        return reactor;
    }

private:
    std::atomic<std::uint32_t> value_ = 0;
};

class GrpcOwner final : public Owner {
public:
    explicit GrpcOwner(std::string const& path) {
        grpc::ServerBuilder builder;
        builder.AddListeningPort("unix:" + path, grpc::InsecureServerCredentials());
        builder.RegisterService(&service_);
        server_ = builder.BuildAndStart();
        if (!server_) throw Failure("gRPC: no server");
    }
    ~GrpcOwner() override { server_->Shutdown(); }
    void serve(Nanoseconds time) override { sleepUntil(now() + time); }

private:
    Service service_;
    std::unique_ptr<grpc::Server> server_;
};

class GrpcWriter final : public Writer {
public:
    explicit GrpcWriter(std::string const& path)
        : channel_(grpc::CreateChannel("unix:" + path, grpc::InsecureChannelCredentials())),
          stub_(Number::NewStub(channel_)) {}
    ~GrpcWriter() override { queue_.Shutdown(); }

    void ask(std::uint32_t value) override {
        auto call = std::make_unique<Call>();
        call->wanted = value;
        request_.set_value(value);
        call->reader = stub_->AsyncSet(&call->context, request_, &queue_);
        Call& asked = *call;
        asked.reader->Finish(&asked.stored, &asked.status, call.release());
    }
    void await(std::uint64_t answers, Deadline const& deadline) override {
        for (; answers_ < answers; ++answers_) {
            void* tag = nullptr;
            bool isGood = false;
            auto const until = std::chrono::system_clock::now() + std::chrono::nanoseconds(deadline.left());
            if (queue_.AsyncNext(&tag, &isGood, until) != grpc::CompletionQueue::GOT_EVENT)
                throw Failure("gRPC: no answer");
            std::unique_ptr<Call> const call(static_cast<Call*>(tag));
            check(call->status, call->stored, call->wanted);
        }
    }
    // A call that waits, as most programs make it.
    void change(std::uint32_t value, Deadline const&) override {
        grpc::ClientContext context;
        request_.set_value(value);
        check(stub_->Set(&context, request_, &reply_), reply_, value);
    }
    std::uint32_t stored(Deadline const&) override { return last_; }

private:
    struct Call {
        grpc::ClientContext context;
        Value stored;
        grpc::Status status;
        std::unique_ptr<grpc::ClientAsyncResponseReader<Value>> reader;
        std::uint32_t wanted = 0;
    };

    void check(grpc::Status const& status, Value const& stored, std::uint32_t wanted) {
        if (!status.ok()) throw Failure("gRPC: " + status.error_message());
        if (stored.value() != wanted) throw Failure("gRPC: another value than was sent");
        last_ = std::max(last_, wanted);
    }

    std::shared_ptr<grpc::Channel> channel_;
    std::unique_ptr<Number::Stub> stub_;
    grpc::CompletionQueue queue_;
    Value request_, reply_;
    std::uint64_t answers_ = 0;
    std::uint32_t last_ = 0;
};

class GrpcContestant final : public WriteContestant {
public:
    std::string name() const override { return "gRPC"; }
    std::unique_ptr<Owner> owner() override { return std::make_unique<GrpcOwner>(socket()); }
    std::unique_ptr<Writer> writer() override { return std::make_unique<GrpcWriter>(socket()); }
};

}  // namespace

std::unique_ptr<WriteContestant> grpcContestant() { return std::make_unique<GrpcContestant>(); }

}  // namespace Bench
