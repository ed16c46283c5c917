// Many records of one message, filled at random in one of the three ways that are measured. For
// bench/.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "fuzz/records.hpp"
#include "fuzz/shapes.hpp"

namespace kel::bench {

inline constexpr size_t kTextLength = 40;
inline constexpr size_t kMostRecords = 1024;

// Records, what they point at and their encodings begin where malloc would have them begin.
inline constexpr size_t kAlignment = 16;

constexpr size_t aligned(size_t size) { return (size + kAlignment - 1) / kAlignment * kAlignment; }

// Which scalars are zero, and so take no room in our layout: none; each with probability one half;
// the one or the other from record to record, in lists from entry to entry. Byte arrays and texts
// are always there.
enum class Filling : uint8_t { allSet, random, half };

std::string_view nameOf(Filling filling);

class RecordPool {
 public:
  // As many records as are sensible, or fewer if told. Lists have as many entries as told, texts
  // kTextLength characters. The same arguments make the same records.
  RecordPool(const fuzz::Shape& shape, Filling filling, uint32_t entries,
             size_t most = kMostRecords);

  [[nodiscard]] size_t size() const { return records_.size(); }
  [[nodiscard]] const void* record(size_t index) const { return records_[index]; }
  [[nodiscard]] size_t bytesEach() const { return bytesEach_; }

 private:
  bool zerosIn(Filling filling);
  void fill(const fuzz::Shape& shape, Filling filling, bool zeros, void* record);
  uint64_t scalar(bool zeros);
  uint8_t* room(size_t size);

  fuzz::Entropy entropy_{20261122};
  uint32_t entries_;
  size_t bytesEach_;
  std::vector<uint8_t> memory_;
  size_t used_ = 0;
  std::vector<const void*> records_;
};

}  // namespace kel::bench
