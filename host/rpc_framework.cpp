// Calls over gRPC with raw byte buffers. One call is one strictly sequential exchange on a
// completion queue: the caller's own for a synchronous call, the framework's for an asynchronous
// one.
#include "host/rpc_framework.hpp"

#include <fmt/core.h>
#include <grpcpp/generic/generic_stub.h>
#include <grpcpp/grpcpp.h>
#include <kel_sys_diag/rpc.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <string_view>
#include <thread>
#include <utility>

#include "host/channels.hpp"
#include "host/encoding.hpp"
#include "host/hand_over.hpp"

namespace kel::host {
namespace {

std::atomic<bool> compactAlways = false;

struct Invoker {
  std::string target;  // empty: the address record holds none
  std::chrono::milliseconds deadline;
};

struct Failure {
  RpcResult result;
};

// One request and its reply. Each step starts exactly one operation, and touches nothing any more
// once it has; the operation's end calls for the next step, on whichever thread.
class Exchange {
 public:
  // The tag comes back from the queue once for every step.
  void start(const std::shared_ptr<grpc::Channel>& channel, grpc::CompletionQueue& queue, void* tag,
             const std::string& path, const grpc::Slice& request,
             std::chrono::milliseconds deadline) {
    channel_ = channel;
    tag_ = tag;
    context_.set_deadline(gpr_time_add(gpr_now(GPR_CLOCK_MONOTONIC),
                                       gpr_time_from_millis(deadline.count(), GPR_TIMESPAN)));
    // The request then travels with the call's head as one operation, whose end says whether it
    // has left.
    context_.set_initial_metadata_corked(true);
    stream_ = grpc::GenericStub(channel).PrepareCall(&context_, path, &queue);
    stream_->StartCall(nullptr);
    handOverTo([&request](auto& stream, void* written) {
      stream.WriteLast(grpc::ByteBuffer(&request, 1), grpc::WriteOptions(), written);
    });
  }

  // Takes the end of one operation and starts the next. Says whether there was none left to start.
  bool advance(bool succeeded) {
    handOver();
    switch (step_) {
      case Step::write:
        sent_ = succeeded;
        succeeded ? read(Step::readReply, reply_) : finish();
        return false;
      case Step::readReply:
        // A call has one reply, yet its end is only known when reading has found it.
        succeeded ? read(Step::readOn, surplus_) : finish();
        return false;
      case Step::readOn:
        if (succeeded) {
          overrun_ = true;
          context_.TryCancel();
        }
        finish();
        return false;
      case Step::finish:
        return true;
    }
    return true;
  }

  // Once advance has returned true.
  int32_t decodeInto(void* output, const IdlCodecOps& ops) {
    if (overrun_) {
      return kTooManyReplies;
    }
    if (!status_.ok()) {
      return failure();
    }
    if (reply_.Length() == 0) {
      return kReplyEmpty;
    }
    grpc::Slice bytes;  // shares the received block; only a reply in pieces has to be joined
    if (!reply_.TrySingleSlice(&bytes).ok() && !reply_.DumpToSingleSlice(&bytes).ok()) {
      return kReplyNotDecoded;
    }
    return ops.unpackFn(bytes.begin(), static_cast<uint32_t>(bytes.size()), output) != 0
               ? kOk
               : kReplyNotDecoded;
  }

 private:
  enum class Step : uint8_t { write, readReply, readOn, finish };

  void read(Step step, grpc::ByteBuffer& into) {
    step_ = step;
    handOverTo([&into](auto& stream, void* tag) { stream.Read(&into, tag); });
  }

  void finish() {
    step_ = Step::finish;
    handOverTo([status = &status_](auto& stream, void* tag) { stream.Finish(status, tag); });
  }

  // From the hand-over on, this object is the next step's.
  template <class Start>
  void handOverTo(const Start& start) {
    grpc::GenericClientAsyncReaderWriter& stream = *stream_;
    void* const tag = tag_;
    handOver();
    start(stream, tag);
  }

