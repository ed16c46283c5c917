// KelSendAlarm's request, and the reply of all three alarm methods.
// For the units.
#pragma once

#include <kel_sys_diag/records.h>

#include "schema/package.hpp"

template <>
struct korva::Schema<AlarmInput>
    : korva::Slots<&AlarmInput::value1, &AlarmInput::value2, &AlarmInput::text, &AlarmInput::value3,
                   &AlarmInput::value4, &AlarmInput::bytes32, &AlarmInput::value5> {};

template <>
struct korva::Schema<AlarmOutput> : korva::Slots<&AlarmOutput::text> {};

namespace kel::message {

using AlarmInput = Message<"AlarmInput", ::AlarmInput>;
using AlarmOutput = Message<"AlarmOutput", ::AlarmOutput>;

}  // namespace kel::message
