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

struct Framework {
  void* invokerToReturn = nullptr;
  int32_t resultToReturn = 0;
  FrameworkCall lastCall;
};

// One for each thread, so that concurrent calls do not meet.
Framework& framework();

}  // namespace kel::test
