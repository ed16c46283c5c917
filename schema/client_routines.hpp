// The routines of KelSysdiagMaster's messages that this library carries, as the slots of an
// IdlCodecOps want them. For client/; rpc.h says what each kind takes and returns.
#pragma once

#include <kel_sys_diag/rpc.h>

extern "C" {

uint32_t Kel_sys_diag_AlarmInput_pack(const PackTarget* target, const void* record);

uintptr_t Kel_sys_diag_AlarmOutput_unpack(const void* bytes, uint32_t length, void* record);
void Kel_sys_diag_AlarmOutput_free_unpacked(void* record);

uint32_t Kel_sys_diag_OverloadAlarmInput_pack(const PackTarget* target, const void* record);
int32_t Kel_sys_diag_OverloadAlarmInput_fixed_pack(uint8_t* buffer, const void* record);
uint32_t Kel_sys_diag_OverloadAlarmInput_fixed_size(void);

uint32_t Kel_sys_diag_OverloadDiskAlarmInput_pack(const PackTarget* target, const void* record);
int32_t Kel_sys_diag_OverloadDiskAlarmInput_fixed_pack(uint8_t* buffer, const void* record);
uint32_t Kel_sys_diag_OverloadDiskAlarmInput_fixed_size(void);

uint32_t Kel_sys_diag_OvLoadDiskCtlInput_pack(const PackTarget* target, const void* record);
int32_t Kel_sys_diag_OvLoadDiskCtlInput_fixed_pack(uint8_t* buffer, const void* record);
uint32_t Kel_sys_diag_OvLoadDiskCtlInput_fixed_size(void);

uintptr_t Kel_sys_diag_OvLoadDiskCtlOutput_unpack(const void* bytes, uint32_t length, void* record);
void Kel_sys_diag_OvLoadDiskCtlOutput_free_unpacked(void* record);

}  // extern "C"
