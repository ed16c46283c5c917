// What every message's routines must do, whatever the message, by the entry points that ship:
// records of any content from either library to the other, and messages in which something is not
// as it was packed. Whatever it is, the unpackers must come to what the naive decoder comes to,
// read nothing outside the message and keep no memory.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <span>
#include <string>
#include <vector>

#include "fuzz/host_hooks.hpp"
#include "fuzz/messages.hpp"
#include "fuzz/naive_decoder.hpp"
#include "fuzz/records.hpp"
#include "tests/support/bytes.hpp"
#include "tests/support/guarded_memory.hpp"
#include "tests/support/own_process.hpp"

namespace kel::test {
namespace {

using fuzz::RecordRoom;

// What a record holds before and, if the root header is refused, after; and a buffer, likewise.
constexpr uint8_t kUntouched = 0xDD;

std::vector<Buffer> everyEncoding(const fuzz::Message& message, const void* record) {
  const uint32_t size = message.pack(nullptr, record);
  std::vector<Buffer> encodings = {Buffer(size)};
  const PackTarget target{encodings[0].data(), &size};
  EXPECT_EQ(message.pack(&target, record), size);
  if (message.fixedPack != nullptr) {
    encodings.emplace_back(message.fixedSize());
    message.fixedPack(encodings[1].data(), record);
  }
  return encodings;
}

void expectNothingKept(const fuzz::Message& message, RecordRoom& record) {
  if (message.release != nullptr) message.release(&record);
  EXPECT_EQ(fuzz::host.blocks, 0) << "memory is left allocated";
}

// Packs into memory that ends with the message.
void expectWholeOrNothing(const fuzz::Message& message, const void* record, fuzz::Entropy& entropy,
                          GuardedMemory& memory) {
  const uint32_t size = message.pack(nullptr, record);
  const auto tooSmall =
      static_cast<uint32_t>(entropy.below(2) == 0 ? size - 1 : entropy.below(size));
  uint8_t* const buffer = memory.last(size);
  std::memset(buffer, kUntouched, size);
  for (const uint32_t capacity : {tooSmall, size, UINT32_MAX}) {
    const PackTarget target{buffer, &capacity};
    ASSERT_EQ(message.pack(&target, record), capacity < size ? 0 : size);
    ASSERT_TRUE(capacity >= size || std::count(buffer, buffer + size, kUntouched) == size);
  }
}

// Whatever follows a message.
void expectArrival(const fuzz::Message& message, const void* record, GuardedMemory& memory) {
  const std::vector<Buffer> encodings = everyEncoding(message, record);
  for (const Buffer& packed : encodings) {
    for (const size_t length : {packed.size(), packed.size() + 1}) {
      uint8_t* const bytes = memory.last(length);
      std::memcpy(bytes, packed.data(), packed.size());
      RecordRoom unpacked;
      ASSERT_EQ(message.unpack(bytes, static_cast<uint32_t>(length), &unpacked),
                reinterpret_cast<uintptr_t>(&unpacked));
      ASSERT_TRUE(sameRecord(*message.shape, record, &unpacked));
      ASSERT_EQ(everyEncoding(message, &unpacked)[0], encodings[0]) << "padding matters";
      expectNothingKept(message, unpacked);
    }
  }
}

// The first call of a unit sets up its hooks and begins again, by the entry point that it was told.
// The twins' codecs do the same: their log lines tell which of them a method is bound to. It is the
// first test, so that nothing is set up where a program runs them all.
TEST(EveryMessage, IsItselfFromTheFirstCallOn) {
  for (const fuzz::Message& message : fuzz::allMessages()) {
    SCOPED_TRACE(message.name);
    const RecordRoom record{};
    const std::string name = "Kel_sys_diag_" + message.name;
    inAProcessOfItsOwn([&] {
      RecordRoom refused{};
      uint8_t bytes[4] = {};
      const std::string reader = message.shape->ownsMemory() ? "_unpack_non_root" : "_unpack";
      for (const uint32_t size : {4U, 3U}) {
        const PackTarget target{bytes, &size};
        EXPECT_EQ(message.unpack(bytes, size, &refused), 0U);
        EXPECT_EQ(fuzz::host.logFunction, name + (size == 4 ? reader : "_unpack"));
        EXPECT_EQ(message.pack(&target, &record), 0U);
        EXPECT_EQ(fuzz::host.logFunction, name + "_pack");
      }
      EXPECT_EQ(fuzz::host.logLines, 4U);
    });
    if (message.fixedPack == nullptr) continue;
    inAProcessOfItsOwn([&] {
      Buffer fixed[2] = {Buffer(256), Buffer(256)};  // room for any other's, too
      for (Buffer& bytes : fixed) message.fixedPack(bytes.data(), &record);
      EXPECT_EQ(fixed[0], fixed[1]);
    });
  }
}

TEST(EveryMessage, ArrivesFromEitherSide) {
  fuzz::Entropy entropy(20261122);
  GuardedMemory memory(1 << 14);
  GuardedMemory recordMemory(sizeof(RecordRoom));
  for (const fuzz::Message& message : fuzz::allMessages()) {
    SCOPED_TRACE(message.name);
    for (int round = 0; round < 5000 && !HasFailure(); ++round) {
      RecordRoom made;
      fillRecord(*message.shape, entropy, &made);
      const std::span bytes(made.bytes, message.shape->recordSize);
      const void* const record =
          entropy.below(2) == 0 ? recordMemory.copyFirst(bytes) : recordMemory.copyLast(bytes);
      expectWholeOrNothing(message, record, entropy, memory);
      expectArrival(message, record, memory);
    }
  }
}

TEST(EveryMessage, ArrivesWithListsOfManyLengths) {
  constexpr uint32_t kDifferent = 1009;    // elements, before they come again
  constexpr uint32_t kMost = 0x10000 + 1;  // more than two bytes count
  fuzz::Entropy entropy(5);
  GuardedMemory memory(size_t{kMost} * 512);
  for (const fuzz::Message& message : fuzz::allMessages()) {
    const fuzz::Field* const list = message.shape->owner();
    if (list == nullptr || list->kind != fuzz::Kind::vector) continue;
    SCOPED_TRACE(message.name);
    const size_t size = list->nested->recordSize;
    std::vector<uint64_t> room((kMost + kDifferent) * size / sizeof(uint64_t));
    auto* const elements = reinterpret_cast<uint8_t*>(room.data());
    for (size_t i = 0; i < kDifferent; ++i) fillRecord(*list->nested, entropy, elements + i * size);
    for (size_t i = kDifferent; i < kMost; i += kDifferent) {
      std::memcpy(elements + i * size, elements, kDifferent * size);
    }
    for (const uint32_t count : {0U, 1U, 2U, 3U, 1000U, kMost}) {
      RecordRoom record{};
      std::memcpy(record.bytes + list->countAt, &count, sizeof count);
      std::memcpy(record.bytes + list->at, &elements, sizeof elements);
      expectArrival(message, &record, memory);
    }
  }
}

// Whether a message's unpacker and the naive decoder agree about some bytes.
testing::AssertionResult agree(const fuzz::Message& message, std::span<const uint8_t> bytes) {
  const fuzz::Shape& shape = *message.shape;
  RecordRoom expected;
  RecordRoom record;
  std::memset(&expected, kUntouched, sizeof expected);
  std::memset(&record, kUntouched, sizeof record);
  fuzz::Verdict verdict;
  if (bytes.size() >= sizeof(uint32_t)) verdict = fuzz::naiveDecode(shape, bytes, &expected);
  if (verdict.fault != nullptr) {
    std::memset(&expected, shape.ownsMemory() ? 0 : kUntouched, shape.recordSize);
  }
  const bool accepted =
      message.unpack(bytes.data(), static_cast<uint32_t>(bytes.size()), &record) != 0;
  if (accepted != verdict.accepted) return testing::AssertionFailure() << "another verdict";
  if (!accepted && shape.ownsMemory() && bytes.size() >= sizeof(uint32_t)) {
    std::memset(expected.bytes + shape.owner()->at, 0, sizeof(void*));  // released again
  }
  if (!identical(shape, expected, record, accepted ? verdict.allocation : 0)) {
    return testing::AssertionFailure() << "another record";
  }
  if (accepted) expectNothingKept(message, record);
  if (fuzz::host.blocks != 0) return testing::AssertionFailure() << "memory is left allocated";
  return testing::AssertionSuccess();
}

// Calls visit with messages of every kind and layout, of a few records each; none is longer than
// two elements of any kind, since each byte is bent in many ways.
void forEachPacked(int records,
                   const std::function<void(const fuzz::Message&, const Buffer&)>& visit) {
  constexpr uint32_t kLongest = 1000;
  fuzz::Entropy entropy(20261126);
  for (const fuzz::Message& message : fuzz::allMessages()) {
    SCOPED_TRACE(message.name);
    for (int i = 0; i < records; ++i) {
      RecordRoom record;
      do {
        fillRecord(*message.shape, entropy, &record);
      } while (message.pack(nullptr, &record) > kLongest);
      for (const Buffer& packed : everyEncoding(message, &record)) visit(message, packed);
    }
  }
}

void expectAgreement(const fuzz::Message& message, const Buffer& packed) {
  const auto length = static_cast<uint32_t>(packed.size());
  uint32_t values[] = {0,          0,          0,          1,          3,          4,
                       5,          6,          length - 5, length - 4, length - 3, length,
                       length + 1, 0x7FFFFFFF, 0x80000000, 0x0000FFFF, 0xFFFF0000, 0xFFFFFFFF,
                       0xFFFFFFFE, 0xFFFFFFFC, 0U - length};
  GuardedMemory memory(length);
  const auto check = [&](const uint8_t* bytes, uint32_t position) {
    ASSERT_TRUE(agree(message, {bytes, length})) << "changed at " << position;
  };
  for (uint32_t position = 0; position < length; ++position) {
    values[0] = 0U - position;  // an offset to the beginning
    values[1] = 4U - position;
    Buffer bent = packed;
    for (uint32_t bit = 0; bit < 8; ++bit) {
      bent[position] = packed[position] ^ static_cast<uint8_t>(1U << bit);
      check(memory.copyLast(bent), position);
    }
    for (const uint32_t value : values) {  // what is longer than the message may lead before it
      std::memcpy(&bent[position], &value, std::min(4U, length - position));
      check(value > length ? memory.copyFirst(bent) : memory.copyLast(bent), position);
    }
  }
}

TEST(BentMessages, AreWhatTheNaiveDecoderTakesThemFor) { forEachPacked(7, expectAgreement); }

TEST(TruncatedMessages, AreWhatTheNaiveDecoderTakesThemFor) {
  forEachPacked(20, [](const fuzz::Message& message, const Buffer& packed) {
    GuardedMemory memory(packed.size());
    for (size_t length = 0; length <= packed.size(); ++length) {
      const uint8_t* const bytes = memory.copyLast({packed.data(), length});
      ASSERT_TRUE(agree(message, {bytes, length})) << "cut to " << length;
    }
  });
}

}  // namespace
}  // namespace kel::test
