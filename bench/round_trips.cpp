// Calls over a Unix-domain socket: the host's framework and server, with everything encoded and
// decoded, against gRPC's own generic calls that echo the same bytes, by whichever of its two ways
// to wait for a reply is the faster. All in turn, in one process; prints JSON with the medians over
// the rounds.
#include <fmt/core.h>
#include <grpcpp/generic/async_generic_service.h>
#include <grpcpp/generic/generic_stub.h>
#include <grpcpp/grpcpp.h>
#include <kel_sys_diag/client.h>
#include <kel_sys_diag/peer.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <latch>
#include <nlohmann/json.hpp>
#include <semaphore>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include "host/rpc_framework.hpp"
#include "host/rpc_server.hpp"
#include "tests/support/codec_ops.hpp"

namespace kel::bench {
namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kRounds = 15;
constexpr std::chrono::milliseconds kSlice(150);
constexpr const char* kText = "the fortieth character ends this text ok";

double median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

AlarmInput alarm() {
  AlarmInput input{1, 2, kText, 3, 4, {}, 5};
  std::memset(input.bytes32, 'b', sizeof input.bytes32);
  return input;
}

// What the master does when an alarm comes in, but for the alarm.
host::Answer takeAlarm(const std::string& /*path*/, std::span<const uint8_t> request) {
  AlarmInput input{};
  if (Kel_sys_diag_AlarmInput_unpack(request.data(), static_cast<uint32_t>(request.size()),
                                     &input) == 0) {
    return {host::AnswerStatus::badRequest, "the request does not decode", {}};
  }
  const AlarmOutput output{const_cast<char*>(kText)};  // only read
  const uint32_t size = Kel_sys_diag_AlarmOutput_pack(nullptr, &output);
  host::Answer answer{host::AnswerStatus::ok, {}, std::vector<uint8_t>(size)};
  const PackTarget target{answer.reply.data(), &size};
  Kel_sys_diag_AlarmOutput_pack(&target, &output);
  Kel_sys_diag_AlarmInput_free_unpacked(&input);
  return answer;
}

void callOurs() {
  static const IdlCodecOps ops = test::opsOf(KelSysdiagMaster_KelSendAlarmSetIdl);
  const AlarmInput input = alarm();
  AlarmOutput output{};
  if (KelSysdiagMaster_KelSendAlarm(&input, &output, 0) != host::kOk) {
    throw std::runtime_error("a call of ours failed");
  }
  ops.releaseFn(&output);
}

class EchoReactor final : public grpc::ServerGenericBidiReactor {
 public:
  EchoReactor() { StartRead(&bytes_); }
  void OnReadDone(bool succeeded) override {
    if (succeeded) {
      StartWriteAndFinish(&bytes_, grpc::WriteOptions(), grpc::Status::OK);
    } else {
      Finish({grpc::StatusCode::INVALID_ARGUMENT, "no request"});
    }
  }
  void OnDone() override { delete this; }

 private:
  grpc::ByteBuffer bytes_;
};

class EchoService final : public grpc::CallbackGenericService {
 public:
  grpc::ServerGenericBidiReactor* CreateReactor(grpc::GenericCallbackServerContext*) override {
    return new EchoReactor;
  }
};

// gRPC's own generic server and calls, as short as its interface lets them be.
class Echo {
 public:
  explicit Echo(const std::string& target) {
    grpc::ServerBuilder builder;
    builder.AddListeningPort(target, grpc::InsecureServerCredentials());
    builder.RegisterCallbackGenericService(&service_);
    server_ = builder.BuildAndStart();
    stub_ = std::make_unique<grpc::GenericStub>(
        grpc::CreateChannel(target, grpc::InsecureChannelCredentials()));
    const AlarmInput input = alarm();
    const IdlCodecOps ops = test::opsOf(KelSysdiagMaster_KelSendAlarmSetIdl);
    std::vector<uint8_t> bytes(ops.packFn(nullptr, &input));
    const auto size = static_cast<uint32_t>(bytes.size());
    const PackTarget packTarget{bytes.data(), &size};
    ops.packFn(&packTarget, &input);
    slice_ = grpc::Slice(bytes.data(), bytes.size());
  }

  void callByQueue() {
    Exchange exchange(slice_);
    thread_local grpc::CompletionQueue queue;
    const auto call = stub_->PrepareUnaryCall(&exchange.context, kPath, exchange.request, &queue);
    call->StartCall();
    call->Finish(&exchange.reply, &exchange.status, this);
    void* tag = nullptr;
    bool succeeded = false;
    queue.Next(&tag, &succeeded);
    check(exchange);
  }

