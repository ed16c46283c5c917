// Calls over gRPC with raw byte buffers. One call is one exchange on a completion queue: its own
// for a synchronous call, the framework's for an asynchronous one.
#include "host/rpc_framework.hpp"

#include <absl/status/status.h>
#include <fmt/core.h>
#include <grpc/slice.h>
#include <grpcpp/channel.h>
#include <grpcpp/completion_queue.h>
#include <grpcpp/support/slice.h>
#include <kel_sys_diag/rpc.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <semaphore>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>

#include "host/channels.hpp"
#include "host/encoding.hpp"
#include "host/exchange.hpp"
#include "host/field_text.hpp"

namespace kel::host {
namespace {

std::atomic<bool> compactAlways = false;

// What gRPC or the server said of this thread's last call, if it failed: as much as has room, since
// keeping it must not fail.
class LastWords {
 public:
  void keep(std::string_view words) {
    size_ = startOf(words, kept_.size()).copy(kept_.data(), kept_.size());
  }
  [[nodiscard]] std::string_view kept() const { return {kept_.data(), size_}; }

 private:
  std::array<char, 300> kept_{};
  size_t size_ = 0;
};
thread_local constinit LastWords lastWords;

struct Invoker {
  std::string target;  // empty: the address record holds none
  std::chrono::milliseconds deadline;
};

struct Failure {
  RpcResult result;
};

int32_t conclude(Exchange& call, void* output, const IdlCodecOps& ops) {
  const auto said = call.said();
  lastWords.keep(said ? said.get() : "");
  return call.decodeInto(output, ops);
}

// For callers that wait in company: the thread that takes the ends of their operations is awake
// already, and wakes each only for the last one.
struct SyncCall : Exchange {
  // May be destroyed while release() is still at work: what it wakes by then is an address.
  std::binary_semaphore over{0};
};

// Counts its owner among others for as long as it lives.
class Presence {
 public:
  explicit Presence(std::atomic<int>& count) : first(count.fetch_add(1) == 0), count_(count) {}
  ~Presence() { --count_; }
  Presence(const Presence&) = delete;
  Presence& operator=(const Presence&) = delete;

  const bool first;  // nobody else was there

 private:
  std::atomic<int>& count_;
};

// What has to outlive the stub of an asynchronous call.
struct AsyncCall : Exchange {
  AsyncCall(const IdlCodecOps& codecs, const IdlAsyncInfo& info)
      : ops(codecs),
        completion(reinterpret_cast<Completion>(info.userArg1)),
        context(info.userArg2),
        output(new std::byte[info.outputSize]()) {}

  void complete() {
    const int32_t result = conclude(*this, output.get(), ops);
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
    std::call_once(completing_, [this] { startCompleting(); });
    call->prepare(channelTo(invoker.target), queue_, path, request, invoker.deadline);
    {
      const std::scoped_lock lock(mutex_);
      ++pending_;
    }
    call.release()->send();  // to run()
  }

  int32_t callAndWait(const Invoker& invoker, const std::string& path, const grpc::Slice& request,
                      void* output, const IdlCodecOps& ops) {
    const std::shared_ptr<grpc::Channel> channel = channelTo(invoker.target);
    SyncCall call;
    {
      const Presence among(waiting_);
      if (among.first) {
        call.prepare(channel, firstWaitsFor_, path, request, invoker.deadline);
        call.send();
        Exchange::nextEnded(firstWaitsFor_);
      } else {
        call.prepare(channel, waitedFor_, path, request, invoker.deadline);
        if (Exchange* const ended = call.sendAndTakeEnd(waitedFor_)) {
          wake(*ended);
        }
        call.over.acquire();
      }
    }
    return conclude(call, output, ops);
  }

  void waitForCompletions() {
    std::unique_lock lock(mutex_);
    idle_.wait(lock, [this] { return pending_ == 0; });
  }

  // A channel that failed to connect answers for its back-off time with that failure, whether the
  // server is there again or not. A new one waits for the next attempt, which is made at once. With
  // several servers that is only so when none of them can be reached.
  std::shared_ptr<grpc::Channel> channelTo(const std::string& target) {
    const std::scoped_lock lock(mutex_);
    Route& route = routes_[target];
    if (route.channel == nullptr) {
      route.channel = open(target);
    } else if (route.channel->GetState(false) == GRPC_CHANNEL_TRANSIENT_FAILURE) {
      grpc::experimental::ChannelResetConnectionBackoff(route.channel.get());
      route.former = std::exchange(route.channel, open(target));
    }
    return route.channel;
  }

  void configure(const CallSettings& settings) {
    ChannelFactory factory(settings);
    const std::scoped_lock lock(mutex_);
    factory_ = std::move(factory);
    routes_.clear();
  }

 private:
  // Channels to one target share their connections. gRPC 1.51 never closes one whose last channel
  // is given up between the connecting and the server's greeting, so that a channel stays until the
  // one after its successor is there.
  struct Route {
    std::shared_ptr<grpc::Channel> channel;
    std::shared_ptr<grpc::Channel> former;
  };

  std::shared_ptr<grpc::Channel> open(const std::string& target) {
    if (target.empty()) {
      throw Failure{kNoTarget};
    }
    std::shared_ptr<grpc::Channel> channel = factory_.open(target);
    if (channel == nullptr) {
      throw Failure{kNotProtected};
    }
    if (channel->GetState(false) != GRPC_CHANNEL_IDLE) {  // which every one is at first
      throw Failure{kNoTarget};
    }
    return channel;
  }

