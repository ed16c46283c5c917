// KelSysdiagQarne's method wrappers: each hands the framework its method's codecs and the host's
// functions. Exported; kel_sys_diag/service.h documents them.
#include <kel_sys_diag/service.h>

#include "schema/brd_part_info_messages.hpp"
#include "schema/disk_reset_mount_messages.hpp"
#include "schema/disk_threshold_messages.hpp"
#include "schema/disk_use_messages.hpp"
#include "schema/fd_proc_info_messages.hpp"
#include "schema/server_routines.hpp"
#include "schema/storage_messages.hpp"

// Defined by the host and bound when the library is loaded. Only their addresses are used: what
// they take and return is between the host and its framework.
extern "C" {
#pragma GCC visibility push(default)
void KelBrdPartInfoQuery(void);
void KelBrdPartInfoQuery_free(void);
void FdProcInfoQuery(void);
void FdProcInfoQuery_free(void);
void KelSysOvLoadDiskThresholdSet(void);
void KelSysOvLoadDiskThresholdSet_free(void);
void KelGetSysDiskUseInfo(void);
void KelGetSysDiskUseInfo_free(void);
void KelResetDiskMakeFS(void);
void KelResetDiskMakeFS_free(void);
void KelMountDisk(void);
void KelMountDisk_free(void);
void KelQueryStorageEraseInfo(void);
void KelQueryStorageEraseInfo_free(void);
void KelQueryStorageBadBlockInfo(void);
void KelQueryStorageBadBlockInfo_free(void);
#pragma GCC visibility pop
}

namespace {

// A framework may tell methods apart by their hooks, so each has its own.
void KelBrdPartInfoQuery_hook() {}
void FdProcInfoQuery_hook() {}
void KelSysOvLoadDiskThresholdSet_hook() {}
void KelGetSysDiskUseInfo_hook() {}
void KelResetDiskMakeFS_hook() {}
void KelMountDisk_hook() {}
void KelQueryStorageEraseInfo_hook() {}
void KelQueryStorageBadBlockInfo_hook() {}

constexpr uint64_t kMode = 1;

struct ServedMethod {
  uint32_t inputRecordSize;
  IdlCodecOps ops;
  ServiceMethodBinding binding;
};

// In the order of the interface table's methods.
enum Method : uint8_t {
  kBrdPartInfoQuery,
  kFdProcInfoQuery,
  kSysOvLoadDiskThresholdSet,
  kGetSysDiskUseInfo,
  kResetDiskMakeFS,
  kMountDisk,
  kQueryStorageEraseInfo,
  kQueryStorageBadBlockInfo,
};

constexpr ServedMethod kServedMethods[] = {
    {korva::kRecordSize<BrdPartInfoInput>,
     {Kel_sys_diag_BrdPartInfoInput_unpack, Kel_sys_diag_BrdPartInfo_pack,
      Kel_sys_diag_BrdPartInfo_free_unpacked, KelBrdPartInfoQuery_free, nullptr, nullptr},
     {KelBrdPartInfoQuery, KelBrdPartInfoQuery_hook, kMode}},
    {korva::kRecordSize<FdProcInfoInput>,
     {Kel_sys_diag_FdProcInfoInput_unpack, Kel_sys_diag_FdProcInfoOutput_pack,
      Kel_sys_diag_FdProcInfoOutput_free_unpacked, FdProcInfoQuery_free, nullptr, nullptr},
     {FdProcInfoQuery, FdProcInfoQuery_hook, kMode}},
    {korva::kRecordSize<SysOvLoadDiskThreshold>,
     {Kel_sys_diag_SysOvLoadDiskThreshold_unpack, Kel_sys_diag_OperResult_pack,
      Kel_sys_diag_OperResult_free_unpacked, KelSysOvLoadDiskThresholdSet_free,
      Kel_sys_diag_OperResult_fixed_pack, Kel_sys_diag_OperResult_fixed_size},
     {KelSysOvLoadDiskThresholdSet, KelSysOvLoadDiskThresholdSet_hook, kMode}},
    {korva::kRecordSize<SysDiskUseInput>,
     {Kel_sys_diag_SysDiskUseInput_unpack, Kel_sys_diag_SysDiskUseInfoResult_pack,
      Kel_sys_diag_SysDiskUseInfoResult_free_unpacked, KelGetSysDiskUseInfo_free,
      Kel_sys_diag_SysDiskUseInfoResult_fixed_pack, Kel_sys_diag_SysDiskUseInfoResult_fixed_size},
     {KelGetSysDiskUseInfo, KelGetSysDiskUseInfo_hook, kMode}},
    {korva::kRecordSize<ResetDiskCondition>,
     {Kel_sys_diag_ResetDiskCondition_unpack, Kel_sys_diag_ResetDiskResult_pack,
      Kel_sys_diag_ResetDiskResult_free_unpacked, KelResetDiskMakeFS_free,
      Kel_sys_diag_ResetDiskResult_fixed_pack, Kel_sys_diag_ResetDiskResult_fixed_size},
     {KelResetDiskMakeFS, KelResetDiskMakeFS_hook, kMode}},
    {korva::kRecordSize<MountDiskInput>,
     {Kel_sys_diag_MountDiskInput_unpack, Kel_sys_diag_MountDiskResult_pack,
      Kel_sys_diag_MountDiskResult_free_unpacked, KelMountDisk_free,
      Kel_sys_diag_MountDiskResult_fixed_pack, Kel_sys_diag_MountDiskResult_fixed_size},
     {KelMountDisk, KelMountDisk_hook, kMode}},
    {korva::kRecordSize<StorageEraseInfoInput>,
     {Kel_sys_diag_StorageEraseInfoInput_unpack, Kel_sys_diag_StorageEraseInfo_pack,
      Kel_sys_diag_StorageEraseInfo_free_unpacked, KelQueryStorageEraseInfo_free, nullptr, nullptr},
     {KelQueryStorageEraseInfo, KelQueryStorageEraseInfo_hook, kMode}},
    {korva::kRecordSize<StorageBadBlockInfoInput>,
     {Kel_sys_diag_StorageBadBlockInfoInput_unpack, Kel_sys_diag_StorageBadBlockInfo_pack,
      Kel_sys_diag_StorageBadBlockInfo_free_unpacked, KelQueryStorageBadBlockInfo_free, nullptr,
      nullptr},
     {KelQueryStorageBadBlockInfo, KelQueryStorageBadBlockInfo_hook, kMode}},
};

// The framework gets a copy of the binding that lives for the one call.
int32_t serve(Method method, uintptr_t first, uintptr_t second, IdlCodecOps* ops) {
  const ServedMethod& served = kServedMethods[method];
  *ops = served.ops;
  ServiceMethodBinding binding = served.binding;
  return RPC_IdlServiceWrapper(first, served.inputRecordSize, second, ops, &binding);
}

}  // namespace

