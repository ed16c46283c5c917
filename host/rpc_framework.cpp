// Calls over gRPC with raw byte buffers. One call is one exchange on a completion queue: its own
// for a synchronous call, the framework's for an asynchronous one.
#include "host/rpc_framework.hpp"

#include <fmt/core.h>
#include <grpc/byte_buffer.h>
#include <grpc/byte_buffer_reader.h>
#include <grpc/grpc.h>
#include <grpc/slice.h>
#include <grpc/support/alloc.h>
#include <grpcpp/generic/generic_stub.h>
#include <grpcpp/grpcpp.h>
#include <kel_sys_diag/rpc.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <semaphore>
#include <span>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>

#include "host/channels.hpp"
#include "host/encoding.hpp"
#include "host/field_text.hpp"
#include "host/hand_over.hpp"

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

// One request and its reply. Operations that need not wait for each other do not; they end in any
// order, on any thread, even two at the same time.
//
// gRPC's C interface, because the C++ classes for a single reply would wait for the deadline if
// there were another one, and those for streams give every operation an end of its own.
class Exchange {
 public:
  Exchange() {
    grpc_metadata_array_init(&head_);
    grpc_metadata_array_init(&trailer_);
  }
  ~Exchange() {
    grpc_byte_buffer_destroy(request_);
    grpc_byte_buffer_destroy(reply_);
    grpc_byte_buffer_destroy(surplus_);
    grpc_slice_unref(detail_);
    grpc_metadata_array_destroy(&trailer_);
    grpc_metadata_array_destroy(&head_);
  }
  Exchange(const Exchange&) = delete;
  Exchange& operator=(const Exchange&) = delete;

  void prepare(const std::shared_ptr<grpc::Channel>& channel, grpc::CompletionQueue& queue,
               const std::string& path, const grpc::Slice& request,
               std::chrono::milliseconds deadline) {
    channel_ = channel;
    context_.set_deadline(gpr_time_add(gpr_now(GPR_CLOCK_MONOTONIC),
                                       gpr_time_from_millis(deadline.count(), GPR_TIMESPAN)));
    stream_ = grpc::GenericStub(channel).PrepareCall(&context_, path, &queue);
    grpc_slice bytes = request.c_slice();
    request_ = grpc_raw_byte_buffer_create(&bytes, 1);
    grpc_slice_unref(bytes);
  }

  // Once it has been prepared. From then on this is those who take the ends.
  void send() noexcept {
    std::array<grpc_op, 2> reply{};
    reply[0].op = GRPC_OP_RECV_INITIAL_METADATA;
    reply[0].data.recv_initial_metadata.recv_initial_metadata = &head_;
    reply[1] = receiving(reply_);
    begin(replied_, reply);

    std::array<grpc_op, 3> message{};
    message[0].op = GRPC_OP_SEND_INITIAL_METADATA;
    message[1].op = GRPC_OP_SEND_MESSAGE;
    message[1].data.send_message.send_message = request_;
    message[2].op = GRPC_OP_SEND_CLOSE_FROM_CLIENT;
    begin(written_, message);
  }

  static Exchange& of(const grpc_event& end) { return *static_cast<Operation*>(end.tag)->exchange; }

  // Takes the end of one operation. Says whether there is none left, and so nobody else here.
  bool advance(const grpc_event& end) {
    if (end.tag == &written_) {
      sent_ = end.success != 0;
    } else if (end.tag == &replied_) {
      awaitEnd();
    } else if (end.tag == &readOn_ && surplus_ != nullptr) {
      context_.TryCancel();
    }
    handOver();
    return --left_ == 0;
  }

  // Once advance has returned true.
  int32_t decodeInto(void* output, const IdlCodecOps& ops) {
    lastWords.keep(status() == GRPC_STATUS_OK ? "" : said().get());
    if (surplus_ != nullptr) {
      return kTooManyReplies;
    }
    if (status() != GRPC_STATUS_OK) {
      return failure();
    }
    if (reply_ == nullptr || grpc_byte_buffer_length(reply_) == 0) {
      return kReplyEmpty;
    }
    const grpc::Slice bytes = received();
    return ops.unpackFn(bytes.begin(), static_cast<uint32_t>(bytes.size()), output) != 0
               ? kOk
               : kReplyNotDecoded;
  }

 private:
  // Its address is what the queue gives back.
  struct Operation {
    Exchange* exchange;
  };

  static grpc_op receiving(grpc_byte_buffer*& message) {
    grpc_op op{};
    op.op = GRPC_OP_RECV_MESSAGE;
    op.data.recv_message.recv_message = &message;
    return op;
  }

  void begin(Operation& operation, std::span<const grpc_op> ops) {
    handOver();
    if (grpc_call_start_batch(context_.c_call(), ops.data(), ops.size(), &operation, nullptr) !=
        GRPC_CALL_OK) {
      std::abort();  // these operations are always in order
    }
  }

