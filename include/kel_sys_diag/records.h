/* The in-memory records of the Kel_sys_diag messages, shared by host, framework and library.
 * For every host process; clean in C11 and C++11.
 *
 * Records are plain structures with natural alignment. A record belongs to whoever declares it; no
 * codec routine ever frees a record. Scalars are raw bits to the codecs: what a field means, and
 * whether it is signed, is for the two ends of a service to agree. Byte arrays are sent whole; no
 * terminator is looked for or added. The sizes asserted below are part of the binary interface: the
 * library reports them to the RPC framework, and every host must be compiled to the same layout.
 *
 * In a reply with entries, entries is an array of entryCount records, or null, which means no
 * entries, whatever entryCount says. It belongs to the reply's record, and the release routine
 * frees it through the release hook (osal.h). An array that is to be freed in this way must come
 * from the allocator that pairs with the hook: QSV_OsalMemCacheAlloc, called with module number 12,
 * if the library finds all three memory functions and the flag function returns 1; otherwise malloc
 * (the C library's, if dlopen was told RTLD_DEEPBIND).
 *
 * A received text may contain NULs before the one at its end; read as a string, it ends at the
 * first. */
#ifndef KEL_SYS_DIAG_RECORDS_H
#define KEL_SYS_DIAG_RECORDS_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Request of KelSendAlarm. */
typedef struct AlarmInput {
  uint32_t value1;
  uint32_t value2;
  const char* text; /* NUL-terminated, or null for an absent text; owned by the caller when it is
                       packed, by the record when it was unpacked */
  uint32_t value3;
  uint32_t value4;
  uint8_t bytes32[32];
  uint32_t value5;
} AlarmInput;

/* Reply of all three alarm methods. */
typedef struct AlarmOutput {
  char* text; /* NUL-terminated, or null for an absent text; owned by the record once unpacked, and
                 given back only by the release routine */
} AlarmOutput;

/* Nested record of the overload alarms and of FdProcEntry. */
typedef struct DiagSubRecord {
  uint16_t value16;
  uint8_t byte1;
  uint8_t byte2;
  uint8_t byte3;
  uint8_t byte4;
  uint8_t byte5;
  uint8_t byte6;
  uint32_t value32;
} DiagSubRecord;

/* Request of KelSendOverloadAlarm. */
typedef struct OverloadAlarmInput {
  uint32_t value1;
  uint32_t value2;
  uint32_t value3;
  uint32_t value4;
  DiagSubRecord sub;
  uint32_t value5;
  uint32_t value6;
  uint32_t value7;
  uint8_t bytes64[64];
  uint32_t value8;
  uint32_t value9;
  uint32_t value10;
} OverloadAlarmInput;

/* Request of KelSendMobileDiskOverloadAlarm. */
typedef struct OverloadDiskAlarmInput {
  uint32_t value1;
  uint32_t value2;
  uint32_t value3;
  uint32_t value4;
  DiagSubRecord sub;
  uint8_t bytes64[64];
  uint8_t bytes32[32];
  uint32_t value5;
  uint32_t value6;
} OverloadDiskAlarmInput;

/* Request of KelGetDiskOvLoadCfgInfo. */
typedef struct OvLoadDiskCtlInput {
  uint8_t bytes32a[32];
  uint8_t bytes32b[32];
  uint8_t bytes50[50];
} OvLoadDiskCtlInput;

/* Reply of KelGetDiskOvLoadCfgInfo. */
typedef struct OvLoadDiskCtlOutput {
  uint8_t bytes32a[32];
  uint8_t bytes32b[32];
  uint32_t value1;
  uint32_t value2;
  uint8_t bytes50[50];
} OvLoadDiskCtlOutput;

/* Reply of KelBrdPartInfoQuery; its request, BrdPartInfoInput, has no fields and a record of size
 * 0. */
