// The requests of KelSendOverloadAlarm and KelSendMobileDiskOverloadAlarm, and the sub-record that
// both carry. Schemas for every room above; routines for client/.
#pragma once

#include <kel_sys_diag/records.h>
#include <kel_sys_diag/rpc.h>

#include "codec/korva_schema.hpp"
#include "schema/diag_sub_record.hpp"

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

extern "C" {

uint32_t Kel_sys_diag_OverloadAlarmInput_pack(const PackTarget* target, const void* record);
int32_t Kel_sys_diag_OverloadAlarmInput_fixed_pack(uint8_t* buffer, const void* record);
uint32_t Kel_sys_diag_OverloadAlarmInput_fixed_size(void);

uint32_t Kel_sys_diag_OverloadDiskAlarmInput_pack(const PackTarget* target, const void* record);
int32_t Kel_sys_diag_OverloadDiskAlarmInput_fixed_pack(uint8_t* buffer, const void* record);
uint32_t Kel_sys_diag_OverloadDiskAlarmInput_fixed_size(void);

}  // extern "C"
