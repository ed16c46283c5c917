// The nested record of several messages, and its expected bytes. For tests.
#pragma once

#include <kel_sys_diag/records.h>

#include "tests/support/bytes.hpp"

namespace kel::test {

inline constexpr DiagSubRecord kFullSub{0x0102, 3, 4, 5, 6, 7, 8, 0x090A0B0C};

// A sub-record in the compact form, every field zero or every field of kFullSub.
inline Buffer compactSub(bool full) {
  if (!full) return layout(u16(20, 4, 0, 0, 0, 0, 0, 0, 0, 0), u32(20));
  return layout(u16(20, 16, 4, 6, 7, 8, 9, 10, 11, 12), u32(20), u16(0x0102), u8(3, 4, 5, 6, 7, 8),
                u32(0x090A0B0C));
}

}  // namespace kel::test
