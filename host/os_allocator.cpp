// The memory half of the OS layer: serves the codecs' blocks and counts them. Link it to let the
// library find it; leave it out and the codecs use malloc and free themselves.
#include "host/os_allocator.hpp"

#include <kel_sys_diag/osal.h>

#include <atomic>
#include <cstdlib>

namespace {

std::atomic<uint64_t> served = 0;
std::atomic<uint64_t> returned = 0;

}  // namespace

namespace kel::host {

// Returned first: what is served and returned between the two loads cannot turn the count negative.
AllocatorUse allocatorUse() {
  const uint64_t back = returned.load();
  const uint64_t out = served.load();
  return {out, out - back};
}

}  // namespace kel::host

uint32_t QSV_OsalMemUseFlagGet(uint32_t /*moduleNumber*/) { return 1; }

void* QSV_OsalMemCacheAlloc(uint32_t size, uint32_t /*moduleNumber*/, const char* /*caller*/) {
  void* const block = std::malloc(size);
  if (block != nullptr) {
    ++served;
  }
  return block;
}

int32_t QSV_OsalMemFree(void* block, uint32_t /*moduleNumber*/, const char* /*caller*/) {
  if (block != nullptr) {
    std::free(block);
    ++returned;
  }
  return 0;
}
