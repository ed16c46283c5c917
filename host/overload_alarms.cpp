// Raises overload alarms through the library's client role.
#include "host/overload_alarms.hpp"

#include <fmt/format.h>
#include <sys/time.h>

#include <limits>
#include <utility>

#include "host/field_text.hpp"
#include "host/machine_records.hpp"
#include "host/record_text.hpp"
#include "host/rpc_framework.hpp"

namespace kel::host {
namespace {

constexpr uint64_t kMiB = 1024UL * 1024UL;

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

}  // namespace

OverloadAlarms::OverloadAlarms(const ClientLibrary& library, uint32_t deadlineMs, Narrator narrator)
    : library_(library), deadlineMs_(deadlineMs), narrator_(std::move(narrator)) {}

void OverloadAlarms::raise(const Overload& overload) {
  narrator_(fmt::format("{} is {} % full and has reached its threshold of {} %",
                        shown(overload.mount.mountPoint), overload.use.usedPercent,
                        overload.threshold));
  sender_.give([this, overload] { send(overload); });
}

void OverloadAlarms::send(const Overload& overload) const {
  const auto& method = library_.sendDiskOverloadAlarm;
  IdlCodecOps ops{};
  method.setIdl(&ops);
  const OverloadDiskAlarmInput alarm = alarmOf(overload);
  AlarmOutput answer{};
  const int32_t result = method.call(&alarm, &answer, deadlineMs_);
  if (result != kOk) {
    narrator_(fmt::format("{} could not be raised: {}", method.name, describe(result)));
    return;
  }
  narrator_(fmt::format("{} was answered by the master: {}", method.name, tell(answer)));
  ops.releaseFn(&answer);
}

}  // namespace kel::host