  void callByCallback() {
    Exchange exchange(slice_);
    std::binary_semaphore over(0);
    stub_->UnaryCall(&exchange.context, kPath, grpc::StubOptions(), &exchange.request,
                     &exchange.reply, [&](const grpc::Status& status) {
                       exchange.status = status;
                       over.release();
                     });
    over.acquire();
    check(exchange);
  }

 private:
  static constexpr const char* kPath = "/echo/Echo";

  struct Exchange {
    explicit Exchange(const grpc::Slice& bytes) : request(&bytes, 1) {
      context.set_deadline(std::chrono::system_clock::now() + host::kDefaultDeadline);
    }
    grpc::ClientContext context;
    grpc::ByteBuffer request;
    grpc::ByteBuffer reply;
    grpc::Status status;
  };

  void check(const Exchange& exchange) const {
    if (!exchange.status.ok() || exchange.reply.Length() != slice_.size()) {
      throw std::runtime_error("an echo failed: " + exchange.status.error_message());
    }
  }

  EchoService service_;
  std::unique_ptr<grpc::Server> server_;
  std::unique_ptr<grpc::GenericStub> stub_;
  grpc::Slice slice_;
};

struct Load {
  double latency;     // the median call's, in microseconds
  double throughput;  // calls a second
};

// Calls in a loop from that many threads for a slice of time.
Load load(size_t callers, const std::function<void()>& call) {
  std::vector<std::vector<double>> latencies(callers);
  std::latch start(static_cast<std::ptrdiff_t>(callers));
  const auto work = [&](std::vector<double>& mine) {
    start.arrive_and_wait();
    for (const auto end = Clock::now() + kSlice; Clock::now() < end;) {
      const auto begin = Clock::now();
      call();
      mine.push_back(std::chrono::duration<double, std::micro>(Clock::now() - begin).count());
    }
  };
  {
    std::vector<std::jthread> threads;
    for (std::vector<double>& mine : latencies) threads.emplace_back(work, std::ref(mine));
  }
  std::vector<double> all;
  for (const std::vector<double>& mine : latencies) all.insert(all.end(), mine.begin(), mine.end());
  const double seconds = std::chrono::duration<double>(kSlice).count();
  return {median(all), static_cast<double>(all.size()) / seconds};
}

// Over the rounds.
struct Comparison {
  std::vector<double> latencies;
  std::vector<double> latencyRatios;
  std::vector<double> throughputRatios;
};

nlohmann::json compare(size_t callers, Echo& echo) {
  std::vector<double> latencies;
  Comparison byQueue;
  Comparison byCallback;
  for (size_t round = 0; round <= kRounds; ++round) {
    const Load ours = load(callers, callOurs);
    const Load queue = load(callers, [&echo] { echo.callByQueue(); });
    const Load callback = load(callers, [&echo] { echo.callByCallback(); });
    if (round == 0) continue;  // connections and threads come into being
    latencies.push_back(ours.latency);
    for (const auto& [comparison, theirs] : {std::pair(&byQueue, queue), {&byCallback, callback}}) {
      comparison->latencies.push_back(theirs.latency);
      comparison->latencyRatios.push_back(ours.latency / theirs.latency);
      comparison->throughputRatios.push_back(ours.throughput / theirs.throughput);
    }
  }
  return {{"latency", median(latencies)},
          {"echo latency", std::min(median(byQueue.latencies), median(byCallback.latencies))},
          {"latency to echo",
           std::max(median(byQueue.latencyRatios), median(byCallback.latencyRatios))},
          {"throughput to echo",
           std::min(median(byQueue.throughputRatios), median(byCallback.throughputRatios))}};
}

class Folder {
 public:
  Folder() {
    if (mkdtemp(path_.data()) == nullptr) throw std::runtime_error("no temporary folder");
  }
  ~Folder() { std::filesystem::remove_all(path_); }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;

  [[nodiscard]] std::string target(const char* name) const {
    return fmt::format("unix:{}/{}.sock", path_, name);
  }

 private:
  std::string path_ = std::filesystem::temp_directory_path() / "kel_bench.XXXXXX";
};

}  // namespace
}  // namespace kel::bench

int main() {
  using namespace kel::bench;
  const Folder folder;
  const kel::host::RpcServer server(folder.target("ours"), takeAlarm);
  kel::host::setTarget(g_stServerAddr_KelSysdiagMaster, server.target());
  Echo echo(folder.target("echo"));
  nlohmann::json results;
  for (const size_t callers : {1, 64}) {
    results[std::to_string(callers)] = compare(callers, echo);
  }
  std::puts(results.dump(1).c_str());
}
