// Messages held against bytes that are written out, and bent. For tests.
#pragma once

#include <gtest/gtest.h>
#include <kel_sys_diag/rpc.h>

#include <cstring>

#include "tests/support/bytes.hpp"
#include "tests/support/guarded_memory.hpp"

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

// Packs through any pack function into exactly the size that it asks for, over other bytes.
template <class Pack, class Record>
Buffer packToSize(Pack pack, const Record& record) {
  const uint32_t size = pack(nullptr, &record);
  Buffer bytes(size, 0xEE);
  const PackTarget target{bytes.data(), &size};
  EXPECT_EQ(pack(&target, &record), size);
  return bytes;
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

}  // namespace kel::test
