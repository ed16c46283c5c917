// What the memory half of the OS layer (os_allocator.cpp) has handed out to the codecs.
// For hosts that link it and want to prove that everything came back.
#pragma once

#include <cstdint>

namespace kel::host {

struct AllocatorUse {
  uint64_t served;       // blocks handed out since the process began
  uint64_t outstanding;  // blocks not yet given back
};

AllocatorUse allocatorUse();

}  // namespace kel::host
