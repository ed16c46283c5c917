#include "tests/host/faulty_server.hpp"

#include <grpcpp/generic/async_generic_service.h>
#include <grpcpp/grpcpp.h>

#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <thread>
#include <utility>

#include "host/hand_over.hpp"

namespace kel::host::test {
namespace {

grpc::ByteBuffer bufferOf(const Bytes& bytes) {
  const grpc::Slice slice(bytes.data(), bytes.size());
  return {&slice, 1};
}

Bytes bytesOf(const grpc::ByteBuffer& buffer) {
  grpc::Slice slice;
  if (buffer.Length() == 0 || !buffer.DumpToSingleSlice(&slice).ok()) {
    return {};
  }
  return {slice.begin(), slice.end()};
}

}  // namespace

class FaultyServer::Service final : public grpc::CallbackGenericService {
 public:
  Service(const std::string& target, Behaviour behaviour) : behaviour_(std::move(behaviour)) {
    grpc::ServerBuilder builder;
    int port = 0;
    builder.AddListeningPort(target, grpc::InsecureServerCredentials(), &port);
    builder.SetMaxReceiveMessageSize(-1);
    builder.SetMaxSendMessageSize(-1);
    builder.RegisterCallbackGenericService(this);
    server_ = builder.BuildAndStart();
    if (server_ == nullptr || port == 0) {
      std::abort();
    }
  }

  ~Service() override { server_->Shutdown(gpr_now(GPR_CLOCK_MONOTONIC)); }

  void behave(Behaviour behaviour) {
    const std::scoped_lock lock(mutex_);
    behaviour_ = std::move(behaviour);
  }

  Request take() {
    std::unique_lock lock(mutex_);
    arrived_.wait(lock, [&] { return !requests_.empty(); });
    Request request = std::move(requests_.front());
    requests_.pop_front();
    return request;
  }

  grpc::ServerGenericBidiReactor* CreateReactor(
      grpc::GenericCallbackServerContext* context) override {
    return new Reactor(*this, context->method());
  }

 private:
  class Reactor final : public grpc::ServerGenericBidiReactor {
   public:
    Reactor(Service& service, std::string path) : service_(service), path_(std::move(path)) {
      handOver();
      StartRead(&request_);
    }

    void OnReadDone(bool succeeded) override {
      Behaviour behaviour = service_.arrive({path_, succeeded ? bytesOf(request_) : Bytes{}});
      std::this_thread::sleep_for(behaviour.delay);
      const std::scoped_lock lock(mutex_);
      behaviour_ = std::move(behaviour);
      arrived_ = true;
      if (behaviour_.answers) {
        writeNext();
      } else {
        finishIfGivenUp();
      }
    }

    void OnWriteDone(bool succeeded) override {
      const std::scoped_lock lock(mutex_);
      succeeded ? writeNext() : finish();
    }

    void OnCancel() override {
      const std::scoped_lock lock(mutex_);
      cancelled_ = true;
      finishIfGivenUp();
    }

    void OnDone() override {
      handOver();
      delete this;
    }

   private:
    void writeNext() {
      if (written_ == behaviour_.replies.size()) {
        finish();
        return;
      }
      reply_ = bufferOf(behaviour_.replies[written_++]);
      StartWrite(&reply_);
    }

    void finishIfGivenUp() {
      if (arrived_ && cancelled_ && !behaviour_.answers) {
        finish();
      }
    }

    void finish() {
      handOver();
      Finish({static_cast<grpc::StatusCode>(behaviour_.grpcStatus), "as told"});
    }

    Service& service_;
    const std::string path_;
    std::mutex mutex_;
    bool arrived_ = false;
    bool cancelled_ = false;
    Behaviour behaviour_;
    size_t written_ = 0;
    grpc::ByteBuffer request_;
    grpc::ByteBuffer reply_;
  };

  Behaviour arrive(Request request) {
    const std::scoped_lock lock(mutex_);
    requests_.push_back(std::move(request));
    arrived_.notify_all();
    return behaviour_;
  }

  std::mutex mutex_;
  std::condition_variable arrived_;
  Behaviour behaviour_;
  std::deque<Request> requests_;
  std::unique_ptr<grpc::Server> server_;
};

FaultyServer::FaultyServer(const std::string& target, Behaviour behaviour)
    : service_(std::make_unique<Service>(target, std::move(behaviour))) {}

FaultyServer::~FaultyServer() = default;

void FaultyServer::behave(Behaviour behaviour) { service_->behave(std::move(behaviour)); }

FaultyServer::Request FaultyServer::take() { return service_->take(); }

Bytes okReply() {
  return {0x0A, 0,    0, 0, 0x06, 0,    0x0F, 0, 0x04, 0,   0x06, 0, 0,
          0,    0x04, 0, 0, 0,    0x02, 0,    0, 0,    'o', 'k',  0};
}

}  // namespace kel::host::test
