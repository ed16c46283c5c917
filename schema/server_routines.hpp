// The routines of KelSysdiagQarne's messages that this library carries, as the slots of an
// IdlCodecOps want them. For service/; rpc.h says what each kind takes and returns.
#pragma once

#include <kel_sys_diag/rpc.h>

extern "C" {

uintptr_t Kel_sys_diag_BrdPartInfoInput_unpack(const void* bytes, uint32_t length, void* record);

uint32_t Kel_sys_diag_BrdPartInfo_pack(const PackTarget* target, const void* record);
void Kel_sys_diag_BrdPartInfo_free_unpacked(void* record);

uintptr_t Kel_sys_diag_FdProcInfoInput_unpack(const void* bytes, uint32_t length, void* record);

uint32_t Kel_sys_diag_FdProcInfoOutput_pack(const PackTarget* target, const void* record);
void Kel_sys_diag_FdProcInfoOutput_free_unpacked(void* record);

uintptr_t Kel_sys_diag_SysOvLoadDiskThreshold_unpack(const void* bytes, uint32_t length,
                                                     void* record);

uint32_t Kel_sys_diag_OperResult_pack(const PackTarget* target, const void* record);
void Kel_sys_diag_OperResult_free_unpacked(void* record);
int32_t Kel_sys_diag_OperResult_fixed_pack(uint8_t* buffer, const void* record);
uint32_t Kel_sys_diag_OperResult_fixed_size(void);

uintptr_t Kel_sys_diag_SysDiskUseInput_unpack(const void* bytes, uint32_t length, void* record);

uint32_t Kel_sys_diag_SysDiskUseInfoResult_pack(const PackTarget* target, const void* record);
void Kel_sys_diag_SysDiskUseInfoResult_free_unpacked(void* record);
int32_t Kel_sys_diag_SysDiskUseInfoResult_fixed_pack(uint8_t* buffer, const void* record);
uint32_t Kel_sys_diag_SysDiskUseInfoResult_fixed_size(void);

uintptr_t Kel_sys_diag_ResetDiskCondition_unpack(const void* bytes, uint32_t length, void* record);

uint32_t Kel_sys_diag_ResetDiskResult_pack(const PackTarget* target, const void* record);
void Kel_sys_diag_ResetDiskResult_free_unpacked(void* record);
int32_t Kel_sys_diag_ResetDiskResult_fixed_pack(uint8_t* buffer, const void* record);
uint32_t Kel_sys_diag_ResetDiskResult_fixed_size(void);

uintptr_t Kel_sys_diag_MountDiskInput_unpack(const void* bytes, uint32_t length, void* record);

uint32_t Kel_sys_diag_MountDiskResult_pack(const PackTarget* target, const void* record);
void Kel_sys_diag_MountDiskResult_free_unpacked(void* record);
int32_t Kel_sys_diag_MountDiskResult_fixed_pack(uint8_t* buffer, const void* record);
uint32_t Kel_sys_diag_MountDiskResult_fixed_size(void);

uintptr_t Kel_sys_diag_StorageEraseInfoInput_unpack(const void* bytes, uint32_t length,
                                                    void* record);

uint32_t Kel_sys_diag_StorageEraseInfo_pack(const PackTarget* target, const void* record);
void Kel_sys_diag_StorageEraseInfo_free_unpacked(void* record);

uintptr_t Kel_sys_diag_StorageBadBlockInfoInput_unpack(const void* bytes, uint32_t length,
                                                       void* record);

uint32_t Kel_sys_diag_StorageBadBlockInfo_pack(const PackTarget* target, const void* record);
void Kel_sys_diag_StorageBadBlockInfo_free_unpacked(void* record);

}  // extern "C"
