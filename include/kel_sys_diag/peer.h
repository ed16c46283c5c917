/* libkel_sys_diag_peer.so: the other half of the services, for whoever talks to a host process: a
 * KelSysdiagMaster server decodes the requests here and encodes the replies.
 * Clean in C11 and C++; every function is reentrant and may run on any thread.
 *
 * The functions follow the rules of the IdlCodecOps slots in rpc.h and log in the same way. They
 * are a unit of their own: their allocator and log hooks (osal.h) are looked up apart from those of
 * libkel_sys_diag.so, by the same names.
 *
 *   Kel_sys_diag_<Message>_unpack         decodes length bytes into record. Returns record as an
 *                                         integer, or 0; nothing is left allocated after a 0.
 *   Kel_sys_diag_<Message>_pack           with a null target, returns the encoded size; otherwise
 *                                         writes, and returns the number of bytes; 0 on failure.
 *   Kel_sys_diag_<Message>_free_unpacked  gives back what unpacking allocated, and clears the
 *                                         pointers to it. Not for records that the caller filled
 *                                         from other memory. Does nothing for null, and nothing at
 *                                         all for a record without pointers. */
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

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
