/* The sixteen functions that a host process defines, as addresses. For tests. */
#ifndef KEL_TESTS_HOST_FUNCTIONS_H
#define KEL_TESTS_HOST_FUNCTIONS_H

#ifdef __cplusplus
extern "C" {
#endif

#define KEL_FOR_EACH_METHOD(visit)                                                      \
  visit(KelBrdPartInfoQuery) visit(FdProcInfoQuery) visit(KelSysOvLoadDiskThresholdSet) \
      visit(KelGetSysDiskUseInfo) visit(KelResetDiskMakeFS) visit(KelMountDisk)         \
          visit(KelQueryStorageEraseInfo) visit(KelQueryStorageBadBlockInfo)

#pragma GCC visibility push(default)
#define KEL_DECLARE(method) \
  void method(void);        \
  void method##_free(void);
KEL_FOR_EACH_METHOD(KEL_DECLARE)
#undef KEL_DECLARE
#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
