// What each exported stub hands to the framework, and that it gives the framework's result back.
#include <gtest/gtest.h>
#include <kel_sys_diag/client.h>

#include <cstring>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/framework_double.hpp"

namespace {

using kel::test::Framework;
using kel::test::framework;
using kel::test::FrameworkCall;

// The typed stubs behind one signature, so that a table can hold them.
struct Stubs {
  const char* method;
  uint32_t inputSize;
  uint32_t outputSize;
  uint32_t fixedSize;  // 0: the method has no fixed layout
  void (*setIdl)(IdlCodecOps*);
  int32_t (*sync)(const void*, void*, uintptr_t);
  int32_t (*async)(const void*, uintptr_t, uintptr_t, uintptr_t);
};

#define KEL_STUBS(method, Input, inputSize, Output, outputSize, fixedSize)                     \
  {                                                                                            \
    #method, inputSize, outputSize, fixedSize, KelSysdiagMaster_##method##SetIdl,              \
        [](const void* input, void* output, uintptr_t invokeArg) {                             \
          return KelSysdiagMaster_##method(static_cast<const Input*>(input),                   \
                                           static_cast<Output*>(output), invokeArg);           \
        },                                                                                     \
        [](const void* input, uintptr_t userArg1, uintptr_t userArg2, uintptr_t invokeArg) {   \
          return KelSysdiagMaster_##method##_async(static_cast<const Input*>(input), userArg1, \
                                                   userArg2, invokeArg);                       \
        }                                                                                      \
  }

const Stubs kStubs[] = {
    KEL_STUBS(KelSendAlarm, AlarmInput, 64, AlarmOutput, 8, 0),
    KEL_STUBS(KelSendOverloadAlarm, OverloadAlarmInput, 116, AlarmOutput, 8, 192),
    KEL_STUBS(KelSendMobileDiskOverloadAlarm, OverloadDiskAlarmInput, 132, AlarmOutput, 8, 208),
    KEL_STUBS(KelGetDiskOvLoadCfgInfo, OvLoadDiskCtlInput, 114, OvLoadDiskCtlOutput, 124, 160),
};

void expectHandedOver(const Stubs& stubs, const FrameworkCall& call, const void* input) {
  EXPECT_EQ(std::exchange(framework().invokers, 0), 1);
  EXPECT_EQ(std::exchange(framework().calls, 0), 1);
  IdlCodecOps ops;
  std::memset(&ops, 0xEE, sizeof ops);
  stubs.setIdl(&ops);
  EXPECT_NE(ops.unpackFn, nullptr);
  EXPECT_NE(ops.packFn, nullptr);
  EXPECT_NE(ops.releaseFn, nullptr);
  EXPECT_EQ(ops.userFreeFn, nullptr);
  EXPECT_EQ(ops.fixedPackFn != nullptr, stubs.fixedSize != 0);
  EXPECT_EQ(ops.fixedSizeFn == nullptr ? 0 : ops.fixedSizeFn(), stubs.fixedSize);
  EXPECT_EQ(std::memcmp(&call.ops, &ops, sizeof ops), 0);
  EXPECT_EQ(call.server, &g_stServerAddr_KelSysdiagMaster);
  EXPECT_EQ(call.invoker, framework().invokerToReturn);
  EXPECT_EQ(call.invokeArg, 41U);
  EXPECT_EQ(call.input, input);
  EXPECT_EQ(call.serviceName, "KelSysdiagMaster");
  EXPECT_EQ(call.methodName, stubs.method);
}

// Negative results, a null invoker and unmapped record addresses included: a stub looks at nothing.
void callEveryStub() {
  Framework& mine = framework();
  for (const Stubs& stubs : kStubs) {
    SCOPED_TRACE(stubs.method);
    const void* const input = reinterpret_cast<const void*>(uintptr_t{0x1000});
    void* const output = reinterpret_cast<void*>(uintptr_t{0x2000});
    for (const int32_t result : {0, 1, -1, INT32_MIN, INT32_MAX}) {
      mine.resultToReturn = result;
      mine.invokerToReturn = result == 0 ? nullptr : &mine;

      EXPECT_EQ(stubs.sync(input, output, 41), result);
      expectHandedOver(stubs, mine.lastCall, input);
      EXPECT_EQ(mine.lastCall.output, output);
      EXPECT_FALSE(mine.lastCall.asyncInfo.has_value());

      EXPECT_EQ(stubs.async(input, 42, UINTPTR_MAX, 41), result);
      expectHandedOver(stubs, mine.lastCall, input);
      ASSERT_TRUE(mine.lastCall.asyncInfo.has_value());
      EXPECT_EQ(mine.lastCall.asyncInfo->inputSize, stubs.inputSize);
      EXPECT_EQ(mine.lastCall.asyncInfo->outputSize, stubs.outputSize);
      EXPECT_EQ(mine.lastCall.asyncInfo->userArg1, 42U);
      EXPECT_EQ(mine.lastCall.asyncInfo->userArg2, UINTPTR_MAX);
    }
  }
}

TEST(ClientStubs, HandOverTheMethodAndGiveTheResultBackOnAnyThread) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 16; ++i) threads.emplace_back(callEveryStub);
  for (std::thread& thread : threads) thread.join();
}

TEST(ServerAddress, HoldsTheServiceNameAndAnEmptyWritableEndpoint) {
  RpcServerAddr& address = g_stServerAddr_KelSysdiagMaster;
  EXPECT_STREQ(address.serviceName, "KelSysdiagMaster");
  for (const uint8_t byte : address.endpoint) EXPECT_EQ(byte, 0);
  std::memset(address.endpoint, 0xFF, sizeof address.endpoint);
  callEveryStub();
  for (const uint8_t byte : address.endpoint) EXPECT_EQ(byte, 0xFF);
}

}  // namespace
