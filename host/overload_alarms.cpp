// Raises overload alarms through the library's client role.
#include "host/overload_alarms.hpp"

#include <fmt/core.h>
#include <sys/time.h>

#include <algorithm>
#include <chrono>
#include <limits>
#include <utility>

#include "host/field_text.hpp"
#include "host/machine_records.hpp"
#include "host/record_text.hpp"
#include "host/rpc_framework.hpp"

namespace kel::host {
namespace {

constexpr uint64_t kMiB = 1024UL * 1024UL;
constexpr std::chrono::seconds kPause(2);  // until a master may be there again

// The alarm of a disk with only a warning threshold.
OverloadDiskAlarmInput alarmOf(const Overload& overload) {
  MachineState machine{};
  gettimeofday(&machine.time, nullptr);
  const FileSystem disk{overload.mount.mountPoint, overload.mount.source, overload.use.size / kMiB,
                        overload.use.freeForUsers / kMiB, overload.use.usedPercent};
  OvLoadDiskCtlOutput thresholds{};
  thresholds.value1 = overload.threshold;
  thresholds.value2 = std::numeric_limits<uint32_t>::max();
  return diskAlarm(machine, disk, thresholds);
}

// Whether the master has the alarm, or may have it, or will never take it.
bool isFinal(int32_t result) {
  switch (result) {
    case kUnreachable:
    case kNotSent:
    case kTooLarge:  // or the master has too much to do, which cannot be told apart
      return false;
    default:
      return true;
  }
}

}  // namespace

OverloadAlarms::OverloadAlarms(const ClientLibrary& library, uint32_t deadlineMs, Narrator narrator)
    : library_(library),
      deadlineMs_(deadlineMs),
      narrator_(std::move(narrator)),
      sender_([this](const std::stop_token& ending) { run(ending); }) {}

void OverloadAlarms::raise(const Overload& overload) {
  narrator_(fmt::format("{} is {} % full and has reached its threshold of {} %",
                        shown(overload.mount.mountPoint), overload.use.usedPercent,
                        overload.threshold));
  Alarm alarm = {overload.mount.mountPoint, alarmOf(overload), false};
  {
    const std::scoped_lock lock(mutex_);
    std::erase_if(waiting_,
                  [&](const Alarm& earlier) { return earlier.mountPoint == alarm.mountPoint; });
    waiting_.push_back(std::move(alarm));
  }
  changed_.notify_one();
}

void OverloadAlarms::run(const std::stop_token& ending) {
  std::unique_lock lock(mutex_);
  while (changed_.wait(lock, ending, [this] { return !waiting_.empty(); })) {
    Alarm alarm = std::move(waiting_.front());
    waiting_.pop_front();
    lock.unlock();
    const bool isOver = send(alarm, ending.stop_requested());
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

bool OverloadAlarms::send(const Alarm& alarm, bool isLastTry) const {
  const auto& method = library_.sendDiskOverloadAlarm;
  IdlCodecOps ops{};
  method.setIdl(&ops);
  AlarmOutput answer{};
  const int32_t result = method.call(&alarm.content, &answer, deadlineMs_);
  const bool isOver = isLastTry || isFinal(result);
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
