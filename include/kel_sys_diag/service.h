/* The served role of libkel_sys_diag.so: the service KelSysdiagQarne, as the framework finds it.
 * For framework authors; clean in C11 and C++11.
 *
 * The framework looks up __module_spec_KelSysdiagQarne by name after loading the library, walks its
 * interface table and calls a method's wrapper for each request (rpc.h says what follows). The
 * tables are complete once the library is loaded; the library itself neither reads nor writes them.
 *
 * The work is the host's: for each of the eight methods it must define two functions, <Method> and
 * <Method>_free, with C linkage and default visibility. Like the framework's functions, they have
 * to be in the executable (linked with -rdynamic, if it loads the library by dlopen), in a library
 * of global scope, or in something that is itself linked with this library. The library only takes
 * their addresses (ServiceMethodBinding, IdlCodecOps) and never calls them; it does not load if the
 * loader does not find all of them. Their signatures are agreed between host and framework and
 * therefore not declared here; a usual agreement is
 *
 *   int32_t KelMountDisk(const MountDiskInput* input, MountDiskResult* output);
 *   void KelMountDisk_free(MountDiskResult* output);
 *
 * where a result of 0 means that output is to be sent. The records:
 *
 *   method                         input record (bytes)            output record (bytes)
 *   KelBrdPartInfoQuery            none, any address but null (0)  BrdPartInfo (16)
 *   FdProcInfoQuery                FdProcInfoInput (8)             FdProcInfoOutput (16)
 *   KelSysOvLoadDiskThresholdSet   SysOvLoadDiskThreshold (56)     OperResult (4)
 *   KelGetSysDiskUseInfo           SysDiskUseInput (50)            SysDiskUseInfoResult (168)
 *   KelResetDiskMakeFS             ResetDiskCondition (50)         ResetDiskResult (4)
 *   KelMountDisk                   MountDiskInput (50)             MountDiskResult (4)
 *   KelQueryStorageEraseInfo       StorageEraseInfoInput (4)       StorageEraseInfo (16)
 *   KelQueryStorageBadBlockInfo    StorageBadBlockInfoInput (32)   StorageBadBlockInfo (16)
 */
#ifndef KEL_SYS_DIAG_SERVICE_H
#define KEL_SYS_DIAG_SERVICE_H

#include <kel_sys_diag/records.h>
#include <kel_sys_diag/rpc.h>

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

/* The service, its eight methods and their sixteen messages. Each of the two tables has one entry
 * more, entry 0; rpc.h describes it and the others. */
extern IdlModuleSpec __module_spec_KelSysdiagQarne;
extern IdlIntfEntry intf_tbl_KelSysdiagQarne[9];
extern IdlMsgDesc msgdesc_tbl_KelSysdiagQarne[17];

/* The wrappers, reentrant, in the order of the interface table. */
int32_t KelBrdPartInfoQuery_wrapper(uintptr_t first, uintptr_t second, IdlCodecOps* ops);
int32_t FdProcInfoQuery_wrapper(uintptr_t first, uintptr_t second, IdlCodecOps* ops);
int32_t KelSysOvLoadDiskThresholdSet_wrapper(uintptr_t first, uintptr_t second, IdlCodecOps* ops);
int32_t KelGetSysDiskUseInfo_wrapper(uintptr_t first, uintptr_t second, IdlCodecOps* ops);
int32_t KelResetDiskMakeFS_wrapper(uintptr_t first, uintptr_t second, IdlCodecOps* ops);
int32_t KelMountDisk_wrapper(uintptr_t first, uintptr_t second, IdlCodecOps* ops);
int32_t KelQueryStorageEraseInfo_wrapper(uintptr_t first, uintptr_t second, IdlCodecOps* ops);
int32_t KelQueryStorageBadBlockInfo_wrapper(uintptr_t first, uintptr_t second, IdlCodecOps* ops);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
