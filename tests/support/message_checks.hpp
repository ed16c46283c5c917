// What every message's routines must do, whatever the message: checks over the entry points that
// ship. For tests.
#pragma once

#include <gtest/gtest.h>
#include <kel_sys_diag/rpc.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "support/bytes.hpp"
#include "support/guarded_memory.hpp"
#include "support/records.hpp"

namespace kel::test {

template <size_t Size>
void fillWith(uint8_t (&array)[Size], uint8_t value) {
  std::memset(array, value, Size);
}

// A value put into a message at some position, and what becomes of the message.
struct Bend {
  const char* what;
  uint32_t position;
  uint32_t width;
  uint32_t value;
  const char* expected;  // null: the message is refused
};

inline std::vector<uint8_t> bend(const std::vector<uint8_t>& message, const Bend& bend) {
  std::vector<uint8_t> bent = message;
  std::memcpy(bent.data() + bend.position, &bend.value, bend.width);
  return bent;
}

inline std::vector<uint8_t> packFixed(const IdlCodecOps& ops, const void* record) {
  std::vector<uint8_t> bytes(ops.fixedSizeFn());
  ops.fixedPackFn(bytes.data(), record);
  return bytes;
}

// Every byte of the reserved buffer: what is not a field or a vtable keeps what it held.
inline void expectFixed(const IdlCodecOps& ops, const void* record, const Bytes& expected) {
  const std::vector<uint8_t>& bytes = expected;
  ASSERT_EQ(ops.fixedSizeFn(), bytes.size());
  GuardedMemory memory(bytes.size());
  for (uint8_t* buffer : {memory.first(), memory.last(bytes.size())}) {
    std::memset(buffer, 0xEE, bytes.size());
    EXPECT_EQ(ops.fixedPackFn(buffer, record), 0);
    EXPECT_EQ(std::vector<uint8_t>(buffer, buffer + bytes.size()), bytes);
  }
}

// An unpacker, with messages of every layout it can meet; each is valid down to some length.
struct Unpacker {
  const char* name;
  std::function<bool(const uint8_t*, uint32_t)> unpackAndRelease;
  struct Message {
    std::vector<uint8_t> bytes;
    uint32_t shortest;
  };
  std::vector<Message> messages;
};

template <class Record, auto Unpack, auto Release>
bool unpackAndRelease(const uint8_t* bytes, uint32_t length) {
  Record record;
  if (Unpack(bytes, length, &record) == 0) return false;
  Release(&record);
  return true;
}

template <class Record, const IdlCodecOps& (*Ops)()>
bool unpackAndReleaseByOps(const uint8_t* bytes, uint32_t length) {
  Record record;
  if (Ops().unpackFn(bytes, length, &record) == 0) return false;
  Ops().releaseFn(&record);
  return true;
}

inline void expectTruncationsRefused(const std::vector<Unpacker>& unpackers) {
  for (const Unpacker& unpacker : unpackers) {
    for (const Unpacker::Message& message : unpacker.messages) {
      GuardedMemory memory(message.bytes.size());
      for (uint32_t length = 0; length <= message.bytes.size(); ++length) {
        EXPECT_EQ(
            unpacker.unpackAndRelease(memory.copyLast({message.bytes.data(), length}), length),
            length >= message.shortest)
            << unpacker.name << " of " << length;
      }
    }
  }
}

// Whatever the verdict: never a read outside the message. The guard pages see to that, leak
// checking to the rest.
inline void bendEveryWord(const std::vector<Unpacker>& unpackers) {
  for (const Unpacker& unpacker : unpackers) {
    for (const Unpacker::Message& message : unpacker.messages) {
      const auto length = static_cast<uint32_t>(message.bytes.size());
      const uint32_t values[] = {0,          1,          3,          4,          5,
                                 6,          length - 5, length - 4, length - 3, length,
                                 length + 1, 0x7FFFFFFF, 0x80000000, 0x0000FFFF, 0xFFFF0000,
                                 0xFFFFFFFF, 0xFFFFFFFE, 0xFFFFFFFC, 0U - length};
      GuardedMemory memory(length);
      for (uint32_t position = 0; position < length; ++position) {
        for (const uint32_t value : values) {
          const std::vector<uint8_t> bent =
              bend(message.bytes, {"", position, std::min(4U, length - position), value, ""});
          unpacker.unpackAndRelease(memory.copyFirst(bent), length);
          unpacker.unpackAndRelease(memory.copyLast(bent), length);
        }
      }
    }
  }
}

inline void expectBadLengthsRefused(const std::vector<Unpacker>& unpackers) {
  const std::vector<uint8_t> zeros(16);
  for (const Unpacker& unpacker : unpackers) {
    for (const uint32_t length : {0U, 3U, 0x80000000U, 0xFFFFFFFFU}) {
      EXPECT_FALSE(unpacker.unpackAndRelease(zeros.data(), length)) << unpacker.name;
    }
    EXPECT_FALSE(unpacker.unpackAndRelease(nullptr, 16)) << unpacker.name;
  }
}

// Thousands of records from either side to the other, in every layout; and, on the way, that a
// message is written whole or not at all and never past its end.
template <class Record, class Pack, class Unpack, class Release>
void expectRoundTrips(Pack pack, Unpack unpack, Release release, const IdlCodecOps* fixed) {
  Random random(20261122);
  RecordMaker maker(random, 300, 9);
  GuardedMemory memory(8192);
  for (int round = 0; round < 5000; ++round) {
    Record record;
    maker.fill(record);
    const uint32_t size = pack(nullptr, &record);
    const uint32_t tooSmall = static_cast<uint32_t>(random() % size);
    uint8_t* const buffer = memory.last(size);
    std::memset(buffer, 0xEE, size);
    const PackTarget shortTarget{buffer, &tooSmall};
    ASSERT_EQ(pack(&shortTarget, &record), 0U);
    ASSERT_EQ(std::count(buffer, buffer + size, 0xEE), size);
    const PackTarget target{buffer, &size};
    ASSERT_EQ(pack(&target, &record), size);

    std::vector<uint8_t> layouts[] = {{buffer, buffer + size}, {}};
    if (fixed != nullptr) layouts[1] = packFixed(*fixed, &record);
    for (const std::vector<uint8_t>& bytes : layouts) {
      if (bytes.empty()) continue;
      Record unpacked;
      ASSERT_EQ(unpack(memory.copyLast(bytes), static_cast<uint32_t>(bytes.size()), &unpacked),
                reinterpret_cast<uintptr_t>(&unpacked));
      ASSERT_TRUE(sameRecord(record, unpacked)) << "round " << round;
      release(&unpacked);
    }
    discard(record);
  }
}

}  // namespace kel::test