  [[nodiscard]] int32_t failure() const {
    switch (status_.error_code()) {
      case grpc::StatusCode::UNAVAILABLE:
        return sent_ ? kConnectionLost : kUnreachable;
      case grpc::StatusCode::CANCELLED:  // by a server that stops
        return kConnectionLost;
      case grpc::StatusCode::DEADLINE_EXCEEDED:
        return kDeadlinePassed;
      case grpc::StatusCode::INVALID_ARGUMENT:
        return kRequestRejected;
      case grpc::StatusCode::UNIMPLEMENTED:
        return kMethodUnknown;
      case grpc::StatusCode::RESOURCE_EXHAUSTED:
        return kTooLarge;
      case grpc::StatusCode::PERMISSION_DENIED:
        return kNotPermitted;
      default:
        return kGrpcStatus + static_cast<int32_t>(status_.error_code());
    }
  }

  // To be given up after the context, and so not by gRPC's code, into which a race detector cannot
  // see.
  std::shared_ptr<grpc::Channel> channel_;
  grpc::ClientContext context_;
  std::unique_ptr<grpc::GenericClientAsyncReaderWriter> stream_;
  void* tag_ = nullptr;
  Step step_ = Step::write;
  bool sent_ = false;
  bool overrun_ = false;
  grpc::ByteBuffer reply_;
  grpc::ByteBuffer surplus_;
  grpc::Status status_;
};

// What has to outlive the stub of an asynchronous call.
struct AsyncCall {
  explicit AsyncCall(const IdlCodecOps& codecs, const IdlAsyncInfo& info)
      : ops(codecs),
        completion(reinterpret_cast<Completion>(info.userArg1)),
        context(info.userArg2),
        output(new std::byte[info.outputSize]()) {}

  void complete() {
    const int32_t result = exchange.decodeInto(output.get(), ops);
    if (result != kOk) {
      completion(result, nullptr, context);
      return;
    }
    completion(result, output.get(), context);
    ops.releaseFn(output.get());
  }

  IdlCodecOps ops;
  Completion completion;
  uintptr_t context;
  std::unique_ptr<std::byte[]> output;
  Exchange exchange;
};

// What all calls share. Lives until the process ends, since its threads may still be at work when
// static objects are destroyed.
class Engine {
 public:
  static Engine& instance() {
    static Engine& engine = *new Engine;
    return engine;
  }

  void start(std::unique_ptr<AsyncCall> call, const Invoker& invoker, const std::string& path,
             const grpc::Slice& request) {
    const std::shared_ptr<grpc::Channel> channel = channelTo(invoker.target);
    {
      const std::scoped_lock lock(mutex_);
      ++pending_;
    }
    AsyncCall* const started = call.release();  // to run()
    started->exchange.start(channel, queue_, started, path, request, invoker.deadline);
  }

  void waitForCompletions() {
    std::unique_lock lock(mutex_);
    idle_.wait(lock, [this] { return pending_ == 0; });
  }

  // A channel that failed to connect answers for its back-off time with that failure, whether the
  // server is there again or not. A new one tries at once. With several servers that is only so
  // when none of them can be reached.
  std::shared_ptr<grpc::Channel> channelTo(const std::string& target) {
    const std::scoped_lock lock(mutex_);
    std::shared_ptr<grpc::Channel>& channel = channels_[target];
    if (channel == nullptr || channel->GetState(false) == GRPC_CHANNEL_TRANSIENT_FAILURE) {
      channel = factory_.open(target);
      if (channel == nullptr) {
        throw Failure{kNotProtected};
      }
    }
    return channel;
  }

  void configure(const CallSettings& settings) {
    ChannelFactory factory(settings);
    const std::scoped_lock lock(mutex_);
    factory_ = std::move(factory);
    channels_.clear();
  }

