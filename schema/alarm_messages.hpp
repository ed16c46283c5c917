// KelSendAlarm's request, and the reply of all three alarm methods.
// Schemas for every room above; routines for client/.
#pragma once

#include <kel_sys_diag/records.h>
#include <kel_sys_diag/rpc.h>

#include "codec/korva_schema.hpp"

template <>
struct korva::Schema<AlarmInput>
    : korva::Slots<&AlarmInput::value1, &AlarmInput::value2, &AlarmInput::text, &AlarmInput::value3,
                   &AlarmInput::value4, &AlarmInput::bytes32, &AlarmInput::value5> {};

template <>
struct korva::Schema<AlarmOutput> : korva::Slots<&AlarmOutput::text> {};

extern "C" {

uint32_t Kel_sys_diag_AlarmInput_pack(const PackTarget* target, const void* record);

uintptr_t Kel_sys_diag_AlarmOutput_unpack(const void* bytes, uint32_t length, void* record);
void Kel_sys_diag_AlarmOutput_free_unpacked(void* record);

}  // extern "C"
