// The codecs over records of the test's own, which use every slot kind in both directions and in
// every place a slot can stand.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <map>
#include <new>
#include <vector>

#include "codec/korva_codec.hpp"
#include "support/bytes.hpp"
#include "support/guarded_memory.hpp"
#include "support/message_checks.hpp"
#include "support/records.hpp"

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
// Smaller than a vector, and at the end of a record that is.
struct ThreeBytes {
  uint8_t bytes[3];
};
struct ThreeScalars {
  uint8_t first, second, third;
};
struct Small {
  ThreeScalars scalars;
  uint8_t bytes[5];
  ThreeBytes last;
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

}  // namespace

template <>
struct korva::Schema<Leaf> : korva::Slots<&Leaf::two, &Leaf::one, &Leaf::eight> {};
template <>
struct korva::Schema<Branch>
    : korva::Slots<&Branch::one, &Branch::left, &Branch::bytes, &Branch::right, &Branch::four> {};
template <>
struct korva::Schema<ThreeBytes> : korva::Slots<&ThreeBytes::bytes> {};
template <>
struct korva::Schema<ThreeScalars>
    : korva::Slots<&ThreeScalars::first, &ThreeScalars::second, &ThreeScalars::third> {};
template <>
struct korva::Schema<Small> : korva::Slots<&Small::scalars, &Small::bytes, &Small::last> {};
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
  static uintptr_t unpack(const void* bytes, uint32_t length, void* record) {
    return Codec::unpack(bytes, length, record, unpack);
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
}

// Packs into memory that ends with the capacity, for every capacity around the size: the message is
// written whole or not at all, and never past its end.
template <class Codec, class Record>
void expectCapacityKept(GuardedMemory& memory, const Record& record) {
  const uint32_t size = Codec::pack(nullptr, &record);
  for (const uint32_t capacity : {0U, 3U, 4U, size / 2, size - 1, size, size + 8, size + 64}) {
    uint8_t* const buffer = memory.last(capacity);
    std::memset(buffer, 0xEE, capacity);
    const PackTarget target{buffer, &capacity};
    const uint32_t written = capacity < size ? 0 : size;
    EXPECT_EQ(Codec::pack(&target, &record), written) << "into " << capacity;
    ASSERT_EQ(std::count(buffer + written, buffer + capacity, 0xEE), capacity - written)
        << "into " << capacity;
  }
}

// What is packed comes back equal, from memory with nothing before or behind it, with the same
// padding from every layout, and is given back whole. Nothing follows the record either.
template <class Codec>
void expectRoundTrips(int rounds, uint32_t maximumEntries) {
  using Record = typename Codec::Record;
  Random random(20261122);
  RecordMaker maker(random, maximumEntries);
  GuardedMemory memory(1 << 16);
  GuardedMemory recordMemory(sizeof(Record));
  auto& record = *new (recordMemory.last(sizeof(Record))) Record;
  for (int round = 0; round < rounds; ++round) {
    maker.fill(record);
    expectCapacityKept<Codec>(memory, record);
    std::vector<Buffer> layouts = {packToSize(Codec::pack, record)};
    if constexpr (korva::PlainTable<Record>) {
      layouts.emplace_back(Codec::fixedSize());
      ASSERT_EQ(Codec::packFixed(layouts[1].data(), &record), 0);
    }
    Buffer firstUnpacked;
    for (const Buffer& packed : layouts) {
      for (const uint8_t* bytes : {memory.copyFirst(packed), memory.copyLast(packed)}) {
        Record unpacked;
        std::memset(static_cast<void*>(&unpacked), 0xDD, sizeof unpacked);
        const auto length = static_cast<uint32_t>(packed.size());
        ASSERT_EQ(Codec::unpack(bytes, length, &unpacked), reinterpret_cast<uintptr_t>(&unpacked));
        ASSERT_TRUE(sameRecord(record, unpacked)) << "round " << round;
        if constexpr (korva::PlainTable<Record>) {
          if (firstUnpacked.empty()) firstUnpacked = bytesOf(unpacked);
          ASSERT_EQ(bytesOf(unpacked), firstUnpacked);
        }
        Codec::release(&unpacked);
        ASSERT_TRUE(outstanding.empty());
      }
    }
    discard(record);
  }
}

TEST(RoundTrip, EveryKind) { expectRoundTrips<EverythingCodec>(3000, 0); }
TEST(RoundTrip, NestedTables) { expectRoundTrips<BranchCodec>(1000, 0); }
TEST(RoundTrip, VectorOfTablesWithNestedTables) { expectRoundTrips<BranchListCodec>(1000, 9); }
TEST(RoundTrip, LessThanAVector) { expectRoundTrips<TestCodec<"Small", Small>>(100, 0); }

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
