// The generic server on gRPC's callback interface: one reactor for every call.
#include "host/rpc_server.hpp"

#include <fmt/core.h>
#include <grpcpp/generic/async_generic_service.h>
#include <grpcpp/grpcpp.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <exception>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "host/hand_over.hpp"
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
  }
}

// One call: a request in, an answer by one of the workers out. Deletes itself when gRPC is done
// with it.
class CallReactor final : public grpc::ServerGenericBidiReactor {
 public:
  CallReactor(const RequestHandler& handler, WorkerPool& workers, std::string path)
      : handler_(handler), workers_(workers), path_(std::move(path)) {
    handOver();
    StartRead(&request_);
  }

  void OnReadDone(bool succeeded) override {
    handOver();
    if (!succeeded) {
      Finish({grpc::StatusCode::INVALID_ARGUMENT, "the call came without a request"});
      return;
    }
    workers_.give([this] { reply(); });
  }

  void OnDone() override {
    handOver();
    delete this;
  }

 private:
  void reply() {
    const Answer answer = answerTo(handler_, path_, request_);
    if (answer.status != AnswerStatus::ok) {
      handOver();
      Finish({statusCode(answer.status), answer.detail});
      return;
    }
    const grpc::Slice slice(answer.reply.data(), answer.reply.size());
    reply_ = grpc::ByteBuffer(&slice, 1);
    handOver();
    StartWriteAndFinish(&reply_, grpc::WriteOptions(), grpc::Status::OK);
  }

  const RequestHandler& handler_;
  WorkerPool& workers_;
  const std::string path_;
  grpc::ByteBuffer request_;
  grpc::ByteBuffer reply_;
};

// gRPC would replace a socket in use without a word, and the other server would never be called
// again.
bool isServed(const std::string& target) {
  constexpr std::string_view kScheme = "unix:";
  if (!target.starts_with(kScheme)) {
    return false;
  }
  std::string path = target.substr(kScheme.size());
  if (path.starts_with("//")) {
    path.erase(0, 2);
  }
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof(address.sun_path)) {
    return false;  // gRPC will refuse it
  }
  std::memcpy(address.sun_path, path.data(), path.size());
  const int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (probe < 0) {
    return false;
  }
  const bool served =
      connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 ||
      errno == EAGAIN;  // somebody listens, and has much to do
  close(probe);
  return served;
}

}  // namespace

class RpcServer::Running final : public grpc::CallbackGenericService {
 public:
  Running(const std::string& target, RequestHandler handler) : handler_(std::move(handler)) {
    if (isServed(target)) {
      throw std::runtime_error(
          fmt::format("cannot listen on {}: another process serves there", target));
    }
    int port = 0;
    grpc::ServerBuilder builder;
    builder.AddChannelArgument(GRPC_ARG_ALLOW_REUSEPORT, 0);
    builder.AddListeningPort(target, grpc::InsecureServerCredentials(), &port);
    builder.RegisterCallbackGenericService(this);
    server_ = builder.BuildAndStart();
    if (server_ == nullptr || port == 0) {
      throw std::runtime_error(fmt::format(
          "cannot listen on {}: is it a gRPC target that this user may create?", target));
    }
  }

  grpc::ServerGenericBidiReactor* CreateReactor(
      grpc::GenericCallbackServerContext* context) override {
    return new CallReactor(handler_, workers_, context->method());
  }

  void stop(std::chrono::milliseconds grace) {
    server_->Shutdown(gpr_time_add(gpr_now(GPR_CLOCK_MONOTONIC),
                                   gpr_time_from_millis(grace.count(), GPR_TIMESPAN)));
  }

 private:
  static constexpr size_t kWorkers = 16;

  const RequestHandler handler_;
  WorkerPool workers_{kWorkers};
  std::unique_ptr<grpc::Server> server_;  // ends before the workers that it needs
};

RpcServer::RpcServer(const std::string& target, RequestHandler handler)
    : running_(std::make_unique<Running>(target, std::move(handler))) {}

RpcServer::~RpcServer() { stop(std::chrono::milliseconds(0)); }

void RpcServer::stop(std::chrono::milliseconds grace) {
  if (running_ != nullptr) {
    running_->stop(grace);
    running_.reset();
  }
}

}  // namespace kel::host
