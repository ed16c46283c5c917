// Messages of every kind and layout in which something is not as it was packed: whatever it is, the
// unpackers must come to what the naive decoder comes to, read nothing outside the message and keep
// no memory.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "fuzz/host_hooks.hpp"
#include "fuzz/messages.hpp"
#include "fuzz/naive_decoder.hpp"
#include "fuzz/records.hpp"
#include "support/bytes.hpp"
#include "support/guarded_memory.hpp"

namespace kel::test {
namespace {

using fuzz::RecordRoom;

// What a record holds before and, if the root header is refused, after.
constexpr uint8_t kUntouched = 0xDD;

// Bytes of a message, of which each is bent in so many ways. Two elements of any kind fit in.
constexpr uint32_t kLongest = 1000;

std::vector<Buffer> everyEncoding(const fuzz::Message& message, const RecordRoom& record) {
  const uint32_t size = message.pack(nullptr, &record);
  std::vector<Buffer> encodings = {Buffer(size)};
  const PackTarget target{encodings[0].data(), &size};
  EXPECT_EQ(message.pack(&target, &record), size);
  if (message.fixedPack != nullptr) {
    encodings.emplace_back(message.fixedSize());
    message.fixedPack(encodings[1].data(), &record);
  }
  return encodings;
}

// Whether a message's unpacker and the naive decoder agree about some bytes.
testing::AssertionResult agree(const fuzz::Message& message, std::span<const uint8_t> bytes) {
  const fuzz::Shape& shape = *message.shape;
  RecordRoom expected;
  RecordRoom record;
  std::memset(&expected, kUntouched, sizeof expected);
  std::memset(&record, kUntouched, sizeof record);
  const fuzz::Verdict verdict = fuzz::naiveDecode(shape, bytes, &expected);
  if (verdict.fault != nullptr) std::memset(&expected, kUntouched, sizeof expected);
  const bool accepted =
      message.unpack(bytes.data(), static_cast<uint32_t>(bytes.size()), &record) != 0;
  if (accepted != verdict.accepted) return testing::AssertionFailure() << "another verdict";
  const bool judged = accepted || !shape.ownsMemory();
  const bool same = !judged || identical(shape, expected, record, verdict.allocation);
  if (!same) return testing::AssertionFailure() << "another record";
  if (accepted && message.release != nullptr) message.release(&record);
  if (fuzz::host.blocks != 0) return testing::AssertionFailure() << "memory is left allocated";
  return testing::AssertionSuccess();
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

TEST(BentMessages, AreWhatTheNaiveDecoderTakesThemFor) {
  fuzz::Entropy entropy(20261126);
  for (const fuzz::Message& message : fuzz::allMessages()) {
    SCOPED_TRACE(message.name);
    for (int i = 0; i < 5; ++i) {
      RecordRoom record;
      do {
        fillRecord(*message.shape, entropy, &record);
      } while (message.pack(nullptr, &record) > kLongest);
      for (const Buffer& packed : everyEncoding(message, record)) expectAgreement(message, packed);
    }
  }
}

}  // namespace
}  // namespace kel::test
