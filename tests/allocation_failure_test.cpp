// Every allocation of every routine that can make one, refused in turn, under the platform's
// allocator and under the default one: the routine fails, says so once, and keeps nothing. The
// program stands in for dlsym, malloc and free, as the objects of the client and the peer unit,
// where all such routines are, call them.
#include <gtest/gtest.h>
#include <kel_sys_diag/osal.h>
#include <kel_sys_diag/peer.h>

#include <functional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "schema/alarm_messages.hpp"
#include "schema/brd_part_info_messages.hpp"
#include "schema/client_routines.hpp"
#include "schema/disk_overload_config_messages.hpp"
#include "schema/disk_reset_mount_messages.hpp"
#include "schema/fd_proc_info_messages.hpp"
#include "schema/overload_alarm_messages.hpp"
#include "schema/storage_messages.hpp"
#include "support/codec_with_entries.hpp"
#include "support/own_process.hpp"
#include "support/records.hpp"

extern "C" void* __real_malloc(size_t size);
extern "C" void __real_free(void* block);

namespace {

using kel::test::discard;
using kel::test::inAProcessOfItsOwn;
using kel::test::packToSize;
using kel::test::Random;
using kel::test::RecordMaker;
using kel::test::sameRecord;
using kel::test::WithEntries;

// What the routine under test has asked for. Only that routine runs while the account is open; all
// other memory of the program is none of its business.
struct Account {
  bool open = false;
  bool platformServes = false;
  int untilRefusal = 0;
  int requests = 0;
  std::set<void*> blocks;
  std::vector<std::string> logLines;

