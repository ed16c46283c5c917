// Fills the client messages' records from the machine's state.
#include "host/machine_records.hpp"

#include <algorithm>
#include <limits>

#include "host/calendar_time.hpp"
#include "host/field_text.hpp"
#include "host/record_text.hpp"

namespace kel::host {
namespace {

constexpr uint32_t kMemoryThresholdPercent = 90;
constexpr uint32_t kLoadThresholdPerProcessor = 100;  // hundredths

uint32_t narrowed(uint64_t value) {
  return static_cast<uint32_t>(std::min<uint64_t>(value, std::numeric_limits<uint32_t>::max()));
}

uint32_t severity(uint32_t measured, uint32_t warning, uint32_t critical) {
  if (measured >= critical) {
    return kCritical;
  }
  return measured >= warning ? kWarning : kNotice;
}

uint32_t severity(uint32_t measured, uint32_t threshold) {
  return measured >= threshold ? kWarning : kNotice;
}

}  // namespace

AlarmInput memoryAlarm(const MachineState& machine) {
  const Memory& memory = machine.memory;
  const uint64_t used = memory.totalMiB - std::min(memory.availableMiB, memory.totalMiB);
  AlarmInput alarm{};
  alarm.value1 = kMemoryAlarm;
  alarm.text = "memory in use, per cent";
  alarm.value3 = memory.totalMiB == 0 ? 0 : narrowed(used * 100 / memory.totalMiB);
  alarm.value4 = kMemoryThresholdPercent;
  alarm.value2 = severity(alarm.value3, alarm.value4);
  putText(alarm.bytes32, machine.hostName);
  alarm.value5 = static_cast<uint32_t>(machine.time.tv_sec);  // modulo 2^32
  return alarm;
}

OverloadAlarmInput loadAlarm(const MachineState& machine) {
  OverloadAlarmInput alarm{};
  alarm.value1 = kLoadAlarm;
  alarm.value3 = machine.load[0];
  alarm.value4 = machine.processors * kLoadThresholdPerProcessor;
  alarm.value2 = severity(alarm.value3, alarm.value4);
  alarm.sub = calendarTime(machine.time);
  alarm.value5 = machine.load[0];
  alarm.value6 = machine.load[1];
  alarm.value7 = machine.load[2];
  putText(alarm.bytes64, machine.hostName);
  alarm.value8 = narrowed(machine.memory.totalMiB);
  alarm.value9 = narrowed(machine.memory.availableMiB);
  alarm.value10 = machine.processors;
  return alarm;
}

OvLoadDiskCtlInput thresholdQuestion(const MachineState& machine, const FileSystem& disk) {
  OvLoadDiskCtlInput question{};
  putText(question.bytes32a, machine.hostName);
  putText(question.bytes32b, disk.device);
  putText(question.bytes50, disk.mountPoint);
  return question;
}

OverloadDiskAlarmInput diskAlarm(const timeval& time, const FileSystem& disk,
                                 const OvLoadDiskCtlOutput& thresholds) {
  OverloadDiskAlarmInput alarm{};
  alarm.value1 = kDiskAlarm;
  alarm.value2 = severity(disk.usedPercent, thresholds.value1, thresholds.value2);
  alarm.value3 = disk.usedPercent;
  alarm.value4 = alarm.value2 == kCritical ? thresholds.value2 : thresholds.value1;
  alarm.sub = calendarTime(time);
  putText(alarm.bytes64, disk.mountPoint);
  putText(alarm.bytes32, disk.device);
  alarm.value5 = narrowed(disk.sizeMiB);
  alarm.value6 = narrowed(disk.freeMiB);
  return alarm;
}

}  // namespace kel::host