  // Few, because completions are short; more than one, so that a slow one does not stop the rest.
  static constexpr int kThreads = 2;

  // This thread runs even if there are no calls: its polling is what notices between two of them
  // that a server has gone.
  Engine() {
    std::thread([this] { wakeCallers(); }).detach();
  }

  // Only for programs that need them, since every thread that polls may be woken for nothing.
  void startCompleting() {
    for (int i = 0; i < kThreads; ++i) {
      std::thread([this] { run(); }).detach();
    }
  }

  void run() {
    for (;;) {
      auto& call = static_cast<AsyncCall&>(Exchange::nextEnded(queue_));
      call.complete();
      delete &call;
      forget();
    }
  }

  void wakeCallers() {
    for (;;) {
      wake(Exchange::nextEnded(waitedFor_));
    }
  }

  static void wake(Exchange& ended) { static_cast<SyncCall&>(ended).over.release(); }

  void forget() {
    const std::scoped_lock lock(mutex_);
    if (--pending_ == 0) {
      idle_.notify_all();
    }
  }

  grpc::CompletionQueue queue_;
  grpc::CompletionQueue firstWaitsFor_;  // no caller's but that of the first of waiting_
  grpc::CompletionQueue waitedFor_;
  std::atomic<int> waiting_ = 0;  // synchronous calls
  std::mutex mutex_;
  std::condition_variable idle_;
  size_t pending_ = 0;
  std::once_flag completing_;
  // gRPC sets up with the first channel what they all share, and gives it up with the last. Setting
  // it up ends the process when there is no descriptor left. So one channel, which never connects,
  // is there from the start.
  const std::shared_ptr<grpc::Channel> first_ = ChannelFactory().open("unix:/");
  ChannelFactory factory_;
  std::map<std::string, Route> routes_;
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

// The handle of a call that follows.
std::unique_ptr<Invoker> claim(void* handle) {
  std::unique_ptr<Invoker> invoker(static_cast<Invoker*>(handle));
  if (invoker == nullptr) {
    throw Failure{kNoInvoker};
  }
  return invoker;
}

// The library between this framework and the caller knows no exceptions.
template <class Body>
int32_t guarded(const Body& body) {
  int32_t result = kNoMemory;
  try {
    return body();
  } catch (const Failure& failure) {
    result = failure.result;
  } catch (const std::bad_alloc&) {
  } catch (const std::system_error&) {  // no thread is to be had
  }
  lastWords.keep({});  // of a call that has ended before this one failed to begin
  return result;
}

}  // namespace

std::string describe(int32_t result) {
  switch (result) {
    case kOk:
      return "the call succeeded";
    case kNoInvoker:
      return "no call could be prepared, for want of memory or of a server address record";
    case kNoTarget:
      return "there is no target, or none that gRPC takes";
    case kBadArgument:
      return "the call lacks an output record or a completion function";
    case kRequestNotPacked:
      return "the request could not be encoded";
    case kNoMemory:
      return "there is not enough memory for the call, or no thread";
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
    case kNotSent:
      return "the deadline passed before the request had left";
    default:
      break;
  }
  if (result >= kGrpcStatus) {
    const int32_t code = result - kGrpcStatus;
    const std::string name = absl::StatusCodeToString(static_cast<absl::StatusCode>(code));
    return fmt::format("the call failed with gRPC status {} ({})", code,
                       name.empty() ? "of a kind not known here" : name);
  }
  return fmt::format("the call failed with the unknown result {}", result);
}

std::string explain(int32_t result) {
  const std::string words = shown(lastWords.kept());
  return words.empty() ? describe(result) : fmt::format("{} ({})", describe(result), words);
}

void waitForCompletions() { Engine::instance().waitForCompletions(); }

void setTarget(RpcServerAddr& address, const std::string& target) {
  if (target.size() >= sizeof(address.endpoint)) {
    throw std::runtime_error(fmt::format("the target is too long: an address record holds {} bytes",
                                         sizeof(address.endpoint) - 1));
  }
  std::memset(address.endpoint, 0, sizeof(address.endpoint));
  std::ranges::copy(target, address.endpoint);
}

void configureCalls(const CallSettings& settings) { Engine::instance().configure(settings); }

void checkTarget(const std::string& target) {
  const int32_t result = guarded([&] {
    Engine::instance().channelTo(target);
    return kOk;
  });
  if (result != kOk) {
    throw std::runtime_error(fmt::format("cannot call {}: {}", target, describe(result)));
  }
}

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
      throw Failure{kBadArgument};
    }
    const grpc::Slice request = encode(*ops, input);
    return Engine::instance().callAndWait(*call, pathOf(*method), request, output, *ops);
  });
}

int32_t RPC_IdlAsyncCallStub(void* invoker, const void* input, const IdlMethodRef* method,
                             const IdlCodecOps* ops, const IdlAsyncInfo* info) {
  return guarded([&]() -> int32_t {
    const std::unique_ptr<Invoker> call = claim(invoker);
    if (info->userArg1 == 0) {
      throw Failure{kBadArgument};
    }
    const grpc::Slice request = encode(*ops, input);
    Engine::instance().start(std::make_unique<AsyncCall>(*ops, *info), *call, pathOf(*method),
                             request);
    return kOk;
  });
}
