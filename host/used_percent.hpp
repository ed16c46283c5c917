// How full a file system is. For the readers of the machine's state.
#pragma once

#include <sys/statvfs.h>

#include <cstdint>

namespace kel::host {

// Of what ordinary users may use, rounded up, as df has it.
inline uint32_t usedPercent(const struct statvfs& state) {
  const uint64_t used = state.f_blocks - state.f_bfree;
  const uint64_t usable = used + state.f_bavail;
  return static_cast<uint32_t>(usable == 0 ? 0 : (used * 100 + usable - 1) / usable);
}

}  // namespace kel::host
