// The host's sixteen functions of KelSysdiagQarne, by the convention of method_convention.hpp. A
// program that loads the library must link them and export them. For host programs and tests.
#pragma once

#include <kel_sys_diag/records.h>

#include <array>
#include <cstdint>
#include <string_view>

namespace kel::host {

class Diagnostics;

// Who answers from now on; null: nobody, and every call fails. The object must outlive the calls.
void setDiagnostics(Diagnostics* diagnostics);

// The paths of those methods that only tell what there is, and so are for everybody. The others
// change the machine.
inline constexpr std::array<std::string_view, 5> kAskingMethods = {
    "/KelSysdiagQarne/KelBrdPartInfoQuery",         "/KelSysdiagQarne/FdProcInfoQuery",
    "/KelSysdiagQarne/KelGetSysDiskUseInfo",        "/KelSysdiagQarne/KelQueryStorageEraseInfo",
    "/KelSysdiagQarne/KelQueryStorageBadBlockInfo",
};

// FdProcInfoQuery lists so many processes when it is not told how many, and never more than so
// many, which keeps the reply below gRPC's usual limit of 4 MiB.
inline constexpr uint32_t kDefaultProcesses = 64;
inline constexpr uint32_t kMostProcesses = 4096;

}  // namespace kel::host

extern "C" {
#pragma GCC visibility push(default)

int32_t KelBrdPartInfoQuery(const void* input, BrdPartInfo* output);
void KelBrdPartInfoQuery_free(BrdPartInfo* output);
int32_t FdProcInfoQuery(const FdProcInfoInput* input, FdProcInfoOutput* output);
void FdProcInfoQuery_free(FdProcInfoOutput* output);
int32_t KelSysOvLoadDiskThresholdSet(const SysOvLoadDiskThreshold* input, OperResult* output);
void KelSysOvLoadDiskThresholdSet_free(OperResult* output);
int32_t KelGetSysDiskUseInfo(const SysDiskUseInput* input, SysDiskUseInfoResult* output);
void KelGetSysDiskUseInfo_free(SysDiskUseInfoResult* output);
int32_t KelResetDiskMakeFS(const ResetDiskCondition* input, ResetDiskResult* output);
void KelResetDiskMakeFS_free(ResetDiskResult* output);
int32_t KelMountDisk(const MountDiskInput* input, MountDiskResult* output);
void KelMountDisk_free(MountDiskResult* output);
int32_t KelQueryStorageEraseInfo(const StorageEraseInfoInput* input, StorageEraseInfo* output);
void KelQueryStorageEraseInfo_free(StorageEraseInfo* output);
int32_t KelQueryStorageBadBlockInfo(const StorageBadBlockInfoInput* input,
                                    StorageBadBlockInfo* output);
void KelQueryStorageBadBlockInfo_free(StorageBadBlockInfo* output);

#pragma GCC visibility pop
}
