/* A C11 program against the public headers: it compiles without a warning, links, and sends a
 * record there and back. It carries a framework of its own, as every host does. */
#include <kel_sys_diag/client.h>
#include <kel_sys_diag/osal.h>
#include <kel_sys_diag/peer.h>
#include <kel_sys_diag/service.h>
#include <stdio.h>
#include <string.h>

void* RPC_GetRpcInvoke(RpcServerAddr* server, uintptr_t invokeArg) {
  return invokeArg == 0 ? server : NULL;
}

/* Answers every alarm with its own text. */
int32_t RPC_IdlSyncCallStub(void* invoker, const void* input, void* output,
                            const IdlMethodRef* method, const IdlCodecOps* ops) {
  uint8_t bytes[256];
  const uint32_t capacity = sizeof bytes;
  const PackTarget target = {bytes, &capacity};
  AlarmInput alarm;
  AlarmOutput answer;
  uint32_t size = ops->packFn(&target, input);
  if (invoker == NULL || method == NULL ||
      Kel_sys_diag_AlarmInput_unpack(bytes, size, &alarm) == 0) {
    return -1;
  }
  answer.text = (char*)alarm.text;
  size = Kel_sys_diag_AlarmOutput_pack(&target, &answer);
  Kel_sys_diag_AlarmInput_free_unpacked(&alarm);
  return ops->unpackFn(bytes, size, output) != 0 ? 0 : -1;
}

int32_t RPC_IdlAsyncCallStub(void* invoker, const void* input, const IdlMethodRef* method,
                             const IdlCodecOps* ops, const IdlAsyncInfo* info) {
  return invoker && input && method && ops && info ? 0 : -1;
}

int32_t RPC_IdlServiceWrapper(uintptr_t first, uint32_t inputRecordSize, uintptr_t second,
                              IdlCodecOps* ops, const ServiceMethodBinding* binding) {
  return first + second + inputRecordSize == 0 && ops != NULL && binding->mode == 1 ? 0 : -1;
}

static int check(int holds, const char* what) {
  if (!holds) fprintf(stderr, "not so: %s\n", what);
  return holds ? 0 : 1;
}

int main(void) {
  const AlarmInput input = {.value1 = 7, .text = "from C"};
  AlarmOutput output = {NULL};
  IdlCodecOps ops;
  int failures = check(KelSysdiagMaster_KelSendAlarm(&input, &output, 0) == 0 &&
                           strcmp(output.text, input.text) == 0,
                       "the reply is the text that was sent");
  KelSysdiagMaster_KelSendAlarmSetIdl(&ops);
  ops.releaseFn(&output);
  failures += check(output.text == NULL, "the reply was released");
  failures += check(__module_spec_KelSysdiagQarne.intfTable[1].wrapper(0, 0, &ops) == 0,
                    "the first wrapper hands over its binding");
  return failures;
}
