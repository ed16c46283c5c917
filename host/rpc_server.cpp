// The generic server on gRPC's callback interface: one reactor for every call, and threads of its
// own for the handler, so that slow ones keep nobody from being refused at once.
#include "host/rpc_server.hpp"

#include <fmt/core.h>
#include <grpcpp/generic/async_generic_service.h>
#include <grpcpp/grpcpp.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <exception>
#include <future>
#include <mutex>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>

#include "host/hand_over.hpp"
#include "host/listener.hpp"
#include "host/message_quota.hpp"
#include "host/time_limit.hpp"
#include "host/worker_pool.hpp"

namespace kel::host {
namespace {

grpc::StatusCode statusCode(AnswerStatus status) {
  switch (status) {
    case AnswerStatus::ok:
      return grpc::StatusCode::OK;
    case AnswerStatus::badRequest:
      return grpc::StatusCode::INVALID_ARGUMENT;
    case AnswerStatus::notFound:
      return grpc::StatusCode::NOT_FOUND;
    case AnswerStatus::unknownMethod:
      return grpc::StatusCode::UNIMPLEMENTED;
    case AnswerStatus::replyLost:
      return grpc::StatusCode::DATA_LOSS;
    case AnswerStatus::internal:
      break;
  }
  return grpc::StatusCode::INTERNAL;
}

Answer answerTo(const RequestHandler& handler, const std::string& path,
                const grpc::ByteBuffer& request) {
  grpc::Slice bytes;
  if (request.Length() != 0 && !request.TrySingleSlice(&bytes).ok() &&
      !request.DumpToSingleSlice(&bytes).ok()) {
    return {AnswerStatus::badRequest, "the request cannot be read", {}};
  }
  try {
    return handler(path, {bytes.begin(), bytes.size()});
  } catch (const std::exception& error) {
    return {AnswerStatus::internal, error.what(), {}};
  } catch (...) {
    return {AnswerStatus::internal, "the handler failed", {}};
  }
}

Peer peerOf(const grpc::ServerContextBase& context, bool local) {
  Peer peer{local, {}};
  const auto identity = context.auth_context();
  if (identity != nullptr && identity->IsPeerAuthenticated()) {
    for (const grpc::string_ref& name : identity->GetPeerIdentity()) {
      if (!name.empty()) {  // which stands for none at all
        peer.names.emplace_back(name.data(), name.size());
      }
    }
  }
  return peer;
}

gpr_timespec after(std::chrono::milliseconds time) {
  return gpr_time_add(gpr_now(GPR_CLOCK_MONOTONIC),
                      gpr_time_from_millis(time.count(), GPR_TIMESPAN));
}

int milliseconds(std::chrono::milliseconds time) { return static_cast<int>(time.count()); }

}  // namespace

class RpcServer::Running final : public grpc::CallbackGenericService {
 public:
  Running(const std::string& target, RequestHandler handler, ServerOptions options)
      : handler_(std::move(handler)),
        options_(std::move(options)),
        local_(isUnixSocket(target)),
        timeLimit_(options_.limits.longestCall) {
    const auto credentials = serverCredentials(target, options_.security);
    listener_ = std::make_unique<Listener>(target);
    const ServerLimits& limits = options_.limits;
    grpc::ServerBuilder builder;
    acceptor_ = builder.experimental().AddExternalConnectionAcceptor(
        grpc::ServerBuilder::experimental_type::ExternalConnectionType::FROM_FD, credentials);
    builder.RegisterCallbackGenericService(this);
    builder.SetMaxReceiveMessageSize(static_cast<int>(limits.messageBytes));
    builder.SetMaxSendMessageSize(static_cast<int>(limits.messageBytes));
    builder.SetResourceQuota(*messageQuota(limits.calls, limits.messageBytes));
    builder.AddChannelArgument(GRPC_ARG_SERVER_HANDSHAKE_TIMEOUT_MS,
                               milliseconds(limits.handshake));
    builder.AddChannelArgument(GRPC_ARG_KEEPALIVE_TIME_MS, milliseconds(limits.keepalive));
    builder.AddChannelArgument(GRPC_ARG_KEEPALIVE_TIMEOUT_MS, milliseconds(limits.keepalive));
    builder.AddChannelArgument(GRPC_ARG_KEEPALIVE_PERMIT_WITHOUT_CALLS, 1);
    // Clients may look for signs of life as often as that too.
    builder.AddChannelArgument(GRPC_ARG_HTTP2_MIN_RECV_PING_INTERVAL_WITHOUT_DATA_MS,
                               milliseconds(limits.keepalive) / 4);
    // Enough to be refused by the sentence that names the limit; a peer that goes on without
    // waiting for it is held up by HTTP/2.
    builder.AddChannelArgument(GRPC_ARG_MAX_CONCURRENT_STREAMS, static_cast<int>(2 * limits.calls));
    // Messages are never compressed here, and one that is could grow beyond the limit.
    builder.AddChannelArgument(GRPC_ARG_ENABLE_PER_MESSAGE_DECOMPRESSION, 0);
    handOver();
    server_ = builder.BuildAndStart();
    if (server_ == nullptr) {
      throw std::runtime_error(
          fmt::format("cannot listen on {}: gRPC refuses to serve there", listener_->target()));
    }
    listener_->start([this](int connection) {
      grpc::experimental::ExternalConnectionAcceptor::NewConnectionParameters parameters;
      parameters.fd = connection;
      acceptor_->HandleNewConnection(&parameters);
    });
  }