int32_t KelBrdPartInfoQuery_wrapper(uintptr_t first, uintptr_t second, IdlCodecOps* ops) {
  return serve(kBrdPartInfoQuery, first, second, ops);
}

int32_t FdProcInfoQuery_wrapper(uintptr_t first, uintptr_t second, IdlCodecOps* ops) {
  return serve(kFdProcInfoQuery, first, second, ops);
}

int32_t KelSysOvLoadDiskThresholdSet_wrapper(uintptr_t first, uintptr_t second, IdlCodecOps* ops) {
  return serve(kSysOvLoadDiskThresholdSet, first, second, ops);
}

int32_t KelGetSysDiskUseInfo_wrapper(uintptr_t first, uintptr_t second, IdlCodecOps* ops) {
  return serve(kGetSysDiskUseInfo, first, second, ops);
}

int32_t KelResetDiskMakeFS_wrapper(uintptr_t first, uintptr_t second, IdlCodecOps* ops) {
  return serve(kResetDiskMakeFS, first, second, ops);
}

int32_t KelMountDisk_wrapper(uintptr_t first, uintptr_t second, IdlCodecOps* ops) {
  return serve(kMountDisk, first, second, ops);
}

int32_t KelQueryStorageEraseInfo_wrapper(uintptr_t first, uintptr_t second, IdlCodecOps* ops) {
  return serve(kQueryStorageEraseInfo, first, second, ops);
}

int32_t KelQueryStorageBadBlockInfo_wrapper(uintptr_t first, uintptr_t second, IdlCodecOps* ops) {
  return serve(kQueryStorageBadBlockInfo, first, second, ops);
}
