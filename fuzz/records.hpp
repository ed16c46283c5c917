// Records of any shape: made of given bytes, compared. For fuzz programs and tests.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <span>

#include "fuzz/shapes.hpp"

namespace kel::fuzz {

// Numbers out of an input, and when that is used up out of a generator, so that every input makes
// something and the same input always the same.
class Entropy {
 public:
  explicit Entropy(uint64_t seed, std::span<const uint8_t> bytes = {})
      : state_(seed), bytes_(bytes) {}

  uint64_t next() {
    if (!bytes_.empty()) {
      uint64_t value = 0;
      const size_t count = std::min(bytes_.size(), sizeof value);
      std::memcpy(&value, bytes_.data(), count);
      bytes_ = bytes_.subspan(count);
      return value;
    }
    state_ += 0x9E3779B97F4A7C15;
    uint64_t mixed = (state_ ^ (state_ >> 30)) * 0xBF58476D1CE4E5B9;
    mixed = (mixed ^ (mixed >> 27)) * 0x94D049BB133111EB;
    return mixed ^ (mixed >> 31);
  }
  uint8_t byte() {
    if (bytes_.empty()) return static_cast<uint8_t>(next());
    const uint8_t value = bytes_.front();
    bytes_ = bytes_.subspan(1);
    return value;
  }
  uint64_t below(uint64_t limit) { return (limit <= 256 ? byte() : next()) % limit; }

 private:
  uint64_t state_;
  std::span<const uint8_t> bytes_;
};

// Room for any message's record, the elements apart.
struct alignas(16) RecordRoom {
  uint8_t bytes[256];
};

// A record's member.
template <class Value>
Value get(const void* record, size_t at) {
  Value value;
  std::memcpy(&value, static_cast<const uint8_t*>(record) + at, sizeof value);
  return value;
}

// Strings and elements lie in memory that the next call reuses.
void fillRecord(const Shape& shape, Entropy& entropy, void* record);

// Equal as messages: padding does not count, a string ends at its NUL, and a vector without an
// array is an empty one.
bool sameRecord(const Shape& shape, const void* left, const void* right);

// Equal to the byte, padding among it, but for where a block that each owns lies, which has so many
// bytes.
bool identical(const Shape& shape, const RecordRoom& left, const RecordRoom& right,
               size_t blockSize);

}  // namespace kel::fuzz