  void awaitEnd() {
    left_ += reply_ == nullptr ? 1 : 2;
    // The end does not come before another reply has been read, if there is one.
    if (reply_ != nullptr) {
      const grpc_op more = receiving(surplus_);
      begin(readOn_, {&more, 1});
    }
    grpc_op status{};
    status.op = GRPC_OP_RECV_STATUS_ON_CLIENT;
    status.data.recv_status_on_client.trailing_metadata = &trailer_;
    status.data.recv_status_on_client.status = &status_;
    status.data.recv_status_on_client.status_details = &detail_;
    begin(ended_, {&status, 1});
  }

  // Shares the received block; only a reply in pieces has to be joined.
  [[nodiscard]] grpc::Slice received() const {
    const grpc_slice_buffer& pieces = reply_->data.raw.slice_buffer;
    if (pieces.count == 1) {
      return {pieces.slices[0], grpc::Slice::ADD_REF};
    }
    grpc_byte_buffer_reader reader;
    grpc_byte_buffer_reader_init(&reader, reply_);
    grpc::Slice joined(grpc_byte_buffer_reader_readall(&reader), grpc::Slice::STEAL_REF);
    grpc_byte_buffer_reader_destroy(&reader);
    return joined;
  }

  // Copied by gRPC: it may be another thread's text, handed over where a race detector cannot see.
  [[nodiscard]] std::unique_ptr<char, void (*)(void*)> said() const {
    return {grpc_slice_to_c_string(detail_), gpr_free};
  }

  [[nodiscard]] int32_t failure() const {
    switch (status()) {
      case GRPC_STATUS_UNAVAILABLE:
        return sent_ ? kConnectionLost : kUnreachable;
      case GRPC_STATUS_CANCELLED:  // by a server that stops
        return kConnectionLost;
      case GRPC_STATUS_DEADLINE_EXCEEDED:
        return sent_ ? kDeadlinePassed : kNotSent;
      case GRPC_STATUS_INVALID_ARGUMENT:
        return kRequestRejected;
      case GRPC_STATUS_UNIMPLEMENTED:
        return kMethodUnknown;
      case GRPC_STATUS_RESOURCE_EXHAUSTED:
        return kTooLarge;
      case GRPC_STATUS_PERMISSION_DENIED:
        return kNotPermitted;
      default:
        return kGrpcStatus + (isKnown(status()) ? status() : GRPC_STATUS_UNKNOWN);
    }
  }

  // A number, since gRPC hands on whatever the server has sent.
  [[nodiscard]] int32_t status() const {
    int32_t number = 0;
    std::memcpy(&number, &status_, sizeof number);
    return number;
  }
  static bool isKnown(int32_t status) {
    return status >= GRPC_STATUS_OK && status <= GRPC_STATUS_UNAUTHENTICATED;
  }

  // To be given up after the context, and so not by gRPC's code, into which a race detector cannot
  // see.
  std::shared_ptr<grpc::Channel> channel_;
  grpc::ClientContext context_;
  std::unique_ptr<grpc::GenericClientAsyncReaderWriter> stream_;
  Operation ended_{this};
  Operation replied_{this};
  Operation written_{this};
  Operation readOn_{this};
  std::atomic<int> left_ = 2;  // operations whose ends have not been taken
  bool sent_ = false;
  grpc_byte_buffer* request_ = nullptr;
  grpc_metadata_array head_;
  grpc_byte_buffer* reply_ = nullptr;
  grpc_byte_buffer* surplus_ = nullptr;
  grpc_metadata_array trailer_;
  grpc_status_code status_ = GRPC_STATUS_UNKNOWN;
  grpc_slice detail_ = grpc_empty_slice();
};

grpc_event next(grpc::CompletionQueue& queue) {
  const grpc_event end =
      grpc_completion_queue_next(queue.cq(), gpr_inf_future(GPR_CLOCK_MONOTONIC), nullptr);
  handOver();
  return end;
}

// For callers that wait in company: the thread that takes the ends of their operations is awake
// already, and wakes each only for the last one.
struct SyncCall : Exchange {
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
    const int32_t result = decodeInto(output.get(), ops);
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
        grpc::CompletionQueue own;
        call.prepare(channel, own, path, request, invoker.deadline);
        call.send();
        while (!call.advance(next(own))) {
        }
      } else {
        call.prepare(channel, waitedFor_, path, request, invoker.deadline);
        call.send();
        call.over.acquire();
      }
    }
    return call.decodeInto(output, ops);
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
      const grpc_event end = next(queue_);
      auto& call = static_cast<AsyncCall&>(Exchange::of(end));
      if (call.advance(end)) {
        call.complete();
        delete &call;
        forget();
      }
    }
  }

  void wakeCallers() {
    for (;;) {
      const grpc_event end = next(waitedFor_);
      auto& call = static_cast<SyncCall&>(Exchange::of(end));
      if (call.advance(end)) {
        call.over.release();
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
    return fmt::format("the call failed with gRPC status {} ({})", code, statusName(code));
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
