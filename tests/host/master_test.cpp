// The master: what it understands, keeps, answers and refuses, called through the library.
#include <kel_sys_diag/peer.h>

#include <functional>

#include "host/field_text.hpp"
#include "host/master_service.hpp"
#include "host/os_allocator.hpp"
#include "host/record_text.hpp"
#include "host/rpc_server.hpp"
#include "tests/host/host_fixture.hpp"
#include "tests/support/codec_ops.hpp"
#include "tests/support/message_checks.hpp"

namespace kel::host::test {
namespace {

constexpr char kRules[] = R"({"rules": [
  {"name": "root", "mountPoint": "/", "device": "*", "warningPercent": 70, "criticalPercent": 80},
  {"name": "tab", "mountPoint": "/a\tb", "device": "*", "warningPercent": 1, "criticalPercent": 2},
  {"name": "media", "mountPoint": "/media/*", "device": "/dev/s?1",
   "warningPercent": 0, "criticalPercent": 100}]})";

class Master : public HostFixture {
 protected:
  Master()
      : service_(DiskRules::fromJson(kRules),
                 [this](const KeptAlarm& alarm) { EXPECT_EQ(alarm.sequence, ++observed_); }) {}
  ~Master() override { EXPECT_EQ(allocatorUse().outstanding, 0U); }

  Answer ask(const std::string& method, std::span<const uint8_t> request) {
    return service_.handle("/KelSysdiagMaster/" + method, request);
  }

  uint64_t observed_ = 0;
  MasterService service_;
};

// The four methods' stubs, of which three answer with an AlarmOutput.
template <class Input>
std::string callForText(int32_t (*call)(const Input*, AlarmOutput*, uintptr_t),
                        const Input& input) {
  AlarmOutput output{};
  EXPECT_EQ(outcome(call(&input, &output, 0)), outcome(kOk));
  std::string text = tell(output);
  kel::test::opsOf(KelSysdiagMaster_KelSendAlarmSetIdl).releaseFn(&output);
  return text;
}

