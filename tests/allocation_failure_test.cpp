// Every allocation refused, under the platform's allocator and under the default one: the routine
// fails, says so once, and keeps nothing. No routine makes more than one. The program stands in for
// dlsym, malloc and free, as the objects of the client and the peer unit, where all such routines
// are, call them.
#include <gtest/gtest.h>
#include <kel_sys_diag/osal.h>
#include <kel_sys_diag/peer.h>

#include <cstring>
#include <functional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "schema/client_routines.hpp"
#include "support/bytes.hpp"
#include "support/own_process.hpp"

extern "C" void* __real_malloc(size_t size);
extern "C" void __real_free(void* block);

namespace {

using kel::test::Bytes;
using kel::test::inAProcessOfItsOwn;

// What the routine under test has asked for. Only that routine runs while the account is open; all
// other memory of the program is none of its business.
struct Account {
  bool open = false;
  bool platformServes = false;
  bool refuses = false;
  int requests = 0;
  std::set<void*> blocks;
  std::vector<std::string> logLines;

  void during(const std::function<void()>& routine) {
    requests = 0;
    logLines.clear();
    open = true;
    routine();
    open = false;
  }
  void* allocate(size_t size) {
    ++requests;
    return refuses ? nullptr : *blocks.insert(__real_malloc(size)).first;
  }
  void free(void* block) {
    if (block != nullptr) {
      EXPECT_EQ(blocks.erase(block), 1U) << "not allocated by this pair";
    }
    __real_free(block);
  }
};
Account account;

void* cacheAlloc(uint32_t size, uint32_t, const char*) { return account.allocate(size); }
int32_t cacheFree(void* block, uint32_t, const char*) {
  account.free(block);
  return 0;
}
uint32_t flagGet(uint32_t) { return 1; }
int32_t logWrite(const KorvaLogDescriptor*, uint32_t, uint32_t code, const char*, uint32_t,
                 const char* function, const char*, ...) {
  account.logLines.push_back(std::to_string(code) + " " + function);
  return 0;
}

}  // namespace

extern "C" void* __wrap_malloc(size_t size) {
  if (!account.open) return __real_malloc(size);
  EXPECT_FALSE(account.platformServes) << "malloc instead of the platform's allocator";
  return account.allocate(size);
}

extern "C" void __wrap_free(void* block) {
  if (!account.open) return __real_free(block);
  EXPECT_FALSE(account.platformServes) << "free instead of the platform's release";
  account.free(block);
}

extern "C" void* __wrap_dlsym(void*, const char* name) {
  const std::string_view symbol = name;
  if (symbol == "QSV_OsalLogWrite") return reinterpret_cast<void*>(logWrite);
  if (!account.platformServes) return nullptr;
  if (symbol == "QSV_OsalMemUseFlagGet") return reinterpret_cast<void*>(flagGet);
  if (symbol == "QSV_OsalMemCacheAlloc") return reinterpret_cast<void*>(cacheAlloc);
  return reinterpret_cast<void*>(cacheFree);
}

namespace {

// The routines of a message, and bytes of it that take an allocation.
struct Owner {
  std::string name;
  uintptr_t (*unpack)(const void*, uint32_t, void*);
  void (*release)(void*);
  std::vector<uint8_t> bytes;
};

#define KEL_OWNER(message, bytes)                                                                  \
  Owner {                                                                                          \
    "Kel_sys_diag_" #message,                                                                      \
        [](const void* received, uint32_t length, void* record) {                                  \
          return Kel_sys_diag_##message##_unpack(received, length, static_cast<message*>(record)); \
        },                                                                                         \
        [](void* record) {                                                                         \
          Kel_sys_diag_##message##_free_unpacked(static_cast<message*>(record));                   \
        },                                                                                         \
        bytes                                                                                      \
  }

void refuseThenServe(const Owner& owner) {
  SCOPED_TRACE(owner.name);
  alignas(8) uint8_t record[64];
  for (const bool refuses : {true, false}) {
    account.refuses = refuses;
    std::memset(record, 0xDD, sizeof record);
    uintptr_t result = 0;
    account.during([&] {
      result = owner.unpack(owner.bytes.data(), static_cast<uint32_t>(owner.bytes.size()), record);
    });
    EXPECT_EQ(result == 0, refuses);
    EXPECT_EQ(account.requests, 1);
    EXPECT_EQ(account.logLines, refuses ? std::vector{"12 " + owner.name + "_unpack_non_root"}
                                        : std::vector<std::string>{});
    EXPECT_EQ(account.blocks.size(), refuses ? 0U : 1U);
    account.during([&] { owner.release(record); });  // after a failure there is nothing left to do
    EXPECT_TRUE(account.blocks.empty());
  }
}

void refuseEveryAllocation() {
  const std::vector<uint8_t> output = Bytes().u32(10).u16s({6, 15, 4}).u32s({6, 4, 2}).text("ok");
  const std::vector<uint8_t> input =
      Bytes().u32(14).u16s({10, 8, 0, 0, 4}).u32s({10, 4, 2}).text("ok");
  const std::vector<uint8_t> oneEntry =
      Bytes().u32(10).u16s({6, 8, 4}).u32s({6, 4, 1, 8}).u16s({4, 4}).u32(4);
  for (const Owner& owner :
       {KEL_OWNER(AlarmOutput, output), KEL_OWNER(AlarmInput, input),
        KEL_OWNER(BrdPartInfo, oneEntry), KEL_OWNER(FdProcInfoOutput, oneEntry),
        KEL_OWNER(StorageEraseInfo, oneEntry), KEL_OWNER(StorageBadBlockInfo, oneEntry)}) {
    refuseThenServe(owner);
  }
}

TEST(AllocationFailure, UnderThePlatformPair) {
  inAProcessOfItsOwn([] {
    account.platformServes = true;
    refuseEveryAllocation();
  });
}

TEST(AllocationFailure, UnderTheDefaultPair) { inAProcessOfItsOwn(refuseEveryAllocation); }

// Packing needs no memory at all.
TEST(AllocationFailure, LeavesPackersAlone) {
  const AlarmInput alarm{1, 0, "text", 0, 2, {3}, 4};
  const OverloadDiskAlarmInput zeros{};  // no record without pointers is longer
  for (const bool platformServes : {true, false}) {
    inAProcessOfItsOwn([&] {
      account.platformServes = platformServes;
      uint8_t buffer[256];
      const uint32_t capacity = sizeof buffer;
      const PackTarget target{buffer, &capacity};
      account.during([&] {
        EXPECT_NE(Kel_sys_diag_AlarmInput_pack(&target, &alarm), 0U);
        EXPECT_NE(Kel_sys_diag_OverloadAlarmInput_pack(&target, &zeros), 0U);
        EXPECT_NE(Kel_sys_diag_OverloadDiskAlarmInput_pack(&target, &zeros), 0U);
        EXPECT_NE(Kel_sys_diag_OvLoadDiskCtlInput_pack(&target, &zeros), 0U);
        EXPECT_EQ(Kel_sys_diag_OverloadAlarmInput_fixed_pack(buffer, &zeros), 0);
      });
      EXPECT_EQ(account.requests, 0);
    });
  }
}

}  // namespace
