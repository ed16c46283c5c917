// The served role as a framework meets it: the exported tables, and what each wrapper hands over.
#include <gtest/gtest.h>
#include <kel_sys_diag/service.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "tests/support/framework_double.hpp"
#include "tests/support/host_functions.h"

namespace {

using kel::test::framework;
using kel::test::ServiceCall;

struct Method {
  const char* name;
  IdlWrapperFn wrapper;
  uint32_t inputRecordSize;
  uint32_t fixedSize;  // 0: the reply has no fixed layout
  IdlHostFn implementation;
  IdlHostFn userFree;
  const char* input;
  const char* output;
};

#define KEL_METHOD(method, input, inputRecordSize, output, fixedSize) \
  { #method, method##_wrapper, inputRecordSize, fixedSize, method, method##_free, #input, #output }

const Method kMethods[] = {
    KEL_METHOD(KelBrdPartInfoQuery, BrdPartInfoInput, 0, BrdPartInfo, 0),
    KEL_METHOD(FdProcInfoQuery, FdProcInfoInput, 8, FdProcInfoOutput, 0),
    KEL_METHOD(KelSysOvLoadDiskThresholdSet, SysOvLoadDiskThreshold, 56, OperResult, 24),
    KEL_METHOD(KelGetSysDiskUseInfo, SysDiskUseInput, 50, SysDiskUseInfoResult, 216),
    KEL_METHOD(KelResetDiskMakeFS, ResetDiskCondition, 50, ResetDiskResult, 24),
    KEL_METHOD(KelMountDisk, MountDiskInput, 50, MountDiskResult, 24),
    KEL_METHOD(KelQueryStorageEraseInfo, StorageEraseInfoInput, 4, StorageEraseInfo, 0),
    KEL_METHOD(KelQueryStorageBadBlockInfo, StorageBadBlockInfoInput, 32, StorageBadBlockInfo, 0),
};

ServiceCall callWrapper(const Method& method, IdlCodecOps& ops, int32_t result) {
  std::memset(&ops, 0xEE, sizeof ops);
  framework().resultToReturn = result;
  framework().calls = 0;
  EXPECT_EQ(method.wrapper(11, UINTPTR_MAX, &ops), result) << method.name;
  EXPECT_EQ(framework().calls, 1);
  return framework().lastServiceCall;
}

void callEveryWrapper() {
  for (const Method& method : kMethods) {
    SCOPED_TRACE(method.name);
    IdlCodecOps ops;
    const ServiceCall call = callWrapper(method, ops, INT32_MIN);
    EXPECT_EQ(call.first, 11U);
    EXPECT_EQ(call.second, UINTPTR_MAX);
    EXPECT_EQ(call.inputRecordSize, method.inputRecordSize);
    EXPECT_EQ(call.ops, &ops);
    EXPECT_EQ(call.binding.implementation, method.implementation);
    EXPECT_EQ(call.binding.mode, 1U);
    EXPECT_NE(ops.unpackFn, nullptr);
    EXPECT_NE(ops.packFn, nullptr);
    EXPECT_NE(ops.releaseFn, nullptr);
    EXPECT_EQ(ops.userFreeFn, method.userFree);
    EXPECT_EQ(ops.fixedPackFn != nullptr, method.fixedSize != 0);
    EXPECT_EQ(ops.fixedSizeFn == nullptr ? 0 : ops.fixedSizeFn(), method.fixedSize);

    IdlCodecOps again;
    const ServiceCall second = callWrapper(method, again, 0);
    EXPECT_EQ(std::memcmp(&ops, &again, sizeof ops), 0);
    EXPECT_EQ(std::memcmp(&ops, &call.slots, sizeof ops), 0);
    EXPECT_EQ(second.binding.hook, call.binding.hook);
  }
}

TEST(Wrappers, HandOverTheMethodAndGiveTheResultBackOnAnyThread) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 16; ++i) threads.emplace_back(callEveryWrapper);
  for (std::thread& thread : threads) thread.join();
}

TEST(Wrappers, HaveAHookEach) {
  std::set<IdlHostFn> hooks;
  for (const Method& method : kMethods) {
    IdlCodecOps ops;
    const ServiceCall call = callWrapper(method, ops, 0);
    hooks.insert(call.binding.hook);
    call.binding.hook();  // does nothing
  }
  EXPECT_EQ(hooks.size(), std::size(kMethods));
}

uint32_t idOf(const std::string& message) {
  uint32_t hash = 0x811C9DC5;
  for (const char character : "Kel_sys_diag." + message) {
    hash = (hash ^ static_cast<unsigned char>(character)) * 0x01000193;
  }
  return hash;
}

template <size_t Size>
void expectPadded(const char (&field)[Size], std::string_view text) {
  std::string expected(text);
  expected.resize(Size);
  EXPECT_EQ(std::string(field, Size), expected);
}

bool allZero(const void* object, size_t size) {
  const auto* const bytes = static_cast<const unsigned char*>(object);
  return std::all_of(bytes, bytes + size, [](unsigned char byte) { return byte == 0; });
}

TEST(Tables, DescribeTheService) {
  const IdlModuleSpec& spec = __module_spec_KelSysdiagQarne;
  expectPadded(spec.name, "KelSysdiagQarne");
  EXPECT_EQ(spec.intfCount, 1 + std::size(kMethods));
  EXPECT_EQ(spec.msgDescCount, 1 + 2 * std::size(kMethods));
  EXPECT_EQ(spec.intfTable, intf_tbl_KelSysdiagQarne);
  EXPECT_EQ(spec.msgDescTable, msgdesc_tbl_KelSysdiagQarne);
  EXPECT_TRUE(allZero(spec.reserved, sizeof spec.reserved));

  EXPECT_EQ(spec.intfTable[0].marker, 0xFFFFFFFF);
  EXPECT_TRUE(allZero(&spec.intfTable[0].reserved1, sizeof(IdlIntfEntry) - 4));
  EXPECT_TRUE(allZero(&spec.msgDescTable[0], sizeof(IdlMsgDesc)));

  for (size_t k = 1; k < spec.intfCount; ++k) {
    const Method& method = kMethods[k - 1];
    const IdlIntfEntry& entry = spec.intfTable[k];
    SCOPED_TRACE(method.name);
    expectPadded(entry.methodName, method.name);
    EXPECT_EQ(entry.wrapper, method.wrapper);
    EXPECT_EQ(entry.marker | entry.reserved1 | entry.reserved2, 0U);
    EXPECT_EQ(entry.inputMsgId, idOf(method.input));
    const IdlMsgDesc& input = spec.msgDescTable[2 * k - 1];
    const IdlMsgDesc& output = spec.msgDescTable[2 * k];
    EXPECT_EQ(input.msgId, entry.inputMsgId);
    EXPECT_EQ(output.msgId, idOf(method.output));
    EXPECT_TRUE(allZero(input.reserved, sizeof input.reserved));
    EXPECT_TRUE(allZero(output.reserved, sizeof output.reserved));
  }
}

}  // namespace
