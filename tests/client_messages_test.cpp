// The client messages to the byte, through the entry points that ship: the library's own by way of
// its codec tables, the peer library's by name. Expected buffers are written out from the layouts.
#include <gtest/gtest.h>
#include <kel_sys_diag/client.h>
#include <kel_sys_diag/peer.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <utility>

#include "tests/support/codec_ops.hpp"
#include "tests/support/message_checks.hpp"
#include "tests/support/sub_record.hpp"

namespace {

using namespace kel::test;

const IdlCodecOps alarmOps = opsOf(KelSysdiagMaster_KelSendAlarmSetIdl);
const IdlCodecOps overloadOps = opsOf(KelSysdiagMaster_KelSendOverloadAlarmSetIdl);
const IdlCodecOps diskOps = opsOf(KelSysdiagMaster_KelSendMobileDiskOverloadAlarmSetIdl);
const IdlCodecOps configOps = opsOf(KelSysdiagMaster_KelGetDiskOvLoadCfgInfoSetIdl);

Buffer fixedSub(const DiagSubRecord& sub) {
  return layout(u32(4, 0xFFFFFFF0), u16(sub.value16),
                u8(sub.byte1, sub.byte2, sub.byte3, sub.byte4, sub.byte5, sub.byte6),
                u32(sub.value32), u16(20, 16, 4, 6, 7, 8, 9, 10, 11, 12));
}

TEST(AlarmInput, Compact) {
  const std::pair<AlarmInput, Buffer> cases[] = {
      {{}, layout(u32(22), u16(18, 44, 0, 0, 0, 0, 0, 4, 0), u32(18, 4, 32), fill(32, 0))},
      {{0, 0, "ab", 0, 0, {}, 0},
       layout(u32(22), u16(18, 55, 0, 0, 4, 0, 0, 8, 0), u32(18, 8, 11, 2), chars("ab"), u8(0),
              u32(32), fill(32, 0))},
      {{0, 0, "", 0, 0, {}, 0},
       layout(u32(22), u16(18, 53, 0, 0, 4, 0, 0, 8, 0), u32(18, 8, 9, 0), u8(0), u32(32),
              fill(32, 0))},
      {{7, 0, nullptr, 256, 0, {}, 0},
       layout(u32(22), u16(18, 52, 4, 0, 0, 8, 0, 12, 0), u32(18, 7, 256, 4, 32), fill(32, 0))},
      {{1, 2, "x", 3, 4, {9}, 5},
       layout(u32(22), u16(18, 74, 4, 8, 24, 12, 16, 28, 20), u32(18, 1, 2, 3, 4, 5, 8, 10, 1),
              chars("x"), u8(0), u32(32), u8(9), fill(31, 0))},
  };
  for (const auto& [record, expected] : cases) {
    EXPECT_EQ(packToSize(alarmOps.packFn, record), expected);
  }
}

const Buffer kOkReply = layout(u32(10), u16(6, 15, 4), u32(6, 4, 2), chars("ok"), u8(0));

TEST(AlarmOutput, CompactFromThePeer) {
  char text[] = "ok";
  EXPECT_EQ(packToSize(Kel_sys_diag_AlarmOutput_pack, AlarmOutput{text}), kOkReply);
}

TEST(OverloadAlarmInput, Compact) {
  OverloadAlarmInput full{1, 2, 3, 4, kFullSub, 5, 6, 7, {}, 8, 9, 10};
  fillWith(full.bytes64, 0x40);
  const std::pair<OverloadAlarmInput, Buffer> cases[] = {
      {{},
       layout(u32(32), u16(28, 80, 0, 0, 0, 0, 4, 0, 0, 0, 8, 0, 0, 0), u32(28, 96, 4, 64),
              fill(64, 0), compactSub(false))},
      {full,
       layout(u32(32), u16(28, 120, 4, 8, 12, 16, 44, 20, 24, 28, 48, 32, 36, 40),
              u32(28, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 96, 4, 64), fill(64, 0x40), compactSub(true))},
      {{0xFFFFFFFF, 0, 0, 0, {0, 0, 0, 0xB3, 0, 0, 0, 0x80}, 0, 0, 0, {}, 0, 0, 1},
       layout(u32(32), u16(28, 88, 4, 0, 0, 0, 12, 0, 0, 0, 16, 0, 0, 8),
              u32(28, 0xFFFFFFFF, 1, 96, 4, 64), fill(64, 0), u16(20, 9, 0, 0, 0, 4, 0, 0, 0, 5),
              u32(20), u8(0xB3), u32(0x80))},
  };
  for (const auto& [record, expected] : cases) {
    EXPECT_EQ(packToSize(overloadOps.packFn, record), expected);
  }
}

TEST(OverloadDiskAlarmInput, Compact) {
  OverloadDiskAlarmInput full{1, 2, 3, 4, kFullSub, {}, {}, 5, 6};
  fillWith(full.bytes64, 0x40);
  fillWith(full.bytes32, 0x20);
  const std::pair<OverloadDiskAlarmInput, Buffer> cases[] = {
      {{},
       layout(u32(26), u16(22, 120, 0, 0, 0, 0, 4, 8, 12, 0, 0), u32(22, 136, 8, 72, 64),
              fill(64, 0), u32(32), fill(32, 0), compactSub(false))},
      {full, layout(u32(26), u16(22, 144, 4, 8, 12, 16, 28, 32, 36, 20, 24),
                    u32(22, 1, 2, 3, 4, 5, 6, 136, 8, 72, 64), fill(64, 0x40), u32(32),
                    fill(32, 0x20), compactSub(true))},
  };
  for (const auto& [record, expected] : cases) {
    EXPECT_EQ(packToSize(diskOps.packFn, record), expected);
  }
}

TEST(OvLoadDiskCtlInput, CompactHasOneShape) {
  OvLoadDiskCtlInput record;
  for (const uint8_t value : {uint8_t{0}, uint8_t{0x7F}}) {
    fillWith(record.bytes32a, value);
    fillWith(record.bytes32b, value);
    fillWith(record.bytes50, value);
    const Buffer expected =
        layout(u32(14), u16(10, 142, 4, 8, 12), u32(10, 12, 44, 76, 32), fill(32, value), u32(32),
               fill(32, value), u32(50), fill(50, value));
    EXPECT_EQ(packToSize(configOps.packFn, record), expected);
  }
}

TEST(FixedLayout, OverloadAlarmInput) {
  OverloadAlarmInput record{1, 2, 3, 4, kFullSub, 5, 6, 7, {}, 8, 9, 10};
  fillWith(record.bytes64, 0x40);
  const auto vtable =
      layout(u16(28, 156, 4, 8, 12, 16, 20, 60, 64, 68, 72, 144, 148, 152), fill(4, 0xEE));
  expectFixed(overloadOps, &record,
              layout(u32(4, 0xFFFFFF64, 1, 2, 3, 4), fixedSub(kFullSub), u32(5, 6, 7, 4, 64),
                     fill(64, 0x40), u32(8, 9, 10), vtable));
}

TEST(FixedLayout, OverloadDiskAlarmInput) {
  OverloadDiskAlarmInput record{1, 2, 3, 4, kFullSub, {}, {}, 5, 6};
  fillWith(record.bytes64, 0x40);
  fillWith(record.bytes32, 0x20);
  expectFixed(diskOps, &record,
              layout(u32(4, 0xFFFFFF4C, 1, 2, 3, 4), fixedSub(kFullSub), u32(4, 64), fill(64, 0x40),
                     u32(4, 32), fill(32, 0x20), u32(5, 6),
                     u16(22, 180, 4, 8, 12, 16, 20, 60, 132, 172, 176), fill(2, 0xEE)));
}

TEST(FixedLayout, OvLoadDiskCtlInput) {
  OvLoadDiskCtlInput record;
  fillWith(record.bytes32a, 0xA0);
  fillWith(record.bytes32b, 0xB0);
  fillWith(record.bytes50, 0x50);
  expectFixed(
      configOps, &record,
      layout(u32(4, 0xFFFFFF70, 4, 32), fill(32, 0xA0), u32(4, 32), fill(32, 0xB0), u32(4, 50),
             fill(50, 0x50), fill(2, 0xEE), u16(10, 142, 4, 44, 84), fill(2, 0xEE)));
}

// A reply as another writer may lay it out: a slot more than the schema has, a gap before the
// table, fields and arrays in an order of their own.
TEST(OvLoadDiskCtlOutput, ReadsByTheVtableAlone) {
  const Buffer reply =
      layout(u32(22), u16(16, 0, 12, 4, 20, 16, 8, 99, 0xEEEE), u32(18),  // 22: the table
             u32(20, 52, 102, 0x22, 0x11, 32), fill(32, 0xB0),            // 46
             u32(50), fill(50, 0x50),                                     // 82
             u32(32), fill(32, 0xA0));                                    // 136
  // What the record then holds, in slot order: a, b, 1, 2 and 5 stand for bytes32a, bytes32b,
  // value1, value2 and bytes50; behind a "!" if the message is refused.
  const Bend bends[] = {
      {"as written", 6, 2, 0xFFFF, "ab125"},  // tableLength, which nothing reads
      {"an empty vtable", 4, 2, 4, ""},
      {"a vtable shorter than its own header", 4, 2, 0, ""},
      {"a vtable that ends within slot 0", 4, 2, 5, ""},
      {"a vtable that ends within slot 1", 4, 2, 7, "a"},
      {"a vtable of three slots", 4, 2, 10, "ab1"},
      {"a vtable up to the last byte", 4, 2, 168, "ab125"},
      {"a vtable past the last byte", 4, 2, 169, "untouched"},
      {"bytes32a absent", 8, 2, 0, "b125"},
      {"value1 absent", 12, 2, 0, "ab25"},
      {"value2 in the last word", 14, 2, 146, "ab125"},
      {"value2 past the last word", 14, 2, 147, "!ab1"},
      {"bytes50's offset field past the last word", 16, 2, 147, "!ab12"},
      {"31 bytes for bytes32b", 46, 4, 31, "!a"},
      {"33 bytes for bytes32b", 46, 4, 33, "!a"},
      {"49 bytes for bytes50", 82, 4, 49, "!ab12"},
      {"51 bytes for bytes50", 82, 4, 51, "!ab12"},
      {"31 bytes for bytes32a", 136, 4, 31, "!"},
      {"a count of 2^32 - 1", 136, 4, 0xFFFFFFFF, "!"},
      {"both arrays of 32 at one place", 34, 4, 12, "ab125"},
      {"an array a byte past the end", 34, 4, 103, "!"},
      {"an offset that wraps to a count of 32", 34, 4, 12 - 34U, "!"},
      {"an offset of 0: the field is its own count", 34, 4, 0, "!"},
  };
  GuardedMemory memory(reply.size());
  for (const Bend& b : bends) {
    OvLoadDiskCtlOutput record;
    std::memset(&record, 0xDD, sizeof record);
    const uint8_t* const bytes = memory.copyLast(bend(reply, b));
    const bool accepted =
        configOps.unpackFn(bytes, static_cast<uint32_t>(reply.size()), &record) != 0;
    std::string held = accepted ? "" : "!";
    if (record.bytes32a[31] != 0) held += 'a';
    if (record.bytes32b[0] != 0) held += 'b';
    if (record.value1 != 0) held += '1';
    if (record.value2 != 0) held += '2';
    if (record.bytes50[49] != 0) held += '5';
    if (reinterpret_cast<const uint8_t*>(&record + 1)[-1] != 0) held += " and padding";
    if (held == "!ab125 and padding" && record.value1 == 0xDDDDDDDD) held = "untouched";
    EXPECT_EQ(held, b.expected) << b.what;
  }
}

TEST(AlarmOutput, ReadsNothingItHasNotChecked) {
  const Bend bends[] = {
      {"a vtable at the table itself", 10, 4, 0, "(null)"},
      {"a vtable without slots", 4, 2, 4, "(null)"},
      {"a vtable up to the last byte", 4, 2, 21, "ok"},
      {"an absent text", 8, 2, 0, "(null)"},
      {"an offset field past the last word", 8, 2, 12, nullptr},
      {"a text at its own offset field", 14, 4, 0, ""},
      {"a length word past the last word", 14, 4, 8, nullptr},
      {"an offset that wraps to the start", 14, 4, 0U - 14, nullptr},
      {"an offset of 2^32 - 1", 14, 4, 0xFFFFFFFF, nullptr},
      {"a length of 0", 18, 4, 0, ""},
      {"a length that takes in the NUL", 18, 4, 3, "ok"},
      {"a length a byte past the end", 18, 4, 4, nullptr},
      {"a length whose end wraps to 0", 18, 4, 0U - 22, nullptr},
      {"a length of 2^32 - 1, whose block would have no size", 18, 4, 0xFFFFFFFF, nullptr},
  };
  const auto length = static_cast<uint32_t>(kOkReply.size());
  GuardedMemory memory(length);
  for (const Bend& b : bends) {
    AlarmOutput record;
    const uint8_t* const bytes = memory.copyLast(bend(kOkReply, b));
    const bool accepted = alarmOps.unpackFn(bytes, length, &record) != 0;
    ASSERT_EQ(accepted, b.expected != nullptr) << b.what;
    if (accepted) {
      EXPECT_STREQ(record.text == nullptr ? "(null)" : record.text, b.expected) << b.what;
    } else {
      EXPECT_EQ(record.text, nullptr) << b.what;
    }
    alarmOps.releaseFn(&record);
  }
}

TEST(AlarmOutput, EveryMethodReleasesItAndKeepsNulsWithin) {
  const Buffer reply = layout(u32(10), u16(6, 16, 4), u32(6, 4, 3), chars({"a\0b", 3}), u8(0));
  for (const IdlCodecOps* ops : {&alarmOps, &overloadOps, &diskOps}) {
    AlarmOutput record;
    ASSERT_NE(ops->unpackFn(reply.data(), static_cast<uint32_t>(reply.size()), &record), 0U);
    EXPECT_EQ(std::memcmp(record.text, "a\0b", 4), 0);
    ops->releaseFn(&record);
    EXPECT_EQ(record.text, nullptr);
  }
}

// Odd messages that every reader of the format takes.
TEST(AlarmOutput, AcceptsWhatTheFormatAllows) {
  const Buffer tableIsTheLastWord = layout(u32(8), u16(4, 4), u32(4));
  AlarmOutput record;
  ASSERT_NE(alarmOps.unpackFn(tableIsTheLastWord.data(), 12, &record), 0U);
  EXPECT_EQ(record.text, nullptr);

  const Buffer fieldIsItsOwnCount = layout(u32(10), u16(6, 8, 4), u32(6, 0));
  ASSERT_NE(alarmOps.unpackFn(fieldIsItsOwnCount.data(), 18, &record), 0U);
  EXPECT_STREQ(record.text, "");
  alarmOps.releaseFn(&record);

  // Its offset field begins within the displacement, at field offset 3, and reads as 1,024.
  const Buffer overlapping =
      layout(u32(10), u16(6, 0, 3), u32(6, 4), fill(1037 - 18, 0), u32(1), chars("z"));
  ASSERT_NE(
      alarmOps.unpackFn(overlapping.data(), static_cast<uint32_t>(overlapping.size()), &record),
      0U);
  EXPECT_STREQ(record.text, "z");
  alarmOps.releaseFn(&record);
}

// Only our own packer lets each have a place of its own, in the order of their slots.
TEST(OverloadAlarmInput, FieldsAreFoundWhereverTheyAre) {
  const OverloadAlarmInput full{1, 2, 3, 4, kFullSub, 5, 6, 7, {}, 8, 9, 10};
  const Buffer bytes = packToSize(overloadOps.packFn, full);
  const auto unpackWithNextEntryAt = [&](uint32_t entry) {
    Buffer bent = bytes;
    std::copy_n(bytes.begin() + entry + 2, 2, bent.begin() + entry);
    OverloadAlarmInput record{};
    EXPECT_NE(Kel_sys_diag_OverloadAlarmInput_unpack(bent.data(),
                                                     static_cast<uint32_t>(bent.size()), &record),
              0U);
    return record;
  };
  constexpr uint32_t kRootEntries = 4 + 4;  // behind the root offset and two lengths
  const auto subEntries = static_cast<uint32_t>(bytes.size()) - (20 + 16) + 4;  // it comes last
  OverloadAlarmInput expected = full;
  expected.value1 = expected.value2;
  EXPECT_EQ(bytesOf(expected), bytesOf(unpackWithNextEntryAt(kRootEntries)));
  expected = full;
  expected.value9 = expected.value10;
  EXPECT_EQ(bytesOf(expected), bytesOf(unpackWithNextEntryAt(kRootEntries + 2 * 10)));
  expected = full;
  expected.sub.byte1 = expected.sub.byte2;
  EXPECT_EQ(bytesOf(expected), bytesOf(unpackWithNextEntryAt(subEntries + 2)));
}

// Its scalars are looked for in front of its end, and here that is in front of the message.
TEST(OverloadAlarmInput, NestedTableMayLieAtTheBeginning) {
  const Buffer bytes = layout(u32(4, 0U - 8, 0), u16(14, 8, 0, 0, 0, 0, 4));
  GuardedMemory memory(bytes.size());
  OverloadAlarmInput record = {1, 2, 3, 4, kFullSub, 5, 6, 7, {8}, 9, 10, 11};
  EXPECT_NE(Kel_sys_diag_OverloadAlarmInput_unpack(memory.copyFirst(bytes),
                                                   static_cast<uint32_t>(bytes.size()), &record),
            0U);
  EXPECT_EQ(bytesOf(OverloadAlarmInput{}), bytesOf(record));
}

}  // namespace
