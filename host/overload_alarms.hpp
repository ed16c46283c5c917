// Tells the master of file systems whose use has reached its threshold. For the serving kel_host.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <stop_token>
#include <string>
#include <thread>

#include "host/client_library.hpp"
#include "host/diagnostics.hpp"

namespace kel::host {

class OverloadAlarms {
 public:
  // Gets a line for people about every alarm: from a thread of its own, and from those that raise
  // alarms, several at once.
  using Narrator = std::function<void(const std::string& line)>;

  // The library's server address has to be filled in.
  OverloadAlarms(const ClientLibrary& library, uint32_t deadlineMs, Narrator narrator);

  // Raises KelSendMobileDiskOverloadAlarm, one alarm at a time, in their order; does not wait for
  // the answer. An alarm that the master did not take in, because it could not be reached in time
  // or had too much to do, is tried again until it does, or there is a later one of the same file
  // system. The destructor waits for a call that is under way, and tries what is left once, for
  // kShutdownGrace in all.
  void raise(const Overload& overload);

 private:
  using Clock = std::chrono::steady_clock;
  struct Alarm {
    std::string mountPoint;
    OverloadDiskAlarmInput content;
    bool isLate;
  };

  void run(const std::stop_token& ending);
  // Says whether it is not to be tried again. The last tries have an end in common.
  [[nodiscard]] bool send(const Alarm& alarm, std::optional<Clock::time_point> end) const;
  [[nodiscard]] std::chrono::milliseconds timeUntil(std::optional<Clock::time_point> end) const;
  // With the lock held.
  void putBack(Alarm alarm);

  const ClientLibrary& library_;
  const std::chrono::milliseconds deadline_;
  const Narrator narrator_;
  std::mutex mutex_;
  std::condition_variable_any changed_;
  std::deque<Alarm> waiting_;
  std::map<std::string, uint64_t> newest_;  // the highest number of each mount point
  std::jthread sender_;                     // ends before what it uses
};

}  // namespace kel::host
