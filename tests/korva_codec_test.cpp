// The codecs over records of the test's own, which use every slot kind in both directions and in
// every place a slot can stand.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <map>
#include <vector>

#include "codec/korva_codec.hpp"
#include "tests/support/bytes.hpp"
#include "tests/support/guarded_memory.hpp"
#include "tests/support/message_checks.hpp"

namespace {

struct Leaf {
  uint16_t two;
  uint8_t one;
  uint64_t eight;
};
struct Branch {
  uint8_t one;
  Leaf left;
  uint8_t bytes[5];
  Leaf right;
  uint32_t four;
};
struct BranchList {
  uint32_t entryCount;
  Branch* entries;
};
struct Everything {
  uint8_t one;
  const char* first;
  uint16_t two;
  Branch branch;
  uint8_t bytes[3];
  uint32_t four;
  char* second;
  uint64_t eight;
};
struct Swapped {
  uint16_t first;
  uint16_t second;
};
struct Shortened : Swapped {};

}  // namespace

template <>
struct korva::Schema<Swapped> : korva::Slots<&Swapped::second, &Swapped::first> {};
template <>
struct korva::Schema<Shortened> : korva::Slots<&Shortened::first> {};
template <>
struct korva::Schema<Leaf> : korva::Slots<&Leaf::two, &Leaf::one, &Leaf::eight> {};
template <>
struct korva::Schema<Branch>
    : korva::Slots<&Branch::one, &Branch::left, &Branch::bytes, &Branch::right, &Branch::four> {};
template <>
struct korva::Schema<BranchList>
    : korva::Slots<korva::vectorOf<&BranchList::entryCount, &BranchList::entries>> {};
template <>
struct korva::Schema<Everything>
    : korva::Slots<&Everything::one, &Everything::first, &Everything::two, &Everything::branch,
                   &Everything::bytes, &Everything::four, &Everything::second, &Everything::eight> {
};

