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

inline Buffer bend(const Buffer& message, const Bend& bend) {
  Buffer bent = message;
  std::memcpy(bent.data() + bend.position, &bend.value, bend.width);
  return bent;
}

// Every byte of the reserved buffer: what is not a field or a vtable keeps what it held.
inline void expectFixed(const IdlCodecOps& ops, const void* record, const Buffer& bytes) {
  ASSERT_EQ(ops.fixedSizeFn(), bytes.size());
  GuardedMemory memory(bytes.size());
  for (uint8_t* buffer : {memory.first(), memory.last(bytes.size())}) {
    std::memset(buffer, 0xEE, bytes.size());
    EXPECT_EQ(ops.fixedPackFn(buffer, record), 0);
    EXPECT_EQ(Buffer(buffer, buffer + bytes.size()), bytes);
  }
}

// A message by the entry points that ship: one library packs it, the other unpacks it.
struct Message {
  const char* name;
  std::function<uint32_t(const PackTarget*, const void*)> pack;
  std::function<uintptr_t(const void*, uint32_t, void*)> unpack;
  std::function<void(void*)> release;
  const IdlCodecOps* fixed;  // null without a fixed layout
  bool endsWithText;         // whose NUL no reader needs
  size_t recordSize;
  void (*withRecord)(RecordMaker&, const std::function<void(const void*)>&);
  testing::AssertionResult (*same)(const void*, const void*);
};

template <class Record, class Pack, class Unpack, class Release>
Message messageOf(const char* name, Pack pack, Unpack unpack, Release release,
                  const IdlCodecOps* fixed = nullptr, bool endsWithText = false) {
  const auto typed = [](const void* record) { return static_cast<const Record*>(record); };
  const auto ours = [](void* record) { return static_cast<Record*>(record); };
  return {
      name,
      [=](const PackTarget* target, const void* record) { return pack(target, typed(record)); },
      [=](const void* bytes, uint32_t length, void* record) {
        return unpack(bytes, length, ours(record));
      },
      [=](void* record) { release(ours(record)); },
      fixed,
      endsWithText,
      sizeof(Record),
      [](RecordMaker& maker, const std::function<void(const void*)>& visit) {
        Record record;
        maker.fill(record);
        visit(&record);
        discard(record);
      },
      [](const void* left, const void* right) {
        return sameRecord(*static_cast<const Record*>(left), *static_cast<const Record*>(right));
      },
  };
}

