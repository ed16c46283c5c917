// What the host's tests share: a socket in a folder of its own, calls with one record, and async
// completions.
#pragma once

#include <gtest/gtest.h>
#include <kel_sys_diag/client.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <mutex>
#include <span>
#include <string>
#include <vector>

#include "host/rpc_framework.hpp"
#include "host/rpc_server.hpp"

namespace kel::host::test {

using Clock = std::chrono::steady_clock;

// The time of a call, which passes only for one that is lost, however busy the machine.
constexpr uintptr_t kCallMs = 60'000;
// Bounded time there: before a call ends of itself.
constexpr std::chrono::milliseconds kSoon(kCallMs - 1000);

using Bytes = std::vector<uint8_t>;

// An AlarmOutput with the text "ok", as the wire has it.
Bytes okReply();

// A RequestHandler that answers so.
Answer answerOk(const std::string& path, std::span<const uint8_t> request);

AlarmInput sampleAlarm(uint32_t number = 7);

// Calls KelSendAlarm, gives the reply back, and returns the result.
int32_t sendAlarm(const AlarmInput& alarm, std::string& reply, uintptr_t deadlineMs = kCallMs);

// As text of the result, so that failures read well.
std::string outcome(int32_t result);

// Receives the completions of asynchronous calls.
class Completions {
 public:
  struct Completed {
    int32_t result;
    bool hadOutput;
    std::string text;  // of an AlarmOutput
  };

  static void onAlarmOutput(int32_t result, void* output, uintptr_t context);

  // Starts KelSendAlarm, and returns what that returns.
  int32_t start(const AlarmInput* alarm, uintptr_t deadlineMs = kCallMs,
                Completion completion = onAlarmOutput);

  // Waits for as many as count, then for a while that no more come.
  std::vector<Completed> wait(size_t count);

 private:
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::vector<Completed> completed_;
};

// Tries until it holds or time is up. Says whether it does.
bool eventually(const std::function<bool()>& holds);

// Runs the body on so many threads at a time, with their numbers.
void onThreads(uint32_t threads, const std::function<void(uint32_t)>& body);

// What has been built beside this test.
std::filesystem::path beside(const std::string& name);

// Makes the file of a disk without a file system.
void addImage(const std::filesystem::path& file);

std::string contentOf(const std::filesystem::path& file);

// What a std::runtime_error of the action says.
std::string complaintOf(const std::function<void()>& action);

// A folder of the test's own.
class FolderFixture : public ::testing::Test {
 protected:
  FolderFixture();
  ~FolderFixture() override;

  std::filesystem::path folder;
};

// Calls go to a fresh Unix-domain socket, on which nobody listens at first. The framework's threads
// run from here on.
class HostFixture : public FolderFixture {
 protected:
  HostFixture();

  static void aimAt(const std::string& where);

  // The outcome of sending the sample.
  static std::string call(uintptr_t deadlineMs = kCallMs);

  // Whether calls succeed now that a server is there. The first may have joined an attempt to
  // connect that failed before, but no second one fails at once.
  static bool recovers();

  std::string target = "unix:" + (folder / "socket").string();
};

}  // namespace kel::host::test