typedef struct BrdPartEntry {
  uint8_t bytes50a[50];
  uint8_t bytes50b[50];
  uint8_t bytes32[32];
  uint64_t value1;
  uint64_t value2;
  uint64_t value3;
  uint32_t value4;
  uint8_t bytes64[64];
} BrdPartEntry;

typedef struct BrdPartInfo {
  uint32_t entryCount;
  BrdPartEntry* entries;
} BrdPartInfo;

/* Request and reply of FdProcInfoQuery. */
typedef struct FdProcInfoInput {
  uint32_t value1;
  uint32_t value2;
} FdProcInfoInput;

typedef struct FdProcEntry {
  uint32_t value1;
  uint32_t value2;
  DiagSubRecord sub1;
  DiagSubRecord sub2;
  DiagSubRecord sub3;
  uint8_t bytes256[256];
} FdProcEntry;

typedef struct FdProcInfoOutput {
  uint32_t entryCount;
  FdProcEntry* entries;
} FdProcInfoOutput;

/* Request and reply of KelSysOvLoadDiskThresholdSet. */
typedef struct SysOvLoadDiskThreshold {
  uint8_t bytes50[50];
  uint32_t value1;
} SysOvLoadDiskThreshold;

typedef struct OperResult {
  uint32_t result;
} OperResult;

/* Request and reply of KelGetSysDiskUseInfo. */
typedef struct SysDiskUseInput {
  uint8_t bytes50[50];
} SysDiskUseInput;

typedef struct SysDiskUseInfoResult {
  uint8_t bytes50a[50];
  uint8_t bytes50b[50];
  uint64_t value1;
  uint64_t value2;
  uint32_t value3;
  uint8_t bytes32[32];
  uint32_t value4;
  uint32_t value5;
} SysDiskUseInfoResult;

/* Requests and replies of KelResetDiskMakeFS and KelMountDisk: messages of their own, which share
 * record types with others. */
typedef SysDiskUseInput ResetDiskCondition;
typedef OperResult ResetDiskResult;
typedef SysDiskUseInput MountDiskInput;
typedef OperResult MountDiskResult;

/* Request and reply of KelQueryStorageEraseInfo. */
typedef struct StorageEraseInfoInput {
  uint32_t value1;
} StorageEraseInfoInput;

typedef struct StorageEraseEntry {
  uint32_t value1;
  uint64_t value2;
} StorageEraseEntry;

typedef struct StorageEraseInfo {
  uint32_t entryCount;
  StorageEraseEntry* entries;
} StorageEraseInfo;

/* Request and reply of KelQueryStorageBadBlockInfo. */
typedef struct StorageBadBlockInfoInput {
  uint8_t bytes32[32];
} StorageBadBlockInfoInput;

typedef struct StorageBadBlockEntry {
  uint8_t bytes32[32];
  uint64_t value1;
} StorageBadBlockEntry;

typedef struct StorageBadBlockInfo {
  uint32_t entryCount;
  StorageBadBlockEntry* entries;
} StorageBadBlockInfo;

