// The framework's calls against servers of every kind: each failure has its own result in bounded
// time, and none of them spoils the next call.
#include "host/rpc_framework.hpp"

#include <malloc.h>

#include <limits>
#include <optional>
#include <stdexcept>

#include "host/os_allocator.hpp"
#include "host/rpc_server.hpp"
#include "tests/host/scripted_server.hpp"

namespace kel::host::test {
namespace {

class RpcFramework : public HostFixture {
 protected:
  ~RpcFramework() override {
    waitForCompletions();
    EXPECT_EQ(allocatorUse().outstanding, 0U);
  }

  // Calls by both ways at a time, which must agree, and neither of which may take long.
  static std::string callBothWays(uintptr_t deadlineMs = kCallMs) {
    const Clock::time_point began = Clock::now();
    const AlarmInput alarm = sampleAlarm();
    Completions completions;
    EXPECT_EQ(outcome(completions.start(&alarm, deadlineMs)), outcome(kOk));
    std::string reply;
    const int32_t result = sendAlarm(alarm, reply, deadlineMs);
    const auto completed = completions.wait(1);
    const bool isShort = deadlineMs > 0 && deadlineMs < kCallMs;
    EXPECT_LT(Clock::now() - began, isShort ? kDefaultDeadline : kSoon);
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
    std::optional<Script> script;  // none: nobody is there
    int32_t expected;
    uintptr_t deadlineMs = kCallMs;
  };
  constexpr uintptr_t kShortMs = 250;
  const Case cases[] = {
      {"nobody", {}, kUnreachable},
      {"one who hangs up at once", Script{.greeting = "", .patience = 0}, kUnreachable},
      {"one who speaks otherwise", Script{.greeting = "220 your mail, please\r\n"}, kUnreachable},
      {"one who says nothing", Script{.greeting = ""}, kNotSent, kShortMs},
      {"no answer", Script{.answers = false}, kDeadlinePassed, 4 * kShortMs},
      {"no answer in the usual time", Script{.answers = false}, kDeadlinePassed, 0},
      {"a loss in mid-call", Script{.answers = false, .patience = 2}, kConnectionLost},
      {"success", Script{}, kOk},
      {"garbage", Script{.replies = {Bytes(64, 0xFF)}}, kReplyNotDecoded},
      {"an empty message", Script{.replies = {Bytes{}}}, kReplyEmpty},
      {"success without a message", Script{.replies = {}}, kReplyEmpty},
      {"two messages", Script{.replies = {okReply(), okReply()}}, kTooManyReplies},
      {"a reply, then failure", Script{.grpcStatus = 13}, kGrpcStatus + 13},
      {"invalid argument", Script{.replies = {}, .grpcStatus = 3}, kRequestRejected},
      {"not found", Script{.replies = {}, .grpcStatus = 5}, kGrpcStatus + 5},
      {"not permitted", Script{.replies = {}, .grpcStatus = 7}, kNotPermitted},
      {"out of means", Script{.replies = {}, .grpcStatus = 8}, kTooLarge},
      {"unimplemented", Script{.replies = {}, .grpcStatus = 12}, kMethodUnknown},
      {"no status", Script{.headOnly = true}, kGrpcStatus + 2},
      {"a status beyond the last", Script{.grpcStatus = 17}, kGrpcStatus + 2},
      {"a status that adds up to success", Script{.grpcStatus = -kGrpcStatus}, kGrpcStatus + 2},
      {"unavailable", Script{.replies = {}, .grpcStatus = 14}, kConnectionLost},
  };
  for (const Case& faulty : cases) {
    SCOPED_TRACE(faulty.what);
    // One of its own, to which no attempt to connect is under way from the case before.
    const std::string socket = folder / std::to_string(&faulty - cases);
    aimAt("unix:" + socket);
    {
      std::optional<ScriptedServer> server;
      if (faulty.script) {
        server.emplace(socket, *faulty.script);
      }
      EXPECT_EQ(callBothWays(faulty.deadlineMs), outcome(faulty.expected));
    }
    const RpcServer next("unix:" + socket, answerOk);
    EXPECT_TRUE(recovers());
  }
}

TEST_F(RpcFramework, ExplainsAFailureInTheServersWords) {
  std::string words;
  const RpcServer server(target, [&](const std::string&, std::span<const uint8_t>) {
    return Answer{AnswerStatus::internal, words, {}};
  });
  const AlarmInput alarm = sampleAlarm();
  AlarmOutput output{};
  const Completion explained = [](int32_t result, void*, uintptr_t context) {
    std::string explanation = explain(result);
    AlarmOutput carrier{};
    carrier.text = explanation.data();
    Completions::onAlarmOutput(result, &carrier, context);
  };
  const std::string failed = describe(kGrpcStatus + 13);
  const std::pair<std::string, std::string> cases[] = {
      {"the disk is gone", " (the disk is gone)"},
      {"", ""},
      {"\x1b[2J", " (?[2J)"},
      {std::string(299, 'x') + "\u00E9", " (" + std::string(299, 'x') + ")"},
  };
  // Each after others, on whichever of the framework's threads it ends.
  for (size_t i = 0; i < 4 * std::size(cases); ++i) {
    const auto& [said, inBrackets] = cases[i % std::size(cases)];
    words = said;
    const int32_t result = KelSysdiagMaster_KelSendAlarm(&alarm, &output, 0);
    Completions completions;
    EXPECT_EQ(completions.start(&alarm, 0, explained), kOk);
    EXPECT_EQ(explain(result), failed + inBrackets) << "whatever has begun since";
    EXPECT_EQ(completions.wait(1).at(0).text, failed + inBrackets);
  }
  EXPECT_EQ(explain(KelSysdiagMaster_KelSendAlarm(&alarm, nullptr, 0)), describe(kBadArgument));
}

TEST_F(RpcFramework, RefusesWhatItCannotCarryWithoutACompletion) {
  const RpcServer server(target, answerOk);
  const AlarmInput alarm = sampleAlarm();
  AlarmOutput output{};
  Completions completions;
  const IdlMethodRef method{"KelSysdiagMaster", "KelSendAlarm"};
  const IdlAsyncInfo info{};
  const IdlCodecOps ops{};
  EXPECT_EQ(RPC_GetRpcInvoke(nullptr, 0), nullptr);
  EXPECT_EQ(RPC_IdlSyncCallStub(nullptr, &alarm, &output, &method, &ops), kNoInvoker);
  EXPECT_EQ(RPC_IdlAsyncCallStub(nullptr, &alarm, &method, &ops, &info), kNoInvoker);
  EXPECT_EQ(KelSysdiagMaster_KelSendAlarm(nullptr, &output, 0), kRequestNotPacked);
  EXPECT_EQ(KelSysdiagMaster_KelSendOverloadAlarm(nullptr, &output, 0), kRequestNotPacked);
  EXPECT_EQ(KelSysdiagMaster_KelSendAlarm(&alarm, nullptr, 0), kBadArgument);
  EXPECT_EQ(completions.start(&alarm, 0, nullptr), kBadArgument);
  EXPECT_EQ(completions.start(nullptr), kRequestNotPacked);
  for (const size_t length : {size_t{0}, sizeof(RpcServerAddr::endpoint)}) {
    aimAt(std::string(length, 'x'));
    EXPECT_EQ(call(), outcome(kNoTarget));
    EXPECT_EQ(completions.start(&alarm), kNoTarget);
  }
  EXPECT_TRUE(completions.wait(0).empty());
}

// Messages of the same record in both forms, as they arrive.
TEST_F(RpcFramework, SendsTheFixedLayoutUnlessToldOtherwise) {
  mallopt(M_PERTURB, 0xA5);  // what a fresh block held must not travel
  Bytes request;
  const RpcServer server(target, [&](const std::string& path, std::span<const uint8_t> bytes) {
    EXPECT_EQ(path, "/KelSysdiagMaster/KelGetDiskOvLoadCfgInfo");
    request.assign(bytes.begin(), bytes.end());
    return Answer{};
  });
  const OvLoadDiskCtlInput question{};
  OvLoadDiskCtlOutput thresholds{};
  const auto sent = [&](bool compact) {
    setCompactAlways(compact);
    constexpr uintptr_t kLongest = std::numeric_limits<uintptr_t>::max();
    EXPECT_EQ(KelSysdiagMaster_KelGetDiskOvLoadCfgInfo(&question, &thresholds, kLongest),
              kReplyEmpty);
    return request;
  };
  const Bytes fixed = sent(false);
  ASSERT_EQ(fixed.size(), 160U);
  for (const size_t unused : {146U, 147U, 158U, 159U}) {
    EXPECT_EQ(fixed[unused], 0) << "at " << unused;
  }
  EXPECT_EQ(sent(true).size(), 156U);
}

// A completion may call again, even synchronously.
TEST_F(RpcFramework, CallsFromCompletions) {
  const RpcServer server(target, answerOk);
  const Completion again = [](int32_t, void*, uintptr_t context) {
    std::string reply;
    Completions::onAlarmOutput(sendAlarm(sampleAlarm(), reply), nullptr, context);
  };
  constexpr size_t kCalls = 8;
  const AlarmInput alarm = sampleAlarm();
  Completions completions;
  for (size_t i = 0; i < kCalls; ++i) {
    EXPECT_EQ(completions.start(&alarm, 0, again), kOk);
  }
  const auto completed = completions.wait(kCalls);
  EXPECT_EQ(completed.size(), kCalls);
  for (const auto& one : completed) {
    EXPECT_EQ(outcome(one.result), outcome(kOk));
  }
}

TEST_F(RpcFramework, TellsTheAnswersOfAServerApart) {
  AnswerStatus status = AnswerStatus::ok;
  const RpcServer server(target, [&](const std::string&, std::span<const uint8_t>) {
    return status == AnswerStatus::ok ? throw std::runtime_error("a fault")
                                      : Answer{status, "as told", {}};
  });
  const std::pair<AnswerStatus, int32_t> cases[] = {
      {AnswerStatus::ok, kGrpcStatus + 13},  // it throws instead
      {AnswerStatus::internal, kGrpcStatus + 13},    {AnswerStatus::replyLost, kGrpcStatus + 15},
      {AnswerStatus::notFound, kGrpcStatus + 5},     {AnswerStatus::badRequest, kRequestRejected},
      {AnswerStatus::unknownMethod, kMethodUnknown},
  };
  for (const auto& [answered, expected] : cases) {
    status = answered;
    EXPECT_EQ(call(), outcome(expected));
  }
}

}  // namespace
}  // namespace kel::host::test
