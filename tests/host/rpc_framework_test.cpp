// The framework's calls against servers of every kind: each failure has its own result in bounded
// time, and none of them spoils the next call.
#include "host/rpc_framework.hpp"

#include <malloc.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <functional>
#include <limits>
#include <thread>

#include "host/os_allocator.hpp"
#include "host/rpc_server.hpp"
#include "tests/host/faulty_server.hpp"
#include "tests/host/host_fixture.hpp"
#include "tests/host/running_program.hpp"

namespace kel::host::test {
namespace {

constexpr std::chrono::seconds kSoon(2);  // bounded time, on a busy machine
constexpr uintptr_t kShortMs = 250;
constexpr int kGrpcUnavailable = 14;

class RpcFramework : public HostFixture {
 protected:
  ~RpcFramework() override {
    waitForCompletions();
    EXPECT_EQ(allocatorUse().outstanding, 0U);
  }

  // Calls by both ways, which must agree, and neither of which may take long.
  static std::string callBothWays(uintptr_t deadlineMs = 0) {
    const Clock::time_point began = Clock::now();
    const AlarmInput alarm = sampleAlarm();
    std::string reply;
    const int32_t result = sendAlarm(alarm, reply, deadlineMs);
    Completions completions;
    const int32_t started = KelSysdiagMaster_KelSendAlarm_async(&alarm, Completions::function(),
                                                                completions.context(), deadlineMs);
    EXPECT_EQ(outcome(started), outcome(kOk));
    const auto completed = completions.wait(1);
    EXPECT_LT(Clock::now() - began, kSoon);
    EXPECT_EQ(completed.size(), 1U);
    EXPECT_EQ(outcome(completed.at(0).result), outcome(result));
    EXPECT_EQ(completed.at(0).hadOutput, result == kOk);
    EXPECT_EQ(completed.at(0).text, reply);
    return outcome(result);
  }
};

TEST_F(RpcFramework, GivesEveryFailureItsResultAndRecovers) {
  struct Case {
    const char* what;
    Behaviour behaviour;
    int32_t expected;
    uintptr_t deadlineMs = 0;
  };
  const Bytes garbage(64, 0xFF);
  const Bytes tooLong(5U << 20U, 0);
  const Case cases[] = {
      {"garbage", {.replies = {garbage}}, kReplyNotDecoded},
      {"three bytes", {.replies = {{1, 2, 3}}}, kReplyNotDecoded},
      {"an empty message", {.replies = {Bytes{}}}, kReplyEmpty},
      {"success without a message", {.replies = {}}, kReplyEmpty},
      {"two messages", {.replies = {okReply(), okReply()}}, kTooManyReplies},
      {"more than fits", {.replies = {tooLong}}, kTooLarge},
      {"invalid argument", {.replies = {}, .grpcStatus = 3}, kRequestRejected},
      {"unimplemented", {.replies = {}, .grpcStatus = 12}, kMethodUnknown},
      {"out of means", {.replies = {}, .grpcStatus = 8}, kTooLarge},
      {"unavailable", {.replies = {}, .grpcStatus = kGrpcUnavailable}, kConnectionLost},
      {"not found", {.replies = {}, .grpcStatus = 5}, kGrpcStatus + 5},
      {"a reply, then failure", {.replies = {okReply()}, .grpcStatus = 13}, kGrpcStatus + 13},
      {"silence", {.replies = {}, .answers = false}, kDeadlinePassed, kShortMs},
      {"too late",
       {.replies = {okReply()}, .delay = std::chrono::milliseconds(2 * kShortMs)},
       kDeadlinePassed,
       kShortMs},
  };
  FaultyServer server(target, {});
  for (const Case& faulty : cases) {
    SCOPED_TRACE(faulty.what);
    server.behave(faulty.behaviour);
    EXPECT_EQ(callBothWays(faulty.deadlineMs), outcome(faulty.expected));
    server.behave({.replies = {okReply()}});
    EXPECT_EQ(callBothWays(), outcome(kOk));
  }
}

TEST_F(RpcFramework, FindsNobodyThenSomebody) {
  for (int round = 0; round < 5; ++round) {
    EXPECT_EQ(callBothWays(), outcome(kUnreachable));
    FaultyServer server(target, {.replies = {okReply()}});
    EXPECT_EQ(callBothWays(), outcome(kOk));
  }
}

TEST_F(RpcFramework, RefusesAddressesWithoutATarget) {
  aimAt("");
  std::string reply;
  EXPECT_EQ(outcome(sendAlarm(sampleAlarm(), reply)), outcome(kNoTarget));
  aimAt(std::string(sizeof(RpcServerAddr::endpoint), 'x'));
  EXPECT_EQ(outcome(sendAlarm(sampleAlarm(), reply)), outcome(kNoTarget));
  aimAt("unix:" + (folder / "no" / "such" / "folder").string());
  EXPECT_EQ(callBothWays(), outcome(kUnreachable));
}

TEST_F(RpcFramework, RefusesWhatItCannotCarryWithoutACompletion) {
  FaultyServer server(target, {.replies = {okReply()}});
  const AlarmInput alarm = sampleAlarm();
  AlarmOutput output{};
  Completions completions;
  const IdlMethodRef method{"KelSysdiagMaster", "KelSendAlarm"};
  const IdlAsyncInfo info{sizeof(AlarmInput), sizeof(AlarmOutput), Completions::function(),
                          completions.context()};
  IdlCodecOps ops{};
  KelSysdiagMaster_KelSendAlarmSetIdl(&ops);

  EXPECT_EQ(RPC_GetRpcInvoke(nullptr, 0), nullptr);
  EXPECT_EQ(RPC_IdlSyncCallStub(nullptr, &alarm, &output, &method, &ops), kNoInvoker);
  EXPECT_EQ(RPC_IdlAsyncCallStub(nullptr, &alarm, &method, &ops, &info), kNoInvoker);
  EXPECT_EQ(KelSysdiagMaster_KelSendAlarm(nullptr, &output, 0), kRequestNotPacked);
  EXPECT_EQ(KelSysdiagMaster_KelSendOverloadAlarm(nullptr, &output, 0), kRequestNotPacked);
  EXPECT_EQ(KelSysdiagMaster_KelSendAlarm(&alarm, nullptr, 0), kBadArgument);
  EXPECT_EQ(KelSysdiagMaster_KelSendAlarm_async(&alarm, 0, 0, 0), kBadArgument);
  EXPECT_EQ(KelSysdiagMaster_KelSendAlarm_async(nullptr, Completions::function(),
                                                completions.context(), 0),
            kRequestNotPacked);
  EXPECT_TRUE(completions.wait(0).empty());
}

TEST_F(RpcFramework, TakesAnyDeadline) {
  FaultyServer server(target, {.replies = {okReply()}});
  EXPECT_EQ(callBothWays(std::numeric_limits<uintptr_t>::max()), outcome(kOk));
}

// A listener that speaks no gRPC: says its line to whoever connects, and holds the connection.
class ForeignListener {
 public:
  ForeignListener(const std::string& path, std::string greeting)
      : greeting_(std::move(greeting)), listener_(socket(AF_UNIX, SOCK_STREAM, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    EXPECT_EQ(bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    EXPECT_EQ(listen(listener_, 16), 0);
    thread_ = std::thread([this] { run(); });
  }
  ~ForeignListener() {
    shutdown(listener_, SHUT_RDWR);
    thread_.join();
    close(listener_);
  }
  ForeignListener(const ForeignListener&) = delete;
  ForeignListener& operator=(const ForeignListener&) = delete;

 private:
  void run() {
    std::vector<int> connections;
    for (int one = 0; (one = accept(listener_, nullptr, nullptr)) >= 0;) {
      connections.push_back(one);
      send(one, greeting_.data(), greeting_.size(), MSG_NOSIGNAL);
    }
    for (const int one : connections) {
      close(one);
    }
  }

  const std::string greeting_;
  const int listener_;
  std::thread thread_;
};

TEST_F(RpcFramework, SurvivesListenersThatAreNotServers) {
  {
    const ForeignListener chatty(folder / "socket",
                                 "220 ready to take your mail, whoever you are\r\n");
    EXPECT_EQ(callBothWays(), outcome(kUnreachable));
  }
  std::filesystem::remove(folder / "socket");
  const ForeignListener silent(folder / "socket", "");
  EXPECT_EQ(callBothWays(kShortMs), outcome(kDeadlinePassed));
}

TEST_F(RpcFramework, LosesAServerInMidCallAndFindsTheNextOne) {
  const auto lose = [&](const std::function<int32_t()>& call) {
    RunningProgram server(beside("kel_silent_server"), {target}, folder / "output", "listening");
    std::thread killer([&] {
      EXPECT_TRUE(server.says("called"));
      server.signal(SIGKILL);
    });
    const Clock::time_point began = Clock::now();
    EXPECT_EQ(outcome(call()), outcome(kConnectionLost));
    EXPECT_LT(Clock::now() - began, kSoon);
    killer.join();
  };
  const AlarmInput alarm = sampleAlarm();
  std::string reply;
  for (int round = 0; round < 3; ++round) {
    lose([&] { return sendAlarm(alarm, reply, 20'000); });
    lose([&] {
      Completions completions;
      EXPECT_EQ(KelSysdiagMaster_KelSendAlarm_async(&alarm, Completions::function(),
                                                    completions.context(), 20'000),
                kOk);
      return completions.wait(1).at(0).result;
    });
    FaultyServer next(target, {.replies = {okReply()}});
    EXPECT_EQ(callBothWays(), outcome(kOk));
  }
}

// Messages of the same record in both forms, as they arrive.
TEST_F(RpcFramework, SendsTheFixedLayoutUnlessToldOtherwise) {
  mallopt(M_PERTURB, 0xA5);  // what a fresh block held must not travel
  FaultyServer server(target, {.replies = {Bytes{}}});
  OvLoadDiskCtlInput question{};
  OvLoadDiskCtlOutput thresholds{};
  const auto sent = [&](bool compact) {
    setCompactAlways(compact);
    EXPECT_EQ(KelSysdiagMaster_KelGetDiskOvLoadCfgInfo(&question, &thresholds, 0), kReplyEmpty);
    const FaultyServer::Request request = server.take();
    EXPECT_EQ(request.path, "/KelSysdiagMaster/KelGetDiskOvLoadCfgInfo");
    return request.bytes;
  };
  const Bytes fixed = sent(false);
  ASSERT_EQ(fixed.size(), 160U);
  for (const size_t unused : {146U, 147U, 158U, 159U}) {
    EXPECT_EQ(fixed[unused], 0) << "at " << unused;
  }
  EXPECT_EQ(sent(true).size(), 156U);
}

// Every reply is made of its own request, whatever else goes on.
TEST_F(RpcFramework, KeepsConcurrentCallsApart) {
  constexpr uint32_t kThreads = 16;
  constexpr uint32_t kRounds = 40;
  RpcServer echo(target, [](const std::string&, std::span<const uint8_t> request) {
    // The reply's text is the request's first scalar: the alarm number, in two printable bytes.
    Bytes reply = okReply();
    reply[22] = request[26];
    reply[23] = request[27];
    return Answer{AnswerStatus::ok, {}, reply};
  });
  std::vector<std::thread> threads;
  for (uint32_t thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([thread] {
      for (uint32_t round = 0; round < kRounds; ++round) {
        const std::string expected = {static_cast<char>('A' + thread),
                                      static_cast<char>('0' + round)};
        const AlarmInput alarm = sampleAlarm(static_cast<uint8_t>(expected[0]) |
                                             static_cast<uint32_t>(expected[1]) << 8U);
        Completions completions;
        EXPECT_EQ(KelSysdiagMaster_KelSendAlarm_async(&alarm, Completions::function(),
                                                      completions.context(), 30'000),
                  kOk);
        std::string reply;
        EXPECT_EQ(outcome(sendAlarm(alarm, reply, 30'000)), outcome(kOk));
        EXPECT_EQ(reply, expected);
        const auto completed = completions.wait(1);
        ASSERT_EQ(completed.size(), 1U);
        EXPECT_EQ(outcome(completed[0].result), outcome(kOk));
        EXPECT_EQ(completed[0].text, expected);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

// A completion may call again, even synchronously.
TEST_F(RpcFramework, CallsFromCompletions) {
  FaultyServer server(target, {.replies = {okReply()}});
  Completions completions;
  const auto again = [](int32_t, void*, uintptr_t context) {
    std::string reply;
    const int32_t result = sendAlarm(sampleAlarm(), reply);
    Completions::onAlarmOutput(result, nullptr, context);
  };
  const AlarmInput alarm = sampleAlarm();
  constexpr size_t kCalls = 8;
  for (size_t i = 0; i < kCalls; ++i) {
    EXPECT_EQ(KelSysdiagMaster_KelSendAlarm_async(
                  &alarm, reinterpret_cast<uintptr_t>(static_cast<Completion>(again)),
                  completions.context(), 0),
              kOk);
  }
  const auto completed = completions.wait(kCalls);
  ASSERT_EQ(completed.size(), kCalls);
  for (const auto& one : completed) {
    EXPECT_EQ(outcome(one.result), outcome(kOk));
  }
}

}  // namespace
}  // namespace kel::host::test