 private:
  // Few, because completions are short; more than one, so that a slow one does not stop the rest.
  static constexpr int kThreads = 2;

  // The threads run even if no call is asynchronous: their polling is what notices between two
  // calls that a server has gone.
  Engine() {
    for (int i = 0; i < kThreads; ++i) {
      std::thread([this] { run(); }).detach();
    }
  }

  void run() {
    void* tag = nullptr;
    bool succeeded = false;
    while (queue_.Next(&tag, &succeeded)) {
      auto* const call = static_cast<AsyncCall*>(tag);
      if (call->exchange.advance(succeeded)) {
        call->complete();
        delete call;
        forget();
      }
    }
  }

  void forget() {
    const std::scoped_lock lock(mutex_);
    if (--pending_ == 0) {
      idle_.notify_all();
    }
  }

  grpc::CompletionQueue queue_;
  std::mutex mutex_;
  std::condition_variable idle_;
  size_t pending_ = 0;
  // gRPC sets up with the first channel what they all share, and gives it up with the last. Setting
  // it up ends the process when there is no descriptor left. So one channel, which never connects,
  // is there from the start.
  const std::shared_ptr<grpc::Channel> first_ = ChannelFactory().open("unix:/");
  ChannelFactory factory_;
  std::map<std::string, std::shared_ptr<grpc::Channel>> channels_;
};

grpc::Slice encode(const IdlCodecOps& ops, const void* input) {
  if (input == nullptr) {
    throw Failure{kRequestNotPacked};
  }
  const Encoding encoding(ops, input, compactAlways.load(std::memory_order_relaxed));
  if (encoding.size() == 0) {
    throw Failure{kRequestNotPacked};
  }
  grpc::Slice slice(grpc_slice_malloc(encoding.size()), grpc::Slice::STEAL_REF);
  if (!encoding.writeTo(const_cast<uint8_t*>(slice.begin()))) {
    throw Failure{kRequestNotPacked};
  }
  return slice;
}

std::string pathOf(const IdlMethodRef& method) {
  return fmt::format("/{}/{}", method.serviceName, method.methodName);
}

// The handle of a call that follows, or the reason why there can be none.
std::unique_ptr<Invoker> claim(void* handle) {
  std::unique_ptr<Invoker> invoker(static_cast<Invoker*>(handle));
  if (invoker == nullptr) {
    throw Failure{kNoInvoker};
  }
  if (invoker->target.empty()) {
    throw Failure{kNoTarget};
  }
  return invoker;
}

// The library between this framework and the caller knows no exceptions.
template <class Body>
int32_t guarded(const Body& body) {
  try {
    return body();
  } catch (const Failure& failure) {
    return failure.result;
  } catch (const std::bad_alloc&) {
    return kNoMemory;
  }
}

std::string_view statusName(int32_t code) {
  static constexpr std::array<std::string_view, 17> kNames = {"OK",
                                                              "CANCELLED",
                                                              "UNKNOWN",
                                                              "INVALID_ARGUMENT",
                                                              "DEADLINE_EXCEEDED",
                                                              "NOT_FOUND",
                                                              "ALREADY_EXISTS",
                                                              "PERMISSION_DENIED",
                                                              "RESOURCE_EXHAUSTED",
                                                              "FAILED_PRECONDITION",
                                                              "ABORTED",
                                                              "OUT_OF_RANGE",
                                                              "UNIMPLEMENTED",
                                                              "INTERNAL",
                                                              "UNAVAILABLE",
                                                              "DATA_LOSS",
                                                              "UNAUTHENTICATED"};
  const auto index = static_cast<size_t>(code);
  return index < kNames.size() ? kNames[index] : "of a kind not known here";
}

}  // namespace

std::string describe(int32_t result) {
  switch (result) {
    case kOk:
      return "the call succeeded";
    case kNoInvoker:
      return "no call could be prepared, for want of memory or of a server address record";
    case kNoTarget:
      return "the server address record holds no target";
    case kBadArgument:
      return "the call lacks an output record or a completion function";
    case kRequestNotPacked:
      return "the request could not be encoded";
    case kNoMemory:
      return "there is not enough memory for the call";
    case kUnreachable:
      return "the server cannot be reached; the request has not left";
    case kConnectionLost:
      return "the connection was lost, or the server stopped, after the request had been sent";
    case kDeadlinePassed:
      return "the deadline passed before the reply was complete";
    case kReplyEmpty:
      return "the server's reply is empty";
    case kReplyNotDecoded:
      return "the server's reply could not be decoded";
    case kTooManyReplies:
      return "the server sent more than one reply";
    case kRequestRejected:
      return "the server could not decode the request";
    case kMethodUnknown:
      return "the server does not know the method";
    case kTooLarge:
      return "the request or the reply is too large, or the server is out of means";
    case kNotProtected:
      return "the target is no Unix socket, and neither mutual TLS (--tls-ca, --tls-certificate, "
             "--tls-key) nor --insecure-plain-tcp has been asked for";
    case kNotPermitted:
      return "the server does not let this caller call the method";
    default:
      break;
  }
  if (result >= kGrpcStatus) {
    const int32_t code = result - kGrpcStatus;
    return fmt::format("the call failed with gRPC status {} ({})", code, statusName(code));
  }
  return fmt::format("the call failed with the unknown result {}", result);
}

void waitForCompletions() { Engine::instance().waitForCompletions(); }

void configureCalls(const CallSettings& settings) { Engine::instance().configure(settings); }

void setCompactAlways(bool compact) { compactAlways = compact; }

}  // namespace kel::host