TEST_F(Master, UnderstandsBothFormsAlikeAndKeepsWhatItUnderstood) {
  const RpcServer server(target, std::bind_front(&MasterService::handle, &service_));
  AlarmInput alarm = sampleAlarm(kMemoryAlarm);
  putText(alarm.bytes32, "a host with a name of 32 bytes..");
  alarm.value5 = 1'700'000'000;
  OverloadAlarmInput load{};
  load.value1 = kLoadAlarm;
  load.value3 = 512;
  load.sub = {2024, 2, 29, 23, 59, 58, 4, 999'999};
  load.value10 = 96;
  putText(load.bytes64, "h\x1b[2Jost");
  OverloadDiskAlarmInput disk{};
  disk.value2 = 99;
  putText(disk.bytes64, "/srv");
  disk.value5 = 4'000'000'000;

  for (const bool compact : {false, true}) {
    SCOPED_TRACE(compact ? "compact" : "fixed");
    setCompactAlways(compact);
    EXPECT_PRED_FORMAT2(testing::IsSubstring, "understood: " + tell(alarm),
                        callForText(KelSysdiagMaster_KelSendAlarm, alarm));
    EXPECT_PRED_FORMAT2(testing::IsSubstring, tell(load),
                        callForText(KelSysdiagMaster_KelSendOverloadAlarm, load));
    EXPECT_PRED_FORMAT2(testing::IsSubstring, tell(disk),
                        callForText(KelSysdiagMaster_KelSendMobileDiskOverloadAlarm, disk));
  }
  const std::vector<KeptAlarm> kept = service_.keptAlarms();
  ASSERT_EQ(kept.size(), 6U);
  for (size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(kept[i].words, kept[i + 3].words);
    EXPECT_EQ(kept[i].method, kept[i + 3].method);
  }
  EXPECT_EQ(kept[0].words,
            "alarm 1001, notice: sample, measured 0, threshold 0; host a host with a name of 32 "
            "bytes.., 2023-11-14 22:13:20 UTC");
  EXPECT_EQ(
      kept[1].words,
      "alarm 1002, severity 0: load 5.12, threshold 0.00; 1/5/15 minutes 0.00 0.00 0.00 on 96 "
      "processors, 0 MiB of 0 MiB memory available; host h?[2Jost, 2024-02-29 "
      "23:59:58.999999");
  EXPECT_EQ(kept[2].words,
            "alarm 0, severity 99: /srv () 0 % used, threshold 0 %; 0 MiB of 3906250.0 GiB free; "
            "0000-00-00 00:00:00.000000");
}

// What is kept and repeated of a long text is short, so that its caller learns of it, and nobody
// fills the memory.
TEST_F(Master, CutsWhatItRepeats) {
  const RpcServer server(target, std::bind_front(&MasterService::handle, &service_));
  const std::string text(kDefaultMessageBytes - 100, 'x');
  AlarmInput alarm = sampleAlarm();
  alarm.text = text.c_str();
  std::string reply;
  EXPECT_EQ(outcome(sendAlarm(alarm, reply)), outcome(kOk));
  EXPECT_NE(reply.find(", notice: xxxx"), std::string::npos) << reply.substr(0, 200);
  EXPECT_EQ(service_.keptAlarms().at(0).words.size(), kLongestWords);
}

TEST_F(Master, AnswersThresholdsByTheFirstRuleThatMatches) {
  const RpcServer server(target, std::bind_front(&MasterService::handle, &service_));
  struct Case {
    const char* mountPoint;
    const char* device;
    int32_t result;
    const char* words;
  };
  const Case cases[] = {
      {"/", "/dev/sda1", kOk,
       "/ (/dev/sda1) warns at 70 %, is critical at 80 %, by the rule \"root\""},
      {"/media/a/b", "/dev/sd1", kOk,
       "/media/a/b (/dev/sd1) warns at 0 %, is critical at 100 %, by the rule \"media\""},
      {"/a\tb", "", kOk, "/a?b () warns at 1 %, is critical at 2 %, by the rule \"tab\""},
      {"/a?b", "", kGrpcStatus + 5, ""},
      {"/media/a", "/dev/sda11", kGrpcStatus + 5, ""},
      {"", "", kGrpcStatus + 5, ""},
  };
  for (const Case& asked : cases) {
    SCOPED_TRACE(asked.mountPoint);
    OvLoadDiskCtlInput question{};
    putText(question.bytes50, asked.mountPoint);
    putText(question.bytes32b, asked.device);
    OvLoadDiskCtlOutput answer{};
    EXPECT_EQ(outcome(KelSysdiagMaster_KelGetDiskOvLoadCfgInfo(&question, &answer, 0)),
              outcome(asked.result));
    if (asked.result == kOk) {
      EXPECT_EQ(tell(answer), asked.words);
    }
  }
}

TEST_F(Master, RefusesWhatItDoesNotKnowOrCannotDecode) {
  const uint8_t garbage[64] = {0xFF, 0xFF};
  for (const char* method : {"KelSendAlarm", "KelSendOverloadAlarm",
                             "KelSendMobileDiskOverloadAlarm", "KelGetDiskOvLoadCfgInfo"}) {
    EXPECT_EQ(ask(method, garbage).status, AnswerStatus::badRequest) << method;
    EXPECT_EQ(ask(method, {}).status, AnswerStatus::badRequest) << method;
  }
  EXPECT_EQ(ask("KelSendAlarms", garbage).status, AnswerStatus::unknownMethod);
  EXPECT_EQ(service_.handle("/Other/KelSendAlarm", garbage).status, AnswerStatus::unknownMethod);
  EXPECT_EQ(service_.handle("", garbage).status, AnswerStatus::unknownMethod);
  EXPECT_TRUE(service_.keptAlarms().empty());
}

// Without a transport in between, whose locks would only hide that one is missing.
TEST_F(Master, KeepsTheNewestAlarmsOfManyThreads) {
  const auto request = kel::test::packToSize(
      kel::test::opsOf(KelSysdiagMaster_KelSendAlarmSetIdl).packFn, sampleAlarm());
  constexpr uint32_t kThreads = 4;
  constexpr uint32_t kEach = MasterService::kKeptAlarms / kThreads + 10;
  constexpr uint64_t kAll = uint64_t{kThreads} * kEach;
  onThreads(kThreads, [&](uint32_t) {
    for (uint32_t i = 0; i < kEach; ++i) {
      EXPECT_EQ(ask("KelSendAlarm", request).status, AnswerStatus::ok);
    }
  });
  const std::vector<KeptAlarm> kept = service_.keptAlarms();
  ASSERT_EQ(kept.size(), MasterService::kKeptAlarms);
  EXPECT_EQ(kept.front().sequence, kAll - MasterService::kKeptAlarms + 1);
  EXPECT_EQ(kept.back().sequence, kAll);
}

TEST(DiskRules, NameTheFaultOfABadConfiguration) {
  const std::string start = R"({"rules": [{"name": "r", "mountPoint": "*", "device": "*", )";
  const std::string longName(33, 'n');
  const std::string manyBrackets(200'000, '[');
  const std::string asManyBrackets(manyBrackets.size(), ']');
  const std::pair<std::string, std::string> cases[] = {
      {"", "parse error"},
      {"{", "parse error"},
      {"[]", "no object with \"rules\""},
      {"{}", "no object with \"rules\""},
      {R"({"rules": null})", "no object with \"rules\""},
      {R"({"rules": [], "rule": []})", "nothing else"},
      {R"({"rules": [{}]})", "rule no. 1: it has no name"},
      {R"({"rules": [{"name": "a\u0000b"}]})", "name has a NUL within"},
      {R"({"rules": [], "rules": []})", "\"rules\" is there twice"},
      {R"({"rules": [{"name": "r", "name": "r"}]})", "\"name\" is there twice"},
      {R"({"rules": [7]})", "rule no. 1: it is no object"},
      {R"({"rules": [{"name": "r", "mountPoint": 7}]})", "mountPoint is no text"},
      {start + R"("warningPercent": "80", "criticalPercent": 90}]})", "warningPercent is no whole"},
      {start + R"("warningPercent": )" + manyBrackets + asManyBrackets + "}]}",
       "warningPercent is no whole"},
      {start + R"("warningPercent": 91, "criticalPercent": 90}]})", "warningPercent <="},
      {start + R"("warningPercent": 9, "criticalPercent": 101}]})", "criticalPercent is no whole"},
      {start + R"("warningPercent": 9, "criticalPercent": -1}]})", "from 0 to 100"},
      {start + R"("warningPercent": 9, "criticalPercent": 80.9}]})", "from 0 to 100"},
      {start + R"("warningPercent": 9, "criticalPercent": 4294967376}]})", "from 0 to 100"},
      {start + R"("warningPercent": 9, "criticalPercent": 90, "extra": 1}]})", "no rule has"},
      {R"({"rules": [{"name": ")" + longName +
           R"(", "mountPoint": "*", "device": "*", "warningPercent": 1, "criticalPercent": 2}]})",
       "1 to 32 bytes"},
      {R"({"rules": [{"name": "\u001b[2J", "mountPoint": "*", "device": "*", "warningPercent": 2,
           "criticalPercent": 1}]})",
       "rule \"?[2J\""},
  };
  for (const auto& [json, complaint] : cases) {
    EXPECT_PRED_FORMAT2(testing::IsSubstring, complaint,
                        complaintOf([&] { DiskRules::fromJson(json); }))
        << json;
  }
}

}  // namespace
}  // namespace kel::host::test
