// What the host's tests share: a socket in a folder of its own, records, and async completions.
#pragma once

#include <gtest/gtest.h>
#include <kel_sys_diag/client.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "host/rpc_framework.hpp"

namespace kel::host::test {

using Clock = std::chrono::steady_clock;

// Calls go to a fresh Unix-domain socket, on which nobody listens at first.
class HostFixture : public ::testing::Test {
 protected:
  HostFixture();
  ~HostFixture() override;

  static void aimAt(const std::string& where);

  // A program built beside this test.
  static std::filesystem::path beside(const std::string& program);

  std::filesystem::path folder;
  std::string target;
};

// Receives the completions of asynchronous calls, which pass its address as userArg2.
class Completions {
 public:
  struct Completed {
    int32_t result;
    bool hadOutput;
    std::string text;  // of an AlarmOutput
  };

  static void onAlarmOutput(int32_t result, void* output, uintptr_t context);

  static uintptr_t function() {
    return reinterpret_cast<uintptr_t>(static_cast<Completion>(onAlarmOutput));
  }
  [[nodiscard]] uintptr_t context() const { return reinterpret_cast<uintptr_t>(this); }

  // Waits for as many as count, then for a while that no more come.
  std::vector<Completed> wait(size_t count);

 private:
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::vector<Completed> completed_;
};

// Tries until it holds or time is up. Says whether it does.
bool eventually(const std::function<bool()>& holds);

AlarmInput sampleAlarm(uint32_t number = 7);

// Calls KelSendAlarm, gives the reply back, and returns the result.
int32_t sendAlarm(const AlarmInput& alarm, std::string& reply, uintptr_t deadlineMs = 0);

// As text of the result, so that failures read well.
std::string outcome(int32_t result);

}  // namespace kel::host::test