  grpc::ServerGenericBidiReactor* CreateReactor(
      grpc::GenericCallbackServerContext* context) override;

  [[nodiscard]] const std::string& target() const { return listener_->target(); }

  void stop(std::chrono::milliseconds grace) {
    listener_->stop();
    std::promise<void> over;
    std::thread cutting = startCutting(grace + kLastWords, over.get_future());
    server_->Shutdown(after(grace));
    over.set_value();
    if (cutting.joinable()) {
      cutting.join();
    }
    std::unique_lock lock(mutex_);
    idle_.wait(lock, [this] { return calls_ == 0; });
  }

 private:
  class Call;

  // gRPC closes no connection before all that it has begun to say there is said. Where no thread is
  // to be had any more, callers that read nothing hold up the end.
  std::thread startCutting(std::chrono::milliseconds patience, std::future<void> over) {
    try {
      return std::thread([this, patience, over = std::move(over)] {
        if (over.wait_for(patience) == std::future_status::timeout) {
          listener_->cutConnections();
        }
      });
    } catch (const std::system_error&) {
      return {};
    }
  }

  // Says why the server takes no more calls for now, or nothing: then the call has a place. Decided
  // before anything of the call is carried out, since a caller that is told that the server is full
  // makes the same call again.
  std::string enter() {
    const std::scoped_lock lock(mutex_);
    std::string full = whyFull();
    ++calls_;
    places_ += full.empty() ? 1 : 0;
    return full;
  }

  [[nodiscard]] std::string whyFull() const {
    if (places_ == options_.limits.calls) {
      return fmt::format("the server is at work on {} calls, and takes no more at a time", places_);
    }
    if (unreadBytes_ > mostUnread()) {
      return fmt::format("callers have yet to read more than {} bytes of replies", mostUnread());
    }
    return {};
  }

  void giveBackPlace() {
    const std::scoped_lock lock(mutex_);
    --places_;
  }

  void keepUnread(size_t bytes) {
    const std::scoped_lock lock(mutex_);
    unreadBytes_ += bytes;
  }

  // As much as the largest replies of all places. Those of the calls that are at work then may come
  // on top of it.
  [[nodiscard]] uint64_t mostUnread() const {
    return std::max(kLeastUnread,
                    options_.limits.calls * (kCallBytes + options_.limits.messageBytes));
  }

  void leave(size_t unreadBytes) {
    const std::scoped_lock lock(mutex_);
    unreadBytes_ -= unreadBytes;
    if (--calls_ == 0) {
      idle_.notify_all();
    }
  }

  // For callers to take what calls that are cancelled end with.
  static constexpr std::chrono::seconds kLastWords{1};
  static constexpr size_t kWorkers = 15;
  // What a call costs beside its message, here and within gRPC: 18 KiB were seen.
  static constexpr size_t kCallBytes = 20U << 10U;
  // Room for small replies that have been read, but of which gRPC has not told yet.
  static constexpr uint64_t kLeastUnread = 16U << 20U;
  // Whether a handler is at work on one of gRPC's own threads, which saves that call the way to a
  // worker. Never more than one: the process has two such threads at least, for all of its servers,
  // and the other has to refuse calls however long the handler takes.
  static inline std::atomic<bool> grpcThreadLent_ = false;

