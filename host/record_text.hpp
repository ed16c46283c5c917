// The client messages' records in words, one line each, and the vocabulary of their numbers.
// For both programs: what the host says it sends and what the master says it understood agree.
#pragma once

#include <kel_sys_diag/records.h>

#include <cstdint>
#include <string>

namespace kel::host {

// What the value1 of an alarm means.
enum AlarmNumber : uint32_t { kMemoryAlarm = 1001, kLoadAlarm = 1002, kDiskAlarm = 1003 };

// What the value2 of an alarm means.
enum Severity : uint32_t { kNotice = 1, kWarning = 2, kCritical = 3 };

std::string tell(const AlarmInput& alarm);
std::string tell(const OverloadAlarmInput& alarm);
std::string tell(const OverloadDiskAlarmInput& alarm);
std::string tell(const OvLoadDiskCtlInput& question);
std::string tell(const AlarmOutput& reply);
std::string tell(const OvLoadDiskCtlOutput& reply);

std::string sizeText(uint64_t mebibytes);

}  // namespace kel::host
