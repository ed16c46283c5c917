// Raises overload alarms through the library's client role.
#include "host/overload_alarms.hpp"

#include <fmt/core.h>
#include <sys/time.h>

#include <algorithm>
#include <chrono>
#include <limits>
#include <utility>

#include "host/field_text.hpp"
#include "host/limits.hpp"
#include "host/machine_records.hpp"
#include "host/record_text.hpp"
#include "host/rpc_framework.hpp"

namespace kel::host {
namespace {

constexpr std::chrono::seconds kPause(2);  // until a master may be there again

// The alarm of a disk with only a warning threshold.
OverloadDiskAlarmInput alarmOf(const Overload& overload) {
  timeval now{};
  gettimeofday(&now, nullptr);
  OvLoadDiskCtlOutput thresholds{};
  thresholds.value1 = overload.threshold;
  thresholds.value2 = std::numeric_limits<uint32_t>::max();
  return diskAlarm(now, fileSystemOf(overload.mount, overload.use), thresholds);
}

// Whether the master has the alarm, or may have it, or will never take it.
bool isFinal(int32_t result) {
  switch (result) {
    case kUnreachable:
    case kNotSent:
    case kTooLarge:  // an alarm never is, so the master has too much to do
      return false;
    default:
      return true;
  }
}

}  // namespace

OverloadAlarms::OverloadAlarms(const ClientLibrary& library, uint32_t deadlineMs, Narrator narrator)
    : library_(library),
      deadline_(deadlineMs == 0 ? kDefaultDeadline : std::chrono::milliseconds(deadlineMs)),
      narrator_(std::move(narrator)),
      sender_([this](const std::stop_token& ending) { run(ending); }) {}

void OverloadAlarms::raise(const Overload& overload) {
  narrator_(fmt::format("{} is {} % full and has reached its threshold of {} %",
                        shown(overload.mount.mountPoint), overload.use.usedPercent,
                        overload.threshold));
  Alarm alarm = {overload.mount.mountPoint, alarmOf(overload), false};
  {
    const std::scoped_lock lock(mutex_);
    uint64_t& newest = newest_[alarm.mountPoint];
    if (overload.number < newest) {
      return;
    }
    newest = overload.number;
    std::erase_if(waiting_,
                  [&](const Alarm& earlier) { return earlier.mountPoint == alarm.mountPoint; });
    waiting_.push_back(std::move(alarm));
  }
  changed_.notify_one();
}

void OverloadAlarms::run(const std::stop_token& ending) {
  std::optional<Clock::time_point> end;
  std::unique_lock lock(mutex_);
  while (changed_.wait(lock, ending, [this] { return !waiting_.empty(); })) {
    Alarm alarm = std::move(waiting_.front());
    waiting_.pop_front();
    lock.unlock();
    if (ending.stop_requested() && !end) {
      end = Clock::now() + kShutdownGrace;
    }
    const bool isOver = send(alarm, end);
    lock.lock();
    if (!isOver) {
      putBack(std::move(alarm));
      changed_.wait_for(lock, ending, kPause, [] { return false; });
    }
  }
}

void OverloadAlarms::putBack(Alarm alarm) {
  if (std::ranges::find(waiting_, alarm.mountPoint, &Alarm::mountPoint) == waiting_.end()) {
    alarm.isLate = true;
    waiting_.push_front(std::move(alarm));
  }
}

std::chrono::milliseconds OverloadAlarms::timeUntil(std::optional<Clock::time_point> end) const {
  return end ? std::min(deadline_,
                        std::chrono::duration_cast<std::chrono::milliseconds>(*end - Clock::now()))
             : deadline_;
}

bool OverloadAlarms::send(const Alarm& alarm, std::optional<Clock::time_point> end) const {
  const auto& method = library_.sendDiskOverloadAlarm;
  const std::chrono::milliseconds time = timeUntil(end);
  if (time.count() <= 0) {
    narrator_(
        fmt::format("{} of {} could not be raised any more", method.name, shown(alarm.mountPoint)));
    return true;
  }
  IdlCodecOps ops{};
  method.setIdl(&ops);
  AlarmOutput answer{};
  const int32_t result = method.call(&alarm.content, &answer, static_cast<uintptr_t>(time.count()));
  const bool isOver = end || isFinal(result);
  if (result == kOk) {
    narrator_(fmt::format("{} was answered by the master: {}", method.name, tell(answer)));
    ops.releaseFn(&answer);
  } else if (isOver || !alarm.isLate) {
    narrator_(fmt::format("{} could not be raised{}: {}", method.name, isOver ? "" : " yet",
                          explain(result)));
  }
  return isOver;
}

}  // namespace kel::host
