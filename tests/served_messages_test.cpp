// The served messages to the byte, through the entry points that ship: the library's own by way of
// its wrappers, the peer library's by name. Expected buffers are written out from the layouts.
#include <gtest/gtest.h>
#include <kel_sys_diag/client.h>
#include <kel_sys_diag/osal.h>
#include <kel_sys_diag/peer.h>
#include <kel_sys_diag/service.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <set>
#include <string>
#include <utility>

#include "fuzz/host_hooks.hpp"
#include "tests/support/codec_ops.hpp"
#include "tests/support/message_checks.hpp"
#include "tests/support/sub_record.hpp"

namespace {

using namespace kel::test;
using kel::fuzz::host;

const IdlCodecOps brdPartOps = opsOf(KelBrdPartInfoQuery_wrapper);
const IdlCodecOps fdProcOps = opsOf(FdProcInfoQuery_wrapper);
const IdlCodecOps thresholdOps = opsOf(KelSysOvLoadDiskThresholdSet_wrapper);
const IdlCodecOps diskUseOps = opsOf(KelGetSysDiskUseInfo_wrapper);
const IdlCodecOps resetOps = opsOf(KelResetDiskMakeFS_wrapper);
const IdlCodecOps mountOps = opsOf(KelMountDisk_wrapper);
const IdlCodecOps eraseOps = opsOf(KelQueryStorageEraseInfo_wrapper);
const IdlCodecOps badBlockOps = opsOf(KelQueryStorageBadBlockInfo_wrapper);

// The 14 bytes of a reply that carries nothing.
const Buffer kEmptyReply = layout(u32(10), u16(6, 4, 0), u32(6));

// Root table and vector of a reply, up to its first element.
Buffer vectorHeader(auto... entries) {
  constexpr uint32_t kCount = sizeof...(entries);
  return layout(u32(10), u16(6, 12 + 4 * kCount, 4), u32(6, 4, kCount, entries...));
}

Buffer arrays50_50_32_64(uint8_t a, uint8_t b, uint8_t c, uint8_t d) {
  return layout(u32(16, 66, 116, 148, 50), fill(50, a), u32(50), fill(50, b), u32(32), fill(32, c),
                u32(64), fill(64, d));
}

BrdPartEntry brdPart(uint64_t value1, uint64_t value2, uint64_t value3, uint32_t value4) {
  BrdPartEntry entry{{}, {}, {}, value1, value2, value3, value4, {}};
  fillWith(entry.bytes50a, 0xA0);
  fillWith(entry.bytes50b, 0xB0);
  fillWith(entry.bytes32, 0x20);
  fillWith(entry.bytes64, 0x40);
  return entry;
}

TEST(BrdPartInfo, Compact) {
  const auto pack = brdPartOps.packFn;
  const Buffer arrays = arrays50_50_32_64(0xA0, 0xB0, 0x20, 0x40);
  BrdPartEntry entries[] = {brdPart(0, 0x0102030405060708, 0, 9), brdPart(0, 0, 0, 0)};
  EXPECT_EQ(packToSize(pack, BrdPartInfo{1, entries}),
            layout(vectorHeader(24), u16(20, 244, 16, 20, 24, 0, 4, 0, 12, 28), u32(20),
                   u64(0x0102030405060708), u32(9), arrays));
  EXPECT_EQ(packToSize(pack, BrdPartInfo{2, entries}),
            layout(vectorHeader(28, 288), u16(20, 244, 16, 20, 24, 0, 4, 0, 12, 28), u32(20),
                   u64(0x0102030405060708), u32(9), arrays, u16(20, 232, 4, 8, 12, 0, 0, 0, 0, 16),
                   u32(20), arrays));
  BrdPartEntry full[] = {brdPart(1, 2, 3, 4)};
  EXPECT_EQ(packToSize(pack, BrdPartInfo{1, full}),
            layout(vectorHeader(24), u16(20, 260, 32, 36, 40, 4, 12, 20, 28, 44), u32(20),
                   u64(1, 2, 3), u32(4), arrays));
}

TEST(FdProcInfoOutput, Compact) {
  FdProcEntry entries[] = {{1, 2, kFullSub, kFullSub, kFullSub, {}},
                           {},
                           {0, 7, {}, {0, 0, 0, 0xB3, 0, 0, 0, 0x80}, kFullSub, {}}};
  for (FdProcEntry& entry : entries) fillWith(entry.bytes256, 0xF0);
  const Buffer expected = layout(
      vectorHeader(28, 24 + 304 + 108, 20 + 304 + 108 + 296 + 72),
      u16(16, 288, 4, 8, 12, 16, 20, 24), u32(16, 1, 2, 296, 328, 360, 4, 256), fill(256, 0xF0),
      compactSub(true), compactSub(true), compactSub(true), u16(16, 280, 0, 0, 4, 8, 12, 16),
      u32(16, 296, 316, 336, 4, 256), fill(256, 0xF0), compactSub(false), compactSub(false),
      compactSub(false), u16(16, 284, 0, 4, 8, 12, 16, 20), u32(16, 7, 296, 316, 341, 4, 256),
      fill(256, 0xF0), compactSub(false), u16(20, 9, 0, 0, 0, 4, 0, 0, 0, 5), u32(20), u8(0xB3),
      u32(0x80), compactSub(true));
  EXPECT_EQ(packToSize(fdProcOps.packFn, FdProcInfoOutput{3, entries}), expected);
}

TEST(SysDiskUseInfoResult, CompactAndFixed) {
  struct Case {
    uint64_t value1, value2;
    uint32_t value3, value4, value5;
    Buffer header;
  };
  const Case cases[] = {
      {0, 0, 0, 0, 0, layout(u16(20, 160, 4, 8, 0, 0, 0, 12, 0, 0), u32(20))},
      {1, 2, 3, 4, 5,
       layout(u16(20, 188, 32, 36, 4, 12, 20, 40, 24, 28), u32(20), u64(1, 2), u32(3, 4, 5))},
      {0, 0, 3, 0, 0, layout(u16(20, 164, 8, 12, 0, 0, 4, 16, 0, 0), u32(20, 3))},
  };
  for (const Case& c : cases) {
    SysDiskUseInfoResult record{{}, {}, c.value1, c.value2, c.value3, {}, c.value4, c.value5};
    fillWith(record.bytes50a, 0xA0);
    fillWith(record.bytes50b, 0xB0);
    fillWith(record.bytes32, 0x20);
    EXPECT_EQ(packToSize(diskUseOps.packFn, record),
              layout(u32(24), c.header, u32(12, 62, 112, 50), fill(50, 0xA0), u32(50),
                     fill(50, 0xB0), u32(32), fill(32, 0x20)));
    expectFixed(diskUseOps, &record,
                layout(u32(4, 0U - 188, 4, 50), fill(50, 0xA0), u32(4, 50), fill(50, 0xB0),
                       u64(c.value1, c.value2), u32(c.value3, 4, 32), fill(32, 0x20),
                       u32(c.value4, c.value5), u16(20, 188, 4, 62, 120, 128, 136, 140, 180, 184),
                       fill(4, 0xEE)));
  }
}

TEST(OperResultAndItsTwins, CompactAndFixed) {
  for (const IdlCodecOps* ops : {&thresholdOps, &resetOps, &mountOps}) {
    for (const uint32_t result : {0U, 772U}) {
      const OperResult record{result};
      EXPECT_EQ(packToSize(ops->packFn, record),
                result == 0 ? kEmptyReply : layout(u32(10), u16(6, 8, 4), u32(6, 772)));
      expectFixed(*ops, &record, layout(u32(4, 0U - 8, result), u16(6, 8, 4), fill(6, 0xEE)));
    }
  }
}

TEST(StorageEraseInfo, Compact) {
  StorageEraseEntry entries[] = {{1, 0}, {0, 2}, {3, 4}, {0, 0}};
  EXPECT_EQ(
      packToSize(eraseOps.packFn, StorageEraseInfo{2, entries}),
      layout(vectorHeader(16, 28), u16(8, 8, 4, 0), u32(8, 1), u16(8, 12, 0, 4), u32(8), u64(2)));
  EXPECT_EQ(
      packToSize(eraseOps.packFn, StorageEraseInfo{2, entries + 2}),
      layout(vectorHeader(16, 36), u16(8, 16, 4, 8), u32(8, 3), u64(4), u16(8, 4, 0, 0), u32(8)));
}

TEST(StorageBadBlockInfo, Compact) {
  StorageBadBlockEntry entries[] = {{{}, 0}, {{}, 5}};
  fillWith(entries[0].bytes32, 0xA0);
  EXPECT_EQ(packToSize(badBlockOps.packFn, StorageBadBlockInfo{2, entries}),
            layout(vectorHeader(16, 64), u16(8, 44, 4, 0), u32(8, 4, 32), fill(32, 0xA0),
                   u16(8, 52, 12, 4), u32(8), u64(5), u32(4, 32), fill(32, 0)));
}

TEST(Replies, EmptyVectorsTakeFourteenBytes) {
  StorageEraseEntry entry{1, 2};
  for (const StorageEraseInfo& empty :
       {StorageEraseInfo{0, nullptr}, StorageEraseInfo{5, nullptr}, StorageEraseInfo{0, &entry}}) {
    for (const IdlCodecOps* ops : {&brdPartOps, &fdProcOps, &eraseOps, &badBlockOps}) {
      EXPECT_EQ(packToSize(ops->packFn, empty), kEmptyReply);
    }
  }
}

// Past 32 bits there is no size. Where the count alone says so, nothing is written, and the entries
// are not even looked at: both are on an inaccessible page here.
TEST(Replies, PastThirtyTwoBitsHaveNoSize) {
  GuardedMemory memory(1);
  uint8_t* const inaccessible = memory.last(0);
  for (const IdlCodecOps* ops : {&brdPartOps, &fdProcOps, &eraseOps, &badBlockOps}) {
    for (const uint32_t count : {UINT32_MAX, UINT32_MAX / 16 + 1}) {
      const StorageEraseInfo record{count, reinterpret_cast<StorageEraseEntry*>(inaccessible)};
      EXPECT_EQ(ops->packFn(nullptr, &record), 0U);
      const uint32_t capacity = UINT32_MAX;
      const PackTarget target{inaccessible, &capacity};
      EXPECT_EQ(ops->packFn(&target, &record), 0U);
    }
  }
}

// Sixteen million entries pass 2^32 when their scalars are present, and do not when they
// are zero. The array is a few pages of entries, mapped over and over.
TEST(Replies, EntriesDecideAtTheLimit) {
  constexpr size_t kPiece = sizeof(BrdPartEntry) * 4096;
  constexpr uint32_t kEntries = 16'000'000;
  constexpr size_t kBytes = (kEntries * sizeof(BrdPartEntry) / kPiece + 1) * kPiece;
  const int file = memfd_create("entries", 0);
  ASSERT_EQ(ftruncate(file, kPiece), 0);
  void* const reserved =
      mmap(nullptr, kBytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (reserved == MAP_FAILED) GTEST_SKIP() << "no room for 3 GiB of address space";
  for (size_t at = 0; at < kBytes; at += kPiece) {
    ASSERT_NE(mmap(static_cast<char*>(reserved) + at, kPiece, PROT_READ | PROT_WRITE,
                   MAP_SHARED | MAP_FIXED, file, 0),
              MAP_FAILED);
  }
  close(file);
  auto* const entries = static_cast<BrdPartEntry*>(reserved);
  const BrdPartInfo record{kEntries, entries};
  EXPECT_EQ(brdPartOps.packFn(nullptr, &record), 22 + kEntries * (4 + 252));
  for (size_t i = 0; i < kPiece / sizeof(BrdPartEntry); ++i) entries[i] = brdPart(1, 2, 3, 4);
  EXPECT_EQ(brdPartOps.packFn(nullptr, &record), 0U);
  munmap(reserved, kBytes);
}

// A value put into a request, and what its record then holds, behind a "!" if it is refused.
TEST(Requests, Bent) {
  const Buffer fd = layout(u32(12), u16(8, 12, 4, 8), u32(8, 1, 2));
  const Bend fdBends[] = {
      {"as written", 6, 2, 0, "1 2"},         {"one slot", 4, 2, 6, "1 0"},
      {"a slot and a byte", 4, 2, 7, "1 0"},  {"no slot", 4, 2, 4, "0 0"},
      {"slot 0 absent", 8, 2, 0, "0 2"},      {"slot 1 at the last word", 10, 2, 8, "1 2"},
      {"slot 1 past it", 10, 2, 9, "!1 0"},   {"slot 0 past it", 8, 2, 9, "!0 0"},
      {"both at one place", 10, 2, 4, "1 1"},
  };
  GuardedMemory memory(fd.size());
  for (const Bend& b : fdBends) {
    FdProcInfoInput record{9, 9};
    const bool accepted = fdProcOps.unpackFn(memory.copyLast(bend(fd, b)),
                                             static_cast<uint32_t>(fd.size()), &record) != 0;
    const std::string held = std::to_string(record.value1) + " " + std::to_string(record.value2);
    EXPECT_EQ((accepted ? "" : "!") + held, b.expected) << b.what;
  }

  const Buffer use = layout(u32(10), u16(6, 62, 4), u32(6, 4, 50), fill(50, 0x66));
  const Bend useBends[] = {
      {"49 bytes", 18, 4, 49, "!0 0"},
      {"51 bytes", 18, 4, 51, "!0 0"},
      {"absent", 8, 2, 0, "0 0"},
      {"no slot", 4, 2, 4, "0 0"},
      {"past the end", 14, 4, 5, "!0 0"},
      {"an offset that wraps", 14, 4, 0U - 14, "!0 0"},
      {"2^32 - 1 bytes", 18, 4, UINT32_MAX, "!0 0"},
  };
  for (const IdlCodecOps* ops : {&diskUseOps, &resetOps, &mountOps}) {
    for (const Bend& b : useBends) {
      SysDiskUseInput record;
      fillWith(record.bytes50, 0xDD);
      const Buffer bytes = bend(use, b);
      const bool accepted =
          ops->unpackFn(bytes.data(), static_cast<uint32_t>(bytes.size()), &record) != 0;
      const std::string held =
          std::to_string(record.bytes50[0]) + " " + std::to_string(record.bytes50[49]);
      EXPECT_EQ((accepted ? "" : "!") + held, b.expected) << b.what;
    }
  }
}

// The record of a request without fields has no byte that could be written, but must exist.
TEST(BrdPartInfoInput, HasARecordOfNoBytes) {
  GuardedMemory memory(1);
  void* const record = memory.last(0);
  const Buffer packed =
      packToSize([](const PackTarget* target,
                    const void* any) { return Kel_sys_diag_BrdPartInfoInput_pack(target, any); },
                 *static_cast<const char*>(record));
  EXPECT_EQ(packed, layout(u32(8), u16(4, 4), u32(4)));
  EXPECT_EQ(brdPartOps.unpackFn(packed.data(), 12, record), reinterpret_cast<uintptr_t>(record));
  EXPECT_EQ(brdPartOps.unpackFn(kEmptyReply.data(), 14, record),
            reinterpret_cast<uintptr_t>(record));
  host.startCase();
  EXPECT_EQ(brdPartOps.unpackFn(packed.data(), 12, nullptr), 0U);
  EXPECT_EQ(host.logLines, 1U);
}

TEST(Release, GivesTheEntriesBackOnce) {
  const std::pair<const IdlCodecOps*, std::string> cases[] = {
      {&brdPartOps, "BrdPartInfo"},
      {&fdProcOps, "FdProcInfoOutput"},
      {&eraseOps, "StorageEraseInfo"},
      {&badBlockOps, "StorageBadBlockInfo"}};
  for (const auto& [ops, message] : cases) {
    SCOPED_TRACE(message);
    host.startCase();
    // As a host makes entries, of whichever kind: from the allocator that they go back to.
    StorageEraseInfo record{3, static_cast<StorageEraseEntry*>(QSV_OsalMemCacheAlloc(8, 12, ""))};
    ops->releaseFn(&record);
    EXPECT_EQ("Kel_sys_diag_" + message + "_free_unpacked", host.releaser);
    EXPECT_EQ(record.entries, nullptr);
    EXPECT_EQ(record.entryCount, 3U);
    ops->releaseFn(&record);
    ops->releaseFn(nullptr);
    EXPECT_EQ(host.releases, 1U);
    EXPECT_EQ(host.blocks, 0);
  }
  for (const IdlCodecOps* ops : {&thresholdOps, &diskUseOps, &resetOps, &mountOps}) {
    ops->releaseFn(nullptr);
    ops->releaseFn(reinterpret_cast<void*>(uintptr_t{16}));  // not even looked at
  }
}

// A count that its message has room for, and whose array has none in 32 bits.
TEST(Replies, ArraysPastThirtyTwoBitsAreRefused) {
  constexpr uint32_t kMost = UINT32_MAX / sizeof(FdProcEntry);
  Buffer bytes = vectorHeader();
  bytes.resize(bytes.size() + (kMost + 1) * size_t{4});
  FdProcInfoOutput record;
  for (const uint32_t count : {kMost, kMost + 1}) {
    std::memcpy(&bytes[18], &count, sizeof count);
    host.startCase();
    host.refuseAllocations = true;
    EXPECT_EQ(Kel_sys_diag_FdProcInfoOutput_unpack(bytes.data(),
                                                   static_cast<uint32_t>(bytes.size()), &record),
              0U);
    host.refuseAllocations = false;
    EXPECT_EQ(host.requests, count == kMost ? 1U : 0U) << count;
  }
}

// And so, by a runtime of its own: each of its messages has that one.
TEST(EveryUnit, LogsByADescriptorOfItsOwn) {
  const uint32_t capacity = 0;
  const PackTarget target{nullptr, &capacity};
  std::set<const KorvaLogDescriptor*> all;
  const auto expectOne = [&](std::initializer_list<IdlCodecOps> unit) {
    std::set<const KorvaLogDescriptor*> descriptors;
    for (const IdlCodecOps& ops : unit) {
      EXPECT_EQ(ops.unpackFn(nullptr, 0, nullptr), 0U);
      descriptors.insert(host.logDescriptor);
      EXPECT_EQ(ops.packFn(&target, nullptr), 0U);
      descriptors.insert(host.logDescriptor);
    }
    EXPECT_EQ(descriptors.size(), 1U);
    all.merge(descriptors);
  };
  expectOne({opsOf(KelSysdiagMaster_KelSendAlarmSetIdl),
             opsOf(KelSysdiagMaster_KelSendOverloadAlarmSetIdl),
             opsOf(KelSysdiagMaster_KelSendMobileDiskOverloadAlarmSetIdl),
             opsOf(KelSysdiagMaster_KelGetDiskOvLoadCfgInfoSetIdl)});
  expectOne(
      {brdPartOps, fdProcOps, thresholdOps, diskUseOps, resetOps, mountOps, eraseOps, badBlockOps});
  EXPECT_EQ(Kel_sys_diag_OperResult_unpack(nullptr, 0, nullptr), 0U);
  all.insert(host.logDescriptor);
  EXPECT_EQ(all.size(), 3U);
}

}  // namespace
