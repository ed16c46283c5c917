// The machine's state in the client messages' records, as docs/fields.md has it. For kel_host.
#pragma once

#include <kel_sys_diag/records.h>

#include "host/machine_state.hpp"

namespace kel::host {

// The text belongs to the program.
AlarmInput memoryAlarm(const MachineState& machine);

OverloadAlarmInput loadAlarm(const MachineState& machine);

OvLoadDiskCtlInput thresholdQuestion(const MachineState& machine, const FileSystem& disk);

// With the thresholds that the master gave for this disk, and the time when it was measured.
OverloadDiskAlarmInput diskAlarm(const timeval& time, const FileSystem& disk,
                                 const OvLoadDiskCtlOutput& thresholds);

}  // namespace kel::host