  void* allocate(size_t size) {
    open = false;  // the set is no part of it
    ++requests;
    void* block = nullptr;
    if (untilRefusal-- > 0) {
      block = __real_malloc(size);
      blocks.insert(block);
    }
    open = true;
    return block;
  }
  void free(void* block) {
    open = false;
    if (block != nullptr) {
      EXPECT_EQ(blocks.erase(block), 1U) << "not allocated by this pair";
    }
    __real_free(block);
    open = true;
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
  account.open = false;
  account.logLines.push_back(std::to_string(code) + " " + function);
  account.open = true;
  return 0;
}

}  // namespace

extern "C" void* __wrap_malloc(size_t size) {
  if (!account.open) return __real_malloc(size);
  EXPECT_FALSE(account.platformServes) << "malloc instead of the platform's allocator";
  return account.allocate(size);
}

extern "C" void __wrap_free(void* block) {
  if (!account.open) {
    __real_free(block);
    return;
  }
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

// Decodes messages of one kind over and over, allowing one more allocation each time.
template <class Message, auto Unpack, auto Release>
void refuseInTurn(int allocations) {
  using Record = typename Message::Record;
  static constinit korva::CodecRuntime writersRuntime{.memReady = 1};
  const std::string name = "Kel_sys_diag_" + std::string(Message::kName.view());
  SCOPED_TRACE(name);
  Random random(7);
  RecordMaker maker(random, 40, 5);
  for (int round = 0; round < 50; ++round) {
    Record record;
    maker.fill(record);
    const std::vector<uint8_t> bytes =
        packToSize(WithEntries<kel::PackageCodec<Message, writersRuntime>>::pack, record);
    const auto length = static_cast<uint32_t>(bytes.size());
    int needed = 0;
    korva::forEachSlot<Record>([&]<class Slot, size_t>() {
      if constexpr (Slot::kind == korva::SlotKind::string) {
        needed += Slot::get(record) != nullptr ? 1 : 0;
      } else if constexpr (Slot::kind == korva::SlotKind::vector) {
        needed += Slot::get(record) != nullptr && Slot::count(record) != 0 ? 1 : 0;
      }
    });
    ASSERT_LE(needed, allocations);
    for (int allowed = 0; allowed <= needed; ++allowed) {
      Record unpacked;
      std::memset(static_cast<void*>(&unpacked), 0xDD, sizeof unpacked);
      account.untilRefusal = allowed;
      account.requests = 0;
      account.logLines.clear();
      account.open = true;
      const bool accepted = Unpack(bytes.data(), length, &unpacked) != 0;
      account.open = false;
      ASSERT_EQ(accepted, allowed == needed);
      EXPECT_EQ(account.requests, std::min(allowed + 1, needed));
      EXPECT_EQ(account.logLines,
                accepted ? std::vector<std::string>{}
                         : std::vector<std::string>{"12 " + name + "_unpack_non_root"});
      if (accepted) {
        EXPECT_TRUE(sameRecord(record, unpacked));
      }
      account.open = true;
      Release(&unpacked);  // after a failure there is nothing left for it to do
      account.open = false;
      ASSERT_TRUE(account.blocks.empty());
    }
    discard(record);
  }
}

// The last argument: how many allocations one message can take.
void refuseEveryAllocation() {
  namespace message = kel::message;
  refuseInTurn<message::AlarmOutput, Kel_sys_diag_AlarmOutput_unpack,
               Kel_sys_diag_AlarmOutput_free_unpacked>(1);
  refuseInTurn<message::AlarmInput, Kel_sys_diag_AlarmInput_unpack,
               Kel_sys_diag_AlarmInput_free_unpacked>(1);
  refuseInTurn<message::BrdPartInfo, Kel_sys_diag_BrdPartInfo_unpack,
               Kel_sys_diag_BrdPartInfo_free_unpacked>(1);
  refuseInTurn<message::FdProcInfoOutput, Kel_sys_diag_FdProcInfoOutput_unpack,
               Kel_sys_diag_FdProcInfoOutput_free_unpacked>(1);
  refuseInTurn<message::StorageEraseInfo, Kel_sys_diag_StorageEraseInfo_unpack,
               Kel_sys_diag_StorageEraseInfo_free_unpacked>(1);
  refuseInTurn<message::StorageBadBlockInfo, Kel_sys_diag_StorageBadBlockInfo_unpack,
               Kel_sys_diag_StorageBadBlockInfo_free_unpacked>(1);
  refuseInTurn<message::OvLoadDiskCtlOutput, Kel_sys_diag_OvLoadDiskCtlOutput_unpack,
               Kel_sys_diag_OvLoadDiskCtlOutput_free_unpacked>(0);
  refuseInTurn<message::OverloadAlarmInput, Kel_sys_diag_OverloadAlarmInput_unpack,
               Kel_sys_diag_OverloadAlarmInput_free_unpacked>(0);
  refuseInTurn<message::OverloadDiskAlarmInput, Kel_sys_diag_OverloadDiskAlarmInput_unpack,
               Kel_sys_diag_OverloadDiskAlarmInput_free_unpacked>(0);
  refuseInTurn<message::OvLoadDiskCtlInput, Kel_sys_diag_OvLoadDiskCtlInput_unpack,
               Kel_sys_diag_OvLoadDiskCtlInput_free_unpacked>(0);
  refuseInTurn<message::OperResult, Kel_sys_diag_OperResult_unpack,
               Kel_sys_diag_OperResult_free_unpacked>(0);
  refuseInTurn<message::SysDiskUseInfoResult, Kel_sys_diag_SysDiskUseInfoResult_unpack,
               Kel_sys_diag_SysDiskUseInfoResult_free_unpacked>(0);
}

TEST(AllocationFailure, UnderThePlatformPair) {
  inAProcessOfItsOwn([] {
    account.platformServes = true;
    refuseEveryAllocation();
  });
}

TEST(AllocationFailure, UnderTheDefaultPair) { inAProcessOfItsOwn(refuseEveryAllocation); }

// Packing needs no memory at all.
template <class Pack, class Record>
void packWithoutMemory(Pack pack, const Record& record) {
  const uint32_t size = pack(nullptr, &record);
  std::vector<uint8_t> bytes(size);
  const PackTarget target{bytes.data(), &size};
  account.open = true;
  const uint32_t written = pack(&target, &record);
  account.open = false;
  EXPECT_EQ(written, size);
}

TEST(AllocationFailure, LeavesPackersAlone) {
  for (const bool platformServes : {true, false}) {
    inAProcessOfItsOwn([=] {
      account.platformServes = platformServes;
      packWithoutMemory(Kel_sys_diag_AlarmInput_pack, AlarmInput{1, 0, "text", 0, 2, {3}, 4});
      packWithoutMemory(Kel_sys_diag_OverloadAlarmInput_pack, OverloadAlarmInput{});
      packWithoutMemory(Kel_sys_diag_OverloadDiskAlarmInput_pack, OverloadDiskAlarmInput{});
      packWithoutMemory(Kel_sys_diag_OvLoadDiskCtlInput_pack, OvLoadDiskCtlInput{});
      uint8_t buffer[192];
      const OverloadAlarmInput fixed{};
      account.open = true;
      Kel_sys_diag_OverloadAlarmInput_fixed_pack(buffer, &fixed);
      account.open = false;
      EXPECT_EQ(account.requests, 0);
    });
  }
}

}  // namespace