/* Without <assert.h>, which would redefine an assert macro of the host's own. */
#ifdef __cplusplus
#define KEL_LAYOUT(holds) static_assert(holds, "layout")
#else
#define KEL_LAYOUT(holds) _Static_assert(holds, "layout")
#endif
KEL_LAYOUT(sizeof(void*) == 8); /* 64-bit platforms only */
KEL_LAYOUT(sizeof(AlarmInput) == 64);
KEL_LAYOUT(offsetof(AlarmInput, text) == 8);
KEL_LAYOUT(offsetof(AlarmInput, bytes32) == 24);
KEL_LAYOUT(offsetof(AlarmInput, value5) == 56);
KEL_LAYOUT(sizeof(AlarmOutput) == 8);
KEL_LAYOUT(sizeof(DiagSubRecord) == 12);
KEL_LAYOUT(offsetof(DiagSubRecord, byte1) == 2);
KEL_LAYOUT(offsetof(DiagSubRecord, value32) == 8);
KEL_LAYOUT(sizeof(OverloadAlarmInput) == 116);
KEL_LAYOUT(offsetof(OverloadAlarmInput, sub) == 16);
KEL_LAYOUT(offsetof(OverloadAlarmInput, bytes64) == 40);
KEL_LAYOUT(offsetof(OverloadAlarmInput, value8) == 104);
KEL_LAYOUT(sizeof(OverloadDiskAlarmInput) == 132);
KEL_LAYOUT(offsetof(OverloadDiskAlarmInput, sub) == 16);
KEL_LAYOUT(offsetof(OverloadDiskAlarmInput, bytes64) == 28);
KEL_LAYOUT(offsetof(OverloadDiskAlarmInput, bytes32) == 92);
KEL_LAYOUT(offsetof(OverloadDiskAlarmInput, value5) == 124);
KEL_LAYOUT(sizeof(OvLoadDiskCtlInput) == 114);
KEL_LAYOUT(offsetof(OvLoadDiskCtlInput, bytes50) == 64);
KEL_LAYOUT(sizeof(OvLoadDiskCtlOutput) == 124);
KEL_LAYOUT(offsetof(OvLoadDiskCtlOutput, value1) == 64);
KEL_LAYOUT(offsetof(OvLoadDiskCtlOutput, bytes50) == 72);
KEL_LAYOUT(sizeof(BrdPartEntry) == 232);
KEL_LAYOUT(offsetof(BrdPartEntry, value1) == 136);
KEL_LAYOUT(offsetof(BrdPartEntry, bytes64) == 164);
KEL_LAYOUT(sizeof(FdProcInfoInput) == 8);
KEL_LAYOUT(sizeof(FdProcEntry) == 300);
KEL_LAYOUT(offsetof(FdProcEntry, sub1) == 8);
KEL_LAYOUT(offsetof(FdProcEntry, bytes256) == 44);
KEL_LAYOUT(sizeof(SysOvLoadDiskThreshold) == 56);
KEL_LAYOUT(offsetof(SysOvLoadDiskThreshold, value1) == 52);
KEL_LAYOUT(sizeof(OperResult) == 4);
KEL_LAYOUT(sizeof(SysDiskUseInput) == 50);
KEL_LAYOUT(sizeof(SysDiskUseInfoResult) == 168);
KEL_LAYOUT(offsetof(SysDiskUseInfoResult, value1) == 104);
KEL_LAYOUT(offsetof(SysDiskUseInfoResult, bytes32) == 124);
KEL_LAYOUT(offsetof(SysDiskUseInfoResult, value4) == 156);
KEL_LAYOUT(sizeof(StorageEraseInfoInput) == 4);
KEL_LAYOUT(sizeof(StorageEraseEntry) == 16);
KEL_LAYOUT(offsetof(StorageEraseEntry, value2) == 8);
KEL_LAYOUT(sizeof(StorageBadBlockInfoInput) == 32);
KEL_LAYOUT(sizeof(StorageBadBlockEntry) == 40);
KEL_LAYOUT(offsetof(StorageBadBlockEntry, value1) == 32);
KEL_LAYOUT(sizeof(BrdPartInfo) == 16);
KEL_LAYOUT(offsetof(BrdPartInfo, entries) == 8);
KEL_LAYOUT(sizeof(FdProcInfoOutput) == 16);
KEL_LAYOUT(offsetof(FdProcInfoOutput, entries) == 8);
KEL_LAYOUT(sizeof(StorageEraseInfo) == 16);
KEL_LAYOUT(offsetof(StorageEraseInfo, entries) == 8);
KEL_LAYOUT(sizeof(StorageBadBlockInfo) == 16);
KEL_LAYOUT(offsetof(StorageBadBlockInfo, entries) == 8);
#undef KEL_LAYOUT

#ifdef __cplusplus
}
#endif

#endif