// The peer library names its routines by the message; only a macro can put the name together.
#define KEL_PEER_PACKS(name, ...) messageOf<name>(#name, Kel_sys_diag_##name##_pack, __VA_ARGS__)
#define KEL_PEER_UNPACKS(name, pack, ...)                    \
  messageOf<name>(#name, pack, Kel_sys_diag_##name##_unpack, \
                  Kel_sys_diag_##name##_free_unpacked __VA_OPT__(, ) __VA_ARGS__)

struct RecordRoom {
  alignas(16) uint8_t bytes[512];
};

inline bool unpackAndRelease(const Message& message, const uint8_t* bytes, uint32_t length) {
  RecordRoom record;
  if (message.unpack(bytes, length, record.bytes) == 0) return false;
  message.release(record.bytes);
  return true;
}

// A message that is valid down to some length.
struct Encoding {
  Buffer bytes;
  uint32_t needed;
};

// What a fixed layout leaves as it was need not be there.
inline Encoding fixedEncoding(const IdlCodecOps& ops, const void* record) {
  Buffer bytes(ops.fixedSizeFn());
  Buffer others(bytes.size(), 0xFF);
  ops.fixedPackFn(bytes.data(), record);
  ops.fixedPackFn(others.data(), record);
  uint32_t needed = ops.fixedSizeFn();
  while (bytes[needed - 1] != others[needed - 1]) --needed;
  return {std::move(bytes), needed};
}

inline std::vector<Encoding> everyEncoding(const Message& message, const void* record) {
  const uint32_t size = message.pack(nullptr, record);
  Buffer bytes(size);
  const PackTarget target{bytes.data(), &size};
  EXPECT_EQ(message.pack(&target, record), size);
  constexpr uint32_t kWithoutText = 14;
  const uint32_t spare = message.endsWithText && size > kWithoutText ? 1 : 0;
  std::vector<Encoding> encodings{{std::move(bytes), size - spare}};
  if (message.fixed != nullptr) encodings.push_back(fixedEncoding(*message.fixed, record));
  return encodings;
}

// Calls visit with messages of every kind and layout, of a few records each.
inline void forEachEncoding(const std::vector<Message>& messages, int records,
                            const std::function<void(const Message&, const Encoding&)>& visit) {
  Random random(5);
  RecordMaker maker(random, 9, 2);
  for (const Message& message : messages) {
    for (int i = 0; i < records; ++i) {
      message.withRecord(maker, [&](const void* record) {
        for (const Encoding& encoding : everyEncoding(message, record)) visit(message, encoding);
      });
    }
  }
}

inline void expectTruncationsRefused(const std::vector<Message>& messages) {
  forEachEncoding(messages, 20, [](const Message& message, const Encoding& encoding) {
    GuardedMemory memory(encoding.bytes.size());
    for (uint32_t length = 0; length <= encoding.bytes.size(); ++length) {
      const uint8_t* const bytes = memory.copyLast({encoding.bytes.data(), length});
      EXPECT_EQ(unpackAndRelease(message, bytes, length), length >= encoding.needed)
          << message.name << " of " << length;
    }
  });
}

// Thousands of records from either side to the other, in every layout; and, on the way, that a
// message is written whole or not at all and never past its end, and nothing read outside a record.
inline void expectRoundTrips(const std::vector<Message>& messages) {
  Random random(20261122);
  RecordMaker maker(random, 300, 9);
  GuardedMemory memory(8192);
  GuardedMemory recordMemory(sizeof(RecordRoom));
  const auto check = [&](const Message& message, const void* made) {
    const std::span bytesMade(static_cast<const uint8_t*>(made), message.recordSize);
    const void* const record =
        random() % 2 == 0 ? recordMemory.copyFirst(bytesMade) : recordMemory.copyLast(bytesMade);
    const uint32_t size = message.pack(nullptr, record);
    const auto tooSmall = static_cast<uint32_t>(random() % 2 == 0 ? size - 1 : random() % size);
    uint8_t* const buffer = memory.last(size);
    std::memset(buffer, 0xEE, size);
    const PackTarget shortTarget{buffer, &tooSmall};
    ASSERT_EQ(message.pack(&shortTarget, record), 0U);
    ASSERT_EQ(std::count(buffer, buffer + size, 0xEE), size);
    const PackTarget target{buffer, &size};
    ASSERT_EQ(message.pack(&target, record), size);
    constexpr uint32_t kUnlimited = UINT32_MAX;
    const PackTarget unlimited{buffer, &kUnlimited};
    ASSERT_EQ(message.pack(&unlimited, record), size);
    const std::vector<Encoding> encodings = everyEncoding(message, record);
    for (const Encoding& encoding : encodings) {
      const auto length = static_cast<uint32_t>(encoding.bytes.size());
      RecordRoom unpacked;
      ASSERT_EQ(message.unpack(memory.copyLast(encoding.bytes), length, unpacked.bytes),
                reinterpret_cast<uintptr_t>(unpacked.bytes));
      ASSERT_TRUE(message.same(record, unpacked.bytes));
      ASSERT_EQ(everyEncoding(message, unpacked.bytes)[0].bytes, encodings[0].bytes)
          << "padding matters";
      message.release(unpacked.bytes);
      Buffer longer = encoding.bytes;
      longer.push_back(0xEE);
      ASSERT_NE(message.unpack(memory.copyLast(longer), length + 1, unpacked.bytes), 0U);
      ASSERT_TRUE(message.same(record, unpacked.bytes));
      message.release(unpacked.bytes);
    }
  };
  for (const Message& message : messages) {
    SCOPED_TRACE(message.name);
    for (int round = 0; round < 5000 && !testing::Test::HasFailure(); ++round) {
      message.withRecord(maker, [&](const void* record) { check(message, record); });
    }
  }
}

}  // namespace kel::test
