/* libkel_sys_diag_peer.so: the other half of both services, for programs that talk to a host
 * process. A KelSysdiagMaster server decodes its requests and encodes its replies with it; a
 * KelSysdiagQarne client encodes its requests and decodes the replies. Clean in C11 and C++11;
 * every function is reentrant and may run on any thread.
 *
 * The functions follow the rules of the IdlCodecOps slots in rpc.h and log in the same way. They
 * are a unit of their own: their allocator and log hooks (osal.h) are looked up by the same names
 * as those of libkel_sys_diag.so, but separately.
 *
 *   Kel_sys_diag_<Message>_unpack         decodes length bytes into record. Returns record as an
 *                                         integer, or 0 on failure; then nothing is left allocated.
 *   Kel_sys_diag_<Message>_pack           with a null target, returns the encoded size; otherwise
 *                                         writes the message and returns the number of bytes. 0 on
 *                                         failure. Compact; there is no fixed layout here.
 *   Kel_sys_diag_<Message>_free_unpacked  frees what unpacking allocated, and clears the pointers
 *                                         to it. Not for a record that the caller filled from other
 *                                         memory, nor, after a failure, for one that was not all
 *                                         zero before. Does nothing for null, and nothing at all
 *                                         for a record without pointers. */
#ifndef KEL_SYS_DIAG_PEER_H
#define KEL_SYS_DIAG_PEER_H

#include <kel_sys_diag/records.h>
#include <kel_sys_diag/rpc.h>

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

/* Requests of KelSysdiagMaster. An unpacked AlarmInput owns its text. */
uintptr_t Kel_sys_diag_AlarmInput_unpack(const void* bytes, uint32_t length, AlarmInput* record);
void Kel_sys_diag_AlarmInput_free_unpacked(AlarmInput* record);
uintptr_t Kel_sys_diag_OverloadAlarmInput_unpack(const void* bytes, uint32_t length,
                                                 OverloadAlarmInput* record);
void Kel_sys_diag_OverloadAlarmInput_free_unpacked(OverloadAlarmInput* record);
uintptr_t Kel_sys_diag_OverloadDiskAlarmInput_unpack(const void* bytes, uint32_t length,
                                                     OverloadDiskAlarmInput* record);
void Kel_sys_diag_OverloadDiskAlarmInput_free_unpacked(OverloadDiskAlarmInput* record);
uintptr_t Kel_sys_diag_OvLoadDiskCtlInput_unpack(const void* bytes, uint32_t length,
                                                 OvLoadDiskCtlInput* record);
void Kel_sys_diag_OvLoadDiskCtlInput_free_unpacked(OvLoadDiskCtlInput* record);

/* Replies of KelSysdiagMaster. */
uint32_t Kel_sys_diag_AlarmOutput_pack(const PackTarget* target, const AlarmOutput* record);
uint32_t Kel_sys_diag_OvLoadDiskCtlOutput_pack(const PackTarget* target,
                                               const OvLoadDiskCtlOutput* record);

/* Requests of KelSysdiagQarne. BrdPartInfoInput has no fields: its record is any non-null pointer.
 */
uint32_t Kel_sys_diag_BrdPartInfoInput_pack(const PackTarget* target, const void* record);
uint32_t Kel_sys_diag_FdProcInfoInput_pack(const PackTarget* target, const FdProcInfoInput* record);
uint32_t Kel_sys_diag_SysOvLoadDiskThreshold_pack(const PackTarget* target,
                                                  const SysOvLoadDiskThreshold* record);
uint32_t Kel_sys_diag_SysDiskUseInput_pack(const PackTarget* target, const SysDiskUseInput* record);
uint32_t Kel_sys_diag_ResetDiskCondition_pack(const PackTarget* target,
                                              const ResetDiskCondition* record);
uint32_t Kel_sys_diag_MountDiskInput_pack(const PackTarget* target, const MountDiskInput* record);
uint32_t Kel_sys_diag_StorageEraseInfoInput_pack(const PackTarget* target,
                                                 const StorageEraseInfoInput* record);
uint32_t Kel_sys_diag_StorageBadBlockInfoInput_pack(const PackTarget* target,
                                                    const StorageBadBlockInfoInput* record);

/* Replies of KelSysdiagQarne. Entries are unpacked into one block from the unit's allocator hook,
 * which the record owns. Whatever count a message claims, the block is never larger than a quarter
 * of the message's length times the size of an entry record: every entry takes at least four bytes
 * of the message. */
uintptr_t Kel_sys_diag_BrdPartInfo_unpack(const void* bytes, uint32_t length, BrdPartInfo* record);
void Kel_sys_diag_BrdPartInfo_free_unpacked(BrdPartInfo* record);
uintptr_t Kel_sys_diag_FdProcInfoOutput_unpack(const void* bytes, uint32_t length,
                                               FdProcInfoOutput* record);
void Kel_sys_diag_FdProcInfoOutput_free_unpacked(FdProcInfoOutput* record);
uintptr_t Kel_sys_diag_OperResult_unpack(const void* bytes, uint32_t length, OperResult* record);
void Kel_sys_diag_OperResult_free_unpacked(OperResult* record);
uintptr_t Kel_sys_diag_SysDiskUseInfoResult_unpack(const void* bytes, uint32_t length,
                                                   SysDiskUseInfoResult* record);
void Kel_sys_diag_SysDiskUseInfoResult_free_unpacked(SysDiskUseInfoResult* record);
uintptr_t Kel_sys_diag_ResetDiskResult_unpack(const void* bytes, uint32_t length,
                                              ResetDiskResult* record);
void Kel_sys_diag_ResetDiskResult_free_unpacked(ResetDiskResult* record);
uintptr_t Kel_sys_diag_MountDiskResult_unpack(const void* bytes, uint32_t length,
                                              MountDiskResult* record);
void Kel_sys_diag_MountDiskResult_free_unpacked(MountDiskResult* record);
uintptr_t Kel_sys_diag_StorageEraseInfo_unpack(const void* bytes, uint32_t length,
                                               StorageEraseInfo* record);
void Kel_sys_diag_StorageEraseInfo_free_unpacked(StorageEraseInfo* record);
uintptr_t Kel_sys_diag_StorageBadBlockInfo_unpack(const void* bytes, uint32_t length,
                                                  StorageBadBlockInfo* record);
void Kel_sys_diag_StorageBadBlockInfo_free_unpacked(StorageBadBlockInfo* record);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
