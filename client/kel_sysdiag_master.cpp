// KelSysdiagMaster's call stubs: each names its method, binds the method's codecs and leaves the
// rest to the host's framework. Exported; kel_sys_diag/client.h documents them.
#include <kel_sys_diag/client.h>

#include "schema/client_routines.hpp"

namespace {

constexpr char kServiceName[] = "KelSysdiagMaster";

enum Method : uint8_t {
  kSendAlarm,
  kSendOverloadAlarm,
  kSendMobileDiskOverloadAlarm,
  kGetDiskOvLoadCfgInfo,
};

constexpr IdlMethodRef method_tbl_KelSysdiagMaster[] = {
    {kServiceName, "KelSendAlarm"},
    {kServiceName, "KelSendOverloadAlarm"},
    {kServiceName, "KelSendMobileDiskOverloadAlarm"},
    {kServiceName, "KelGetDiskOvLoadCfgInfo"},
};

constexpr IdlCodecOps kCodecOps[] = {
    {Kel_sys_diag_AlarmOutput_unpack, Kel_sys_diag_AlarmInput_pack,
     Kel_sys_diag_AlarmOutput_free_unpacked, nullptr, nullptr, nullptr},
    {Kel_sys_diag_AlarmOutput_unpack, Kel_sys_diag_OverloadAlarmInput_pack,
     Kel_sys_diag_AlarmOutput_free_unpacked, nullptr, Kel_sys_diag_OverloadAlarmInput_fixed_pack,
     Kel_sys_diag_OverloadAlarmInput_fixed_size},
    {Kel_sys_diag_AlarmOutput_unpack, Kel_sys_diag_OverloadDiskAlarmInput_pack,
     Kel_sys_diag_AlarmOutput_free_unpacked, nullptr,
     Kel_sys_diag_OverloadDiskAlarmInput_fixed_pack,
     Kel_sys_diag_OverloadDiskAlarmInput_fixed_size},
    {Kel_sys_diag_OvLoadDiskCtlOutput_unpack, Kel_sys_diag_OvLoadDiskCtlInput_pack,
     Kel_sys_diag_OvLoadDiskCtlOutput_free_unpacked, nullptr,
     Kel_sys_diag_OvLoadDiskCtlInput_fixed_pack, Kel_sys_diag_OvLoadDiskCtlInput_fixed_size},
};

// The framework gets copies that live for the one call: it may do with them what it likes.
int32_t callSync(Method method, const void* input, void* output, uintptr_t invokeArg) {
  IdlMethodRef methodRef = method_tbl_KelSysdiagMaster[method];
  void* const invoker = RPC_GetRpcInvoke(&g_stServerAddr_KelSysdiagMaster, invokeArg);
  IdlCodecOps ops = kCodecOps[method];
  return RPC_IdlSyncCallStub(invoker, input, output, &methodRef, &ops);
}

template <class Output, class Input>
int32_t callAsync(Method method, const Input* input, uintptr_t userArg1, uintptr_t userArg2,
                  uintptr_t invokeArg) {
  IdlAsyncInfo info{sizeof(Input), sizeof(Output), userArg1, userArg2};
  IdlMethodRef methodRef = method_tbl_KelSysdiagMaster[method];
  void* const invoker = RPC_GetRpcInvoke(&g_stServerAddr_KelSysdiagMaster, invokeArg);
  IdlCodecOps ops = kCodecOps[method];
  return RPC_IdlAsyncCallStub(invoker, input, &methodRef, &ops, &info);
}

}  // namespace

constinit RpcServerAddr g_stServerAddr_KelSysdiagMaster{{}, kServiceName};

void KelSysdiagMaster_KelSendAlarmSetIdl(IdlCodecOps* ops) { *ops = kCodecOps[kSendAlarm]; }

int32_t KelSysdiagMaster_KelSendAlarm(const AlarmInput* input, AlarmOutput* output,
                                      uintptr_t invokeArg) {
  return callSync(kSendAlarm, input, output, invokeArg);
}

int32_t KelSysdiagMaster_KelSendAlarm_async(const AlarmInput* input, uintptr_t userArg1,
                                            uintptr_t userArg2, uintptr_t invokeArg) {
  return callAsync<AlarmOutput>(kSendAlarm, input, userArg1, userArg2, invokeArg);
}

void KelSysdiagMaster_KelSendOverloadAlarmSetIdl(IdlCodecOps* ops) {
  *ops = kCodecOps[kSendOverloadAlarm];
}

int32_t KelSysdiagMaster_KelSendOverloadAlarm(const OverloadAlarmInput* input, AlarmOutput* output,
                                              uintptr_t invokeArg) {
  return callSync(kSendOverloadAlarm, input, output, invokeArg);
}

int32_t KelSysdiagMaster_KelSendOverloadAlarm_async(const OverloadAlarmInput* input,
                                                    uintptr_t userArg1, uintptr_t userArg2,
                                                    uintptr_t invokeArg) {
  return callAsync<AlarmOutput>(kSendOverloadAlarm, input, userArg1, userArg2, invokeArg);
}

void KelSysdiagMaster_KelSendMobileDiskOverloadAlarmSetIdl(IdlCodecOps* ops) {
  *ops = kCodecOps[kSendMobileDiskOverloadAlarm];
}

int32_t KelSysdiagMaster_KelSendMobileDiskOverloadAlarm(const OverloadDiskAlarmInput* input,
                                                        AlarmOutput* output, uintptr_t invokeArg) {
  return callSync(kSendMobileDiskOverloadAlarm, input, output, invokeArg);
}

int32_t KelSysdiagMaster_KelSendMobileDiskOverloadAlarm_async(const OverloadDiskAlarmInput* input,
                                                              uintptr_t userArg1,
                                                              uintptr_t userArg2,
                                                              uintptr_t invokeArg) {
  return callAsync<AlarmOutput>(kSendMobileDiskOverloadAlarm, input, userArg1, userArg2, invokeArg);
}

void KelSysdiagMaster_KelGetDiskOvLoadCfgInfoSetIdl(IdlCodecOps* ops) {
  *ops = kCodecOps[kGetDiskOvLoadCfgInfo];
}

int32_t KelSysdiagMaster_KelGetDiskOvLoadCfgInfo(const OvLoadDiskCtlInput* input,
                                                 OvLoadDiskCtlOutput* output, uintptr_t invokeArg) {
  return callSync(kGetDiskOvLoadCfgInfo, input, output, invokeArg);
}

int32_t KelSysdiagMaster_KelGetDiskOvLoadCfgInfo_async(const OvLoadDiskCtlInput* input,
                                                       uintptr_t userArg1, uintptr_t userArg2,
                                                       uintptr_t invokeArg) {
  return callAsync<OvLoadDiskCtlOutput>(kGetDiskOvLoadCfgInfo, input, userArg1, userArg2,
                                        invokeArg);
}
