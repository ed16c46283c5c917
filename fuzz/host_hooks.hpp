// An OS layer, found by both libraries by name: keeps account of every block and of the last log
// line. For fuzz programs and tests.
#pragma once

#include <kel_sys_diag/osal.h>

#include <cstdint>

namespace kel::fuzz {

struct HostHooks {
  bool refuseAllocations = false;
  int64_t blocks = 0;      // allocated and not given back
  uint64_t requested = 0;  // bytes asked for
  uint32_t requests = 0;
  uint32_t releases = 0;           // those of null as well
  const char* releaser = nullptr;  // who gave the last block back
  uint32_t logLines = 0;
  const KorvaLogDescriptor* logDescriptor = nullptr;
  uint32_t logCode = 0;
  const char* logFunction = nullptr;
  const char* logFormat = nullptr;
  uint32_t logNumbers[2] = {0, 0};  // of a line that has no other arguments

  void startCase() {
    requested = 0;
    requests = 0;
    releases = 0;
    logLines = 0;
  }
};
extern HostHooks host;

}  // namespace kel::fuzz
