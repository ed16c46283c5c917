// The four RPC_ functions of a framework that records what the library hands over and answers what
// a test asked for. For tests that link the library itself.
#pragma once

#include <kel_sys_diag/rpc.h>

#include <optional>
#include <string>

namespace kel::test {

// One call as the framework saw it. The library's records end with the call, so they are copied.
struct FrameworkCall {
  RpcServerAddr* server = nullptr;
  uintptr_t invokeArg = 0;
  void* invoker = nullptr;
  const void* input = nullptr;
  void* output = nullptr;
  std::string serviceName;
  std::string methodName;
  IdlCodecOps ops{};
  std::optional<IdlAsyncInfo> asyncInfo;
};

// One served request as a wrapper described it.
struct ServiceCall {
  uintptr_t first = 0;
  uintptr_t second = 0;
  uint32_t inputRecordSize = 0;
  IdlCodecOps* ops = nullptr;
  IdlCodecOps slots{};  // what ops held
  ServiceMethodBinding binding{};
};

struct Framework {
  void* invokerToReturn = nullptr;
  int32_t resultToReturn = 0;
  FrameworkCall lastCall;
  int invokers = 0;  // handed out
  int calls = 0;
  ServiceCall lastServiceCall;
};

// One for each thread, so that concurrent calls do not meet.
Framework& framework();

}  // namespace kel::test
