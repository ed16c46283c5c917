// The recording framework.
#include "tests/support/framework_double.hpp"

#include <cstring>

namespace kel::test {

Framework& framework() {
  thread_local Framework instance;
  return instance;
}

namespace {

// What a call hands over is its own, so that nothing later depends on what becomes of it.
template <class Record>
void spoil(const Record* handedOver) {
  std::memset(const_cast<Record*>(handedOver), 0xEE, sizeof(Record));
}

int32_t record(void* invoker, const void* input, void* output, const IdlMethodRef* method,
               const IdlCodecOps* ops, const IdlAsyncInfo* info) {
  FrameworkCall& call = framework().lastCall;
  ++framework().calls;
  call.invoker = invoker;
  call.input = input;
  call.output = output;
  call.serviceName = method->serviceName;
  call.methodName = method->methodName;
  call.ops = *ops;
  call.asyncInfo = info == nullptr ? std::nullopt : std::optional(*info);
  spoil(method);
  spoil(ops);
  if (info != nullptr) spoil(info);
  return framework().resultToReturn;
}

}  // namespace
}  // namespace kel::test

void* RPC_GetRpcInvoke(RpcServerAddr* server, uintptr_t invokeArg) {
  kel::test::Framework& framework = kel::test::framework();
  framework.lastCall = {};
  ++framework.invokers;
  framework.lastCall.server = server;
  framework.lastCall.invokeArg = invokeArg;
  return framework.invokerToReturn;
}

int32_t RPC_IdlSyncCallStub(void* invoker, const void* input, void* output,
                            const IdlMethodRef* method, const IdlCodecOps* ops) {
  return kel::test::record(invoker, input, output, method, ops, nullptr);
}

int32_t RPC_IdlAsyncCallStub(void* invoker, const void* input, const IdlMethodRef* method,
                             const IdlCodecOps* ops, const IdlAsyncInfo* info) {
  return kel::test::record(invoker, input, nullptr, method, ops, info);
}

int32_t RPC_IdlServiceWrapper(uintptr_t first, uint32_t inputRecordSize, uintptr_t second,
                              IdlCodecOps* ops, const ServiceMethodBinding* binding) {
  ++kel::test::framework().calls;
  kel::test::framework().lastServiceCall = {first, second, inputRecordSize, ops, *ops, *binding};
  kel::test::spoil(binding);
  return kel::test::framework().resultToReturn;
}