  const RequestHandler handler_;
  const ServerOptions options_;
  const bool local_;
  std::mutex mutex_;
  std::condition_variable idle_;
  uint32_t calls_ = 0;
  uint32_t places_ = 0;       // of calls that the handler has not returned from
  uint64_t unreadBytes_ = 0;  // of replies that may not have been read, and their calls
  TimeLimit timeLimit_;
  WorkerPool workers_{kWorkers};
  std::unique_ptr<Listener> listener_;
  std::unique_ptr<grpc::experimental::ExternalConnectionAcceptor> acceptor_;
  std::unique_ptr<grpc::Server> server_;  // ends before the workers that it needs
};

// One call: a request in, an answer out. Whoever comes first ends it: the answer, the time limit or
// the caller. Lives until gRPC, the time limit and the handler are done with it.
class RpcServer::Running::Call final : public grpc::ServerGenericBidiReactor,
                                       private TimeLimit::Limited {
 public:
  Call(Running& server, grpc::GenericCallbackServerContext& context)
      : server_(server), path_(context.method()), context_(&context) {
    handOver();
    const std::string full = server_.enter();
    holdsPlace_ = full.empty();
    if (!holdsPlace_) {
      end({grpc::StatusCode::RESOURCE_EXHAUSTED, full});
      return;
    }
    if (const grpc::Status permission = askPolicy(context); !permission.ok()) {
      giveBackPlace();
      end(permission);
      return;
    }
    server_.timeLimit_.begin(*this);
    handOver();
    StartRead(&request_);
  }

  void OnReadDone(bool succeeded) override {
    handOver();
    if (!succeeded) {
      giveBackPlace();
      end({grpc::StatusCode::INVALID_ARGUMENT, "the call came without a request"});
      return;
    }
    if (!grpcThreadLent_.exchange(true)) {
      answer();
      grpcThreadLent_ = false;
      return;
    }
    keepAlive();
    server_.workers_.give([this] {
      answer();
      leave();
    });
  }

  void OnCancel() override {
    handOver();
    end(grpc::Status::CANCELLED);
  }

  void OnDone() override {
    handOver();
    server_.timeLimit_.end(*this);
    {
      const std::scoped_lock lock(contextMutex_);
      context_ = nullptr;
    }
    leave();
  }

 private:
  ~Call() override {
    giveBackPlace();
    server_.leave(unreadBytes_);
  }

  // An exception that left the constructor would leave the place taken for good.
  grpc::Status askPolicy(const grpc::GenericCallbackServerContext& context) const {
    const PeerPolicy& policy = server_.options_.policy;
    try {
      const std::string refusal = policy ? policy(path_, peerOf(context, server_.local_)) : "";
      return refusal.empty() ? grpc::Status::OK
                             : grpc::Status(grpc::StatusCode::PERMISSION_DENIED, refusal);
    } catch (...) {
      return {grpc::StatusCode::INTERNAL, "the policy failed"};
    }
  }

  // Before the caller learns of the end, since it may call again at once, whereas gRPC takes its
  // time to tell this side.
  void giveBackPlace() {
    if (std::exchange(holdsPlace_, false)) {
      server_.giveBackPlace();
    }
  }

  void leave() {
    if (--users_ == 0) {
      delete this;
    }
  }

  void keepAlive() override { ++users_; }

  void timeIsUp() override {
    if (!end({grpc::StatusCode::DEADLINE_EXCEEDED,
              fmt::format("the server gives a call {} ms at most",
                          server_.options_.limits.longestCall.count())})) {
      cut();
    }
    leave();
  }

  // An answer is on its way, but its reader takes no more of it.
  void cut() {
    const std::scoped_lock lock(contextMutex_);
    if (context_ != nullptr) {
      context_->TryCancel();
    }
  }

  void answer() {
    if (ended_) {
      request_.Clear();
      giveBackPlace();
      return;
    }
    const Answer answer = answerTo(server_.handler_, path_, request_);
    request_.Clear();
    giveBackPlace();
    const uint32_t most = server_.options_.limits.messageBytes;
    if (answer.status != AnswerStatus::ok) {
      end({statusCode(answer.status), answer.detail});
    } else if (answer.reply.size() > most) {
      end({grpc::StatusCode::RESOURCE_EXHAUSTED,
           fmt::format("the reply has {} bytes, and this server sends {} at most",
                       answer.reply.size(), most)});
    } else {
      send(answer.reply);
    }
  }

  void send(const std::vector<uint8_t>& reply) {
    unreadBytes_ = kCallBytes + reply.size();
    server_.keepUnread(unreadBytes_);
    if (!ended_.exchange(true)) {
      const grpc::Slice slice(reply.data(), reply.size());
      reply_ = grpc::ByteBuffer(&slice, 1);
      handOver();
      StartWriteAndFinish(&reply_, grpc::WriteOptions(), grpc::Status::OK);
    }
  }

  // Says whether it was not ended already.
  bool end(const grpc::Status& status) {
    if (ended_.exchange(true)) {
      return false;
    }
    handOver();
    Finish(status);
    return true;
  }

  Running& server_;
  const std::string path_;
  std::atomic<int> users_ = 1;  // gRPC, until OnDone
  std::atomic<bool> ended_ = false;
  bool holdsPlace_ = false;
  size_t unreadBytes_ = 0;
  std::recursive_mutex contextMutex_;            // cancelling may call OnDone on the same thread
  grpc::GenericCallbackServerContext* context_;  // null once gRPC is done with it
  grpc::ByteBuffer request_;
  grpc::ByteBuffer reply_;
};

grpc::ServerGenericBidiReactor* RpcServer::Running::CreateReactor(
    grpc::GenericCallbackServerContext* context) {
  return new Call(*this, *context);
}

RpcServer::RpcServer(const std::string& target, RequestHandler handler,
                     const ServerOptions& options) try
    : running_(std::make_unique<Running>(target, std::move(handler), options)) {
} catch (const std::system_error& error) {
  throw std::runtime_error(fmt::format("cannot start a thread: {}", error.code().message()));
}

RpcServer::~RpcServer() { stop(std::chrono::milliseconds(0)); }

const std::string& RpcServer::target() const { return running_->target(); }

void RpcServer::stop(std::chrono::milliseconds grace) {
  if (running_ != nullptr) {
    running_->stop(grace);
    running_.reset();
  }
}

}  // namespace kel::host
