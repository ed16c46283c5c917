// Memory between two inaccessible pages, so that a read or write one byte out of bounds ends the
// process, in optimised builds too. For tests.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <new>
#include <span>

namespace kel::test {

class GuardedMemory {
 public:
  explicit GuardedMemory(size_t capacity)
      : page_(static_cast<size_t>(sysconf(_SC_PAGESIZE))),
        size_((capacity + page_ - 1) / page_ * page_) {
    void* const mapped = mmap(nullptr, size_ + 2 * page_, PROT_NONE,
                              MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (mapped == MAP_FAILED) throw std::bad_alloc();
    base_ = static_cast<uint8_t*>(mapped);
    if (mprotect(base_ + page_, size_, PROT_READ | PROT_WRITE) != 0) throw std::bad_alloc();
  }
  ~GuardedMemory() { munmap(base_, size_ + 2 * page_); }
  GuardedMemory(const GuardedMemory&) = delete;
  GuardedMemory& operator=(const GuardedMemory&) = delete;

  // Where size bytes begin right behind the lower guard, and where they end right before the upper.
  uint8_t* first() { return base_ + page_; }
  uint8_t* last(size_t size) { return base_ + page_ + size_ - size; }

  // A copy of bytes at either end.
  uint8_t* copyFirst(std::span<const uint8_t> bytes) { return copy(first(), bytes); }
  uint8_t* copyLast(std::span<const uint8_t> bytes) { return copy(last(bytes.size()), bytes); }

 private:
  static uint8_t* copy(uint8_t* to, std::span<const uint8_t> bytes) {
    if (!bytes.empty()) std::memcpy(to, bytes.data(), bytes.size());
    return to;
  }

  size_t page_;
  size_t size_;
  uint8_t* base_;
};

}  // namespace kel::test
