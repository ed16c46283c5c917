// What each exported stub hands to the framework, and that it gives the framework's result back.
#include <gtest/gtest.h>
#include <kel_sys_diag/client.h>

#include <cstring>
#include <thread>
#include <vector>

#include "support/framework_double.hpp"

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

template <auto Stub>
struct Sync;
template <class Input, class Output, int32_t (*Stub)(const Input*, Output*, uintptr_t)>
struct Sync<Stub> {
  static int32_t call(const void* input, void* output, uintptr_t invokeArg) {
    return Stub(static_cast<const Input*>(input), static_cast<Output*>(output), invokeArg);
  }
};

template <auto Stub>
struct Async;
template <class Input, int32_t (*Stub)(const Input*, uintptr_t, uintptr_t, uintptr_t)>
struct Async<Stub> {
  static int32_t call(const void* input, uintptr_t userArg1, uintptr_t userArg2,
                      uintptr_t invokeArg) {
    return Stub(static_cast<const Input*>(input), userArg1, userArg2, invokeArg);
  }
};

const Stubs kStubs[] = {
    {"KelSendAlarm", 64, 8, 0, KelSysdiagMaster_KelSendAlarmSetIdl,
     Sync<KelSysdiagMaster_KelSendAlarm>::call, Async<KelSysdiagMaster_KelSendAlarm_async>::call},
    {"KelSendOverloadAlarm", 116, 8, 192, KelSysdiagMaster_KelSendOverloadAlarmSetIdl,
     Sync<KelSysdiagMaster_KelSendOverloadAlarm>::call,
     Async<KelSysdiagMaster_KelSendOverloadAlarm_async>::call},
    {"KelSendMobileDiskOverloadAlarm", 132, 8, 208,
     KelSysdiagMaster_KelSendMobileDiskOverloadAlarmSetIdl,
     Sync<KelSysdiagMaster_KelSendMobileDiskOverloadAlarm>::call,
     Async<KelSysdiagMaster_KelSendMobileDiskOverloadAlarm_async>::call},
    {"KelGetDiskOvLoadCfgInfo", 114, 124, 160, KelSysdiagMaster_KelGetDiskOvLoadCfgInfoSetIdl,
     Sync<KelSysdiagMaster_KelGetDiskOvLoadCfgInfo>::call,
     Async<KelSysdiagMaster_KelGetDiskOvLoadCfgInfo_async>::call},
};

bool operator==(const IdlCodecOps& left, const IdlCodecOps& right) {
  return std::memcmp(&left, &right, sizeof left) == 0;
}

void expectOps(const Stubs& stubs, const IdlCodecOps& ops) {
  EXPECT_NE(ops.unpackFn, nullptr);
  EXPECT_NE(ops.packFn, nullptr);
  EXPECT_NE(ops.releaseFn, nullptr);
  EXPECT_EQ(ops.userFreeFn, nullptr);
  EXPECT_EQ(ops.fixedPackFn != nullptr, stubs.fixedSize != 0);
  EXPECT_EQ(ops.fixedSizeFn == nullptr ? 0 : ops.fixedSizeFn(), stubs.fixedSize);
}

void expectHandedOver(const Stubs& stubs, const FrameworkCall& call, const void* input) {
  IdlCodecOps ops;
  std::memset(&ops, 0xEE, sizeof ops);
  stubs.setIdl(&ops);
  expectOps(stubs, ops);
  EXPECT_TRUE(call.ops == ops);
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

TEST(ClientStubs, HandOverTheMethodAndGiveTheResultBack) { callEveryStub(); }

TEST(ClientStubs, RunOnAnyThread) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 16; ++i) threads.emplace_back(callEveryStub);
  for (std::thread& thread : threads) thread.join();
}

TEST(ClientStubs, MethodsDoNotShareCodecs) {
  for (const Stubs& left : kStubs) {
    for (const Stubs& right : kStubs) {
      IdlCodecOps leftOps;
      IdlCodecOps rightOps;
      left.setIdl(&leftOps);
      right.setIdl(&rightOps);
      EXPECT_EQ(leftOps.packFn == rightOps.packFn, &left == &right);
      const bool bothAlarms = left.outputSize == 8 && right.outputSize == 8;
      EXPECT_EQ(leftOps.unpackFn == rightOps.unpackFn, bothAlarms || &left == &right);
      EXPECT_EQ(leftOps.releaseFn == rightOps.releaseFn, bothAlarms || &left == &right);
    }
  }
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
