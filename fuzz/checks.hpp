// What both kinds of fuzz program need: conditions that must hold, and memory with an exact end.
#pragma once

#include <sanitizer/asan_interface.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace kel::fuzz {

[[noreturn]] inline void fail(const std::string& message, const char* what) {
  std::fprintf(stderr, "FINDING: %s: %s\n", message.c_str(), what);
  std::abort();
}

// AddressSanitizer reports any access to it that is not to the bytes that are open.
template <size_t Capacity>
class FencedBuffer {
 public:
  FencedBuffer() { ASAN_POISON_MEMORY_REGION(memory_, sizeof memory_); }
  FencedBuffer(const FencedBuffer&) = delete;
  FencedBuffer& operator=(const FencedBuffer&) = delete;
  ~FencedBuffer() { ASAN_UNPOISON_MEMORY_REGION(memory_, sizeof memory_); }

  uint8_t* open(size_t size) {
    ASAN_POISON_MEMORY_REGION(memory_ + kFence, opened_);
    if (size > Capacity) fail("FencedBuffer", "too small");
    ASAN_UNPOISON_MEMORY_REGION(memory_ + kFence, size);
    opened_ = size;
    return memory_ + kFence;
  }

 private:
  static constexpr size_t kFence = 64;
  size_t opened_ = 0;
  alignas(16) uint8_t memory_[kFence + Capacity + kFence];
};

}  // namespace kel::fuzz