namespace {

using namespace kel::test;

// The hooks of this test's unit: they count, and can be told to fail.
std::map<void*, uint32_t> outstanding;
uint64_t largestRequest = 0;
int allocationsAllowed = INT_MAX;

void* countingAlloc(uint32_t size, uint32_t, const char*) {
  largestRequest = std::max<uint64_t>(largestRequest, size);
  if (allocationsAllowed-- <= 0) return nullptr;
  void* const block = std::malloc(size);
  outstanding[block] = size;
  return block;
}

int32_t countingFree(void* block, uint32_t, const char*) {
  if (block != nullptr) {
    EXPECT_EQ(outstanding.erase(block), 1U) << "freed what was not allocated";
  }
  std::free(block);
  return 0;
}

constinit korva::CodecRuntime testRuntime{
    .memReady = 1, .codecAlloc = countingAlloc, .codecFree = countingFree};

// A codec with the entry points that a message's unit gives it.
template <class Codec>
struct WithEntries : Codec {
  static uint32_t pack(const PackTarget* target, const void* record) {
    return Codec::pack(target, record, pack);
  }
  static int32_t packFixed(uint8_t* buffer, const void* record) {
    return Codec::packFixed(buffer, record, packFixed);
  }
};

template <korva::Name Name, class Record>
using TestCodec =
    WithEntries<korva::Codec<Name, Record,
                             korva::PlainTable<Record> ? korva::Layouts::compactAndFixed
                                                       : korva::Layouts::compact,
                             testRuntime>>;
using BranchCodec = TestCodec<"Branch", Branch>;
using BranchListCodec = TestCodec<"BranchList", BranchList>;
using EverythingCodec = TestCodec<"Everything", Everything>;

// Whether a record's slots are its members, in their order.
template <class Record>
constexpr bool kCompiles = requires {
  typename std::bool_constant<(korva::forEachMember<Record>([]<class, size_t>(uint32_t) {}), true)>;
};
static_assert(kCompiles<Branch> && !kCompiles<Swapped> && !kCompiles<Shortened>);

// Scalars first, then the offset fields, then what they point at; nested tables behind it all, each
// with its own tables behind it. The positions were worked out by hand.
TEST(CompactForm, EveryKindInItsPlace) {
  char second[] = "";
  Everything record{};
  record.one = 0xA1;
  record.first = "xy";
  record.branch = {0xB1, {0, 0xC1, 0}, {1, 2, 3, 4, 5}, {0xD1D2, 0, 0xE1}, 0};
  record.bytes[0] = 9;
  record.second = second;
  record.eight = 0xF1;
  const Buffer expected =
      layout(u32(24), u16(20, 48, 4, 13, 0, 17, 21, 0, 25, 5), u32(20),  // 24: the root table
             u8(0xA1), u64(0xF1), u32(16, 45, 15, 18),                   // 37: to 53, 86, 60 and 67
             u32(2), chars("xy"), u8(0), u32(3), u8(9), u16(0), u32(0), u8(0),
             u16(14, 26, 4, 5, 9, 13, 0), u32(14),                       // 86: branch
             u8(0xB1), u32(31, 8, 38),                                   // 91: to 122, 103 and 137
             u32(5), chars("\1\2\3\4\5"), u16(10, 5, 0, 4, 0), u32(10),  // 122: left
             u8(0xC1), u16(10, 14, 4, 0, 6), u32(10),                    // 137: right
             u16(0xD1D2), u64(0xE1));
  EXPECT_EQ(packToSize(EverythingCodec::pack, record), expected);
  Everything unpacked;
  ASSERT_NE(
      EverythingCodec::unpack(expected.data(), static_cast<uint32_t>(expected.size()), &unpacked),
      0U);
  EXPECT_STREQ(unpacked.first, "xy");
  EXPECT_STREQ(unpacked.second, "");
  EXPECT_EQ(packToSize(EverythingCodec::pack, unpacked), expected);
  EverythingCodec::release(&unpacked);
  EXPECT_TRUE(outstanding.empty());
}

TEST(Unpack, EveryLayoutToTheSameBytesWithPaddingAmongThem) {
  const Branch record{1, {2, 0, 4}, {5, 6, 7, 8, 9}, {10, 11, 12}, 13};
  const Buffer compact = packToSize(BranchCodec::pack, record);
  Buffer fixed(BranchCodec::fixedSize());
  ASSERT_EQ(BranchCodec::packFixed(fixed.data(), &record), 0);
  std::vector<Buffer> unpacked;
  for (const Buffer& message : {compact, fixed}) {
    Branch branch;
    std::memset(static_cast<void*>(&branch), unpacked.empty() ? 0xDD : 0xEE, sizeof branch);
    const auto length = static_cast<uint32_t>(message.size());
    ASSERT_NE(BranchCodec::unpack(message.data(), length, &branch), 0U);
    EXPECT_EQ(packToSize(BranchCodec::pack, branch), compact);
    unpacked.push_back(bytesOf(branch));
  }
  EXPECT_EQ(unpacked[0], unpacked[1]);
}

// Each place where the message can be bent, and what comes of it.
TEST(Unpack, BentVectors) {
  struct Bend {
    const char* what;
    uint32_t position;
    uint32_t value;
    bool accepted;
  };
  Branch branches[2] = {};
  const BranchList list{2, branches};
  const Buffer packed = packToSize(BranchListCodec::pack, list);
  const auto length = static_cast<uint32_t>(packed.size());
  GuardedMemory memory(length);
  const Bend bends[] = {
      {"as packed", 18, 2, true},
      {"fewer elements than entries", 18, 1, true},
      {"no element", 18, 0, true},
      {"one more element than entries: its entry is the first element's vtable", 18, 3, false},
      {"a count that passes the length", 18, (length - 22) / 4 + 1, false},
      {"a count whose array wraps in 32 bits", 18, 0x40000000, false},
      {"a count of 2^32 - 1", 18, UINT32_MAX, false},
      {"both entries at one element", 22, 89, true},
      {"an entry at itself: a table with an empty vtable", 22, 0, true},
      {"an entry past the end", 22, length - 22 - 3, false},
      {"an entry that wraps to the start", 22, UINT32_MAX - 21, false},
      {"an entry that wraps to the root table", 22, UINT32_MAX - 11, false},
      {"a count that is the last word", 14, length - 14 - 4, false},
      {"a count past the last word", 14, length - 14 - 3, false},
      {"an offset field that wraps", 14, UINT32_MAX - 13, false},
      {"an element whose vtable lies before the message", 44, 45, false},
      {"an element whose vtable lies behind the message", 44, 0x80000000, false},
  };
  for (const Bend& bend : bends) {
    Buffer bytes = packed;
    std::memcpy(bytes.data() + bend.position, &bend.value, 4);
    largestRequest = 0;
    BranchList record{};
    EXPECT_EQ(BranchListCodec::unpack(memory.copyLast(bytes), length, &record) != 0, bend.accepted)
        << bend.what;
    EXPECT_LE(largestRequest, (length - 22) / 4 * sizeof(Branch)) << bend.what;
    BranchListCodec::release(&record);
    EXPECT_TRUE(outstanding.empty()) << bend.what;
  }
}

TEST(Unpack, EveryFailedAllocationGivesEverythingBack) {
  char second[] = "second";
  Everything record{};
  record.first = "first";
  record.second = second;
  const Buffer packed = packToSize(EverythingCodec::pack, record);
  for (const int allowed : {0, 1}) {
    allocationsAllowed = allowed;
    Everything unpacked;
    EXPECT_EQ(
        EverythingCodec::unpack(packed.data(), static_cast<uint32_t>(packed.size()), &unpacked),
        0U);
    EXPECT_EQ(unpacked.first, nullptr);
    EXPECT_EQ(unpacked.second, nullptr);
    EXPECT_TRUE(outstanding.empty());
  }
  allocationsAllowed = INT_MAX;
}

}  // namespace
