/* A C11 program against the public headers: it compiles without a warning, links, and sends a
 * record there and back. It carries a framework of its own, as every host does. */
#include <kel_sys_diag/client.h>
#include <kel_sys_diag/osal.h>
#include <kel_sys_diag/peer.h>
#include <kel_sys_diag/service.h>
#include <stdio.h>
#include <string.h>

void* RPC_GetRpcInvoke(RpcServerAddr* server, uintptr_t invokeArg) {
  (void)invokeArg;
  return server;
}

/* Answers every alarm with its own text. */
int32_t RPC_IdlSyncCallStub(void* invoker, const void* input, void* output,
                            const IdlMethodRef* method, const IdlCodecOps* ops) {
  uint8_t request[256];
  uint8_t reply[256];
  const uint32_t capacity = sizeof request;
  const PackTarget requestTarget = {request, &capacity};
  const PackTarget replyTarget = {reply, &capacity};
  AlarmInput alarm;
  AlarmOutput answer;
  uint32_t size = ops->packFn(&requestTarget, input);
  (void)invoker;
  (void)method;
  if (size == 0 || Kel_sys_diag_AlarmInput_unpack(request, size, &alarm) == 0) {
    return -1;
  }
  answer.text = (char*)alarm.text;
  size = Kel_sys_diag_AlarmOutput_pack(&replyTarget, &answer);
  Kel_sys_diag_AlarmInput_free_unpacked(&alarm);
  return size != 0 && ops->unpackFn(reply, size, output) != 0 ? 0 : -1;
}

int32_t RPC_IdlAsyncCallStub(void* invoker, const void* input, const IdlMethodRef* method,
                             const IdlCodecOps* ops, const IdlAsyncInfo* info) {
  (void)invoker;
  (void)input;
  (void)method;
  (void)ops;
  (void)info;
  return -1;
}

int32_t RPC_IdlServiceWrapper(uintptr_t first, uint32_t inputRecordSize, uintptr_t second,
                              IdlCodecOps* ops, const ServiceMethodBinding* binding) {
  (void)first;
  (void)inputRecordSize;
  (void)second;
  (void)ops;
  return binding->mode == 1 ? 0 : -1;
}

int main(void) {
  const AlarmInput input = {.value1 = 7, .text = "from C"};
  AlarmOutput output = {NULL};
  IdlCodecOps ops;
  int same = 0;
  if (KelSysdiagMaster_KelSendAlarm(&input, &output, 0) != 0) {
    fputs("the call failed\n", stderr);
    return 1;
  }
  same = strcmp(output.text, input.text) == 0;
  KelSysdiagMaster_KelSendAlarmSetIdl(&ops);
  ops.releaseFn(&output);
  if (!same || output.text != NULL) {
    fputs("the reply is not the text that was sent, or was not released\n", stderr);
    return 1;
  }
  if (__module_spec_KelSysdiagQarne.intfTable[1].wrapper(0, 0, &ops) != 0) {
    fputs("the first wrapper did not hand over its binding\n", stderr);
    return 1;
  }
  return 0;
}
