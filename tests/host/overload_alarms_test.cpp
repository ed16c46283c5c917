// Which alarms the master is told of, in which order and how often, whatever becomes of the calls.
#include "host/overload_alarms.hpp"

#include <atomic>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "tests/host/host_fixture.hpp"

namespace kel::host::test {
namespace {

using Sent = std::vector<uint32_t>;

// What the one thread that sends does its calls with. They are told apart by their percentages.
std::atomic<bool> begun;
std::atomic<bool> answers;
int32_t nextResult = kOk;
Sent sent;

int32_t send(const OverloadDiskAlarmInput* alarm, AlarmOutput*, uintptr_t) {
  sent.push_back(alarm->value3);
  begun = true;
  begun.notify_one();
  answers.wait(false);
  return std::exchange(nextResult, kOk);
}

// The first call has the result, but not before the others are raised; the rest succeeds. All is
// over when this returns.
struct Story {
  Sent sent;
  std::string told;
};
Story raise(int32_t result, const std::vector<Overload>& overloads) {
  ClientLibrary library{};
  library.sendDiskOverloadAlarm = {"Send", KelSysdiagMaster_KelSendMobileDiskOverloadAlarmSetIdl,
                                   send, nullptr};
  std::mutex mutex;
  std::string told;
  begun = answers = false;
  nextResult = result;
  sent.clear();
  {
    OverloadAlarms alarms(library, 0, [&](const std::string& line) {
      const std::scoped_lock lock(mutex);
      told += line + "\n";
    });
    alarms.raise(overloads.front());
    begun.wait(false);
    for (size_t i = 1; i < overloads.size(); ++i) alarms.raise(overloads[i]);
    answers = true;
    answers.notify_one();
    EXPECT_TRUE(eventually([&] {
      const std::scoped_lock lock(mutex);
      return told.find("Send") != std::string::npos;
    }));
  }
  return {sent, told};
}

Overload overload(const char* mountPoint, uint32_t percent, uint64_t number) {
  return {{{}, mountPoint, "ext4", "/dev/a"}, {1, 1, percent, false}, 1, number};
}

TEST(OverloadAlarms, AreTriedAgainIfTheMasterDidNotTakeThem) {
  for (const int32_t result : {kUnreachable, kNotSent, kTooLarge}) {
    const Story story = raise(result, {overload("/a", 10, 1), overload("/b", 20, 2)});
    EXPECT_EQ(story.sent, (Sent{10, 10, 20})) << describe(result);
    EXPECT_NE(story.told.find("could not be raised yet: "), std::string::npos) << story.told;
  }
  for (const int32_t result : {kOk, kConnectionLost, kDeadlinePassed, kRequestRejected}) {
    EXPECT_EQ(raise(result, {overload("/a", 10, 1), overload("/b", 20, 2)}).sent, (Sent{10, 20}))
        << describe(result);
  }
}

TEST(OverloadAlarms, GiveWayToLaterOnesOfTheirFileSystem) {
  EXPECT_EQ(
      raise(kUnreachable, {overload("/a", 10, 1), overload("/b", 20, 2), overload("/a", 30, 4),
                           overload("/a", 40, 3), overload("/b", 50, 5)})
          .sent,
      (Sent{10, 30, 50}));
}

}  // namespace
}  // namespace kel::host::test