using namespace kel::host;

void* RPC_GetRpcInvoke(RpcServerAddr* server, uintptr_t invokeArg) {
  if (server == nullptr) {
    return nullptr;
  }
  const auto* const text = reinterpret_cast<const char*>(server->endpoint);
  const size_t length = strnlen(text, sizeof(server->endpoint));
  const bool terminated = length < sizeof(server->endpoint);
  const auto longest = static_cast<uintptr_t>(kLongestDeadline.count());
  const auto deadline =
      invokeArg == 0 ? kDefaultDeadline : std::chrono::milliseconds(std::min(invokeArg, longest));
  try {
    return new Invoker{terminated ? std::string(text, length) : std::string(), deadline};
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

int32_t RPC_IdlSyncCallStub(void* invoker, const void* input, void* output,
                            const IdlMethodRef* method, const IdlCodecOps* ops) {
  return guarded([&]() -> int32_t {
    const std::unique_ptr<Invoker> call = claim(invoker);
    if (output == nullptr) {
      return kBadArgument;
    }
    const grpc::Slice request = encode(*ops, input);
    grpc::CompletionQueue queue;
    Exchange exchange;
    exchange.start(Engine::instance().channelTo(call->target), queue, &exchange, pathOf(*method),
                   request, call->deadline);
    void* tag = nullptr;
    bool succeeded = false;
    while (queue.Next(&tag, &succeeded) && !exchange.advance(succeeded)) {
    }
    queue.Shutdown();
    while (queue.Next(&tag, &succeeded)) {
    }
    return exchange.decodeInto(output, *ops);
  });
}

int32_t RPC_IdlAsyncCallStub(void* invoker, const void* input, const IdlMethodRef* method,
                             const IdlCodecOps* ops, const IdlAsyncInfo* info) {
  return guarded([&]() -> int32_t {
    const std::unique_ptr<Invoker> call = claim(invoker);
    if (info->userArg1 == 0) {
      return kBadArgument;
    }
    const grpc::Slice request = encode(*ops, input);
    Engine::instance().start(std::make_unique<AsyncCall>(*ops, *info), *call, pathOf(*method),
                             request);
    return kOk;
  });
}
