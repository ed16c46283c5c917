/* The client role of libkel_sys_diag.so: calls to the remote service KelSysdiagMaster.
 * For host processes; clean in C11 and C++11.
 *
 * Each method has three functions. All are reentrant and may be called from any number of threads.
 *
 *   KelSysdiagMaster_<Method>SetIdl  fills ops, which the caller owns, with the method's codecs;
 *                                    all six slots are written. ops must not be null.
 *   KelSysdiagMaster_<Method>        calls the method and waits. The framework decodes the reply
 *                                    into output. invokeArg goes to the framework unchanged.
 *   KelSysdiagMaster_<Method>_async  starts a call. The framework receives userArg1, userArg2 and
 *                                    invokeArg unchanged and completes the call in its own way.
 *
 * input and what it points to stay the caller's, who may change or free them as soon as the
 * function has returned, also an asynchronous one. output is the caller's as well. Set it to zeros
 * before the call: then it may be released whatever the result is (rpc.h says why).
 *
 * The stubs check nothing and return the framework's result unchanged. So the framework decides
 * what invokeArg, userArg1, userArg2 and the result mean, and who releases an output record, with
 * the releaseFn that SetIdl fills in. osal.h says what encoding and decoding log, and how. */
#ifndef KEL_SYS_DIAG_CLIENT_H
#define KEL_SYS_DIAG_CLIENT_H

#include <kel_sys_diag/records.h>
#include <kel_sys_diag/rpc.h>

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

/* Passed to RPC_GetRpcInvoke by every call. Writable: the host puts the endpoint there before its
 * first call, in the form that its framework expects. If the library is unloaded and loaded again,
 * the endpoint is zero again. */
extern RpcServerAddr g_stServerAddr_KelSysdiagMaster;

void KelSysdiagMaster_KelSendAlarmSetIdl(IdlCodecOps* ops);
int32_t KelSysdiagMaster_KelSendAlarm(const AlarmInput* input, AlarmOutput* output,
                                      uintptr_t invokeArg);
int32_t KelSysdiagMaster_KelSendAlarm_async(const AlarmInput* input, uintptr_t userArg1,
                                            uintptr_t userArg2, uintptr_t invokeArg);

void KelSysdiagMaster_KelSendOverloadAlarmSetIdl(IdlCodecOps* ops);
int32_t KelSysdiagMaster_KelSendOverloadAlarm(const OverloadAlarmInput* input, AlarmOutput* output,
                                              uintptr_t invokeArg);
int32_t KelSysdiagMaster_KelSendOverloadAlarm_async(const OverloadAlarmInput* input,
                                                    uintptr_t userArg1, uintptr_t userArg2,
                                                    uintptr_t invokeArg);

void KelSysdiagMaster_KelSendMobileDiskOverloadAlarmSetIdl(IdlCodecOps* ops);
int32_t KelSysdiagMaster_KelSendMobileDiskOverloadAlarm(const OverloadDiskAlarmInput* input,
                                                        AlarmOutput* output, uintptr_t invokeArg);
int32_t KelSysdiagMaster_KelSendMobileDiskOverloadAlarm_async(const OverloadDiskAlarmInput* input,
                                                              uintptr_t userArg1,
                                                              uintptr_t userArg2,
                                                              uintptr_t invokeArg);

void KelSysdiagMaster_KelGetDiskOvLoadCfgInfoSetIdl(IdlCodecOps* ops);
int32_t KelSysdiagMaster_KelGetDiskOvLoadCfgInfo(const OvLoadDiskCtlInput* input,
                                                 OvLoadDiskCtlOutput* output, uintptr_t invokeArg);
int32_t KelSysdiagMaster_KelGetDiskOvLoadCfgInfo_async(const OvLoadDiskCtlInput* input,
                                                       uintptr_t userArg1, uintptr_t userArg2,
                                                       uintptr_t invokeArg);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
