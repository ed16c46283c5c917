// The requests of KelSendOverloadAlarm and KelSendMobileDiskOverloadAlarm; alarm_messages.hpp has
// their reply. For the units.
#pragma once

#include <kel_sys_diag/records.h>

#include "schema/diag_sub_record.hpp"
#include "schema/package.hpp"

template <>
struct korva::Schema<OverloadAlarmInput>
    : korva::Slots<
          &OverloadAlarmInput::value1, &OverloadAlarmInput::value2, &OverloadAlarmInput::value3,
          &OverloadAlarmInput::value4, &OverloadAlarmInput::sub, &OverloadAlarmInput::value5,
          &OverloadAlarmInput::value6, &OverloadAlarmInput::value7, &OverloadAlarmInput::bytes64,
          &OverloadAlarmInput::value8, &OverloadAlarmInput::value9, &OverloadAlarmInput::value10> {
};

template <>
struct korva::Schema<OverloadDiskAlarmInput>
    : korva::Slots<&OverloadDiskAlarmInput::value1, &OverloadDiskAlarmInput::value2,
                   &OverloadDiskAlarmInput::value3, &OverloadDiskAlarmInput::value4,
                   &OverloadDiskAlarmInput::sub, &OverloadDiskAlarmInput::bytes64,
                   &OverloadDiskAlarmInput::bytes32, &OverloadDiskAlarmInput::value5,
                   &OverloadDiskAlarmInput::value6> {};

namespace kel::message {

using OverloadAlarmInput =
    Message<"OverloadAlarmInput", ::OverloadAlarmInput, korva::Layouts::compactAndFixed>;
using OverloadDiskAlarmInput =
    Message<"OverloadDiskAlarmInput", ::OverloadDiskAlarmInput, korva::Layouts::compactAndFixed>;

}  // namespace kel::message
