// A codec with the entry points that a message's unit gives it. For tests.
#pragma once

#include <kel_sys_diag/rpc.h>

namespace kel::test {

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

}  // namespace kel::test
