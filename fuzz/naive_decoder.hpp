// A second decoder, as plain as the format's rules read: one message at a time, every sum in 64
// bits, nothing shared with the codecs. It decides what the unpackers have to answer.
// For fuzz programs and tests.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "fuzz/shapes.hpp"

namespace kel::fuzz {

// The longest message that it has room for; keeps what vectors of overlapping elements cost within
// reason.
inline constexpr size_t kLongestMessage = 4096;

// What a word of a message says about the message's structure.
enum class Role : uint8_t {
  rootOffset,
  displacement,
  vtableLength,
  tableLength,
  entry,
  offset,
  count
};

struct Word {
  Role role;
  uint32_t width;
  uint64_t position;
  uint64_t table;  // of an entry or a displacement: its table's position
};

struct Verdict {
  bool accepted = false;
  const char* fault = nullptr;  // the root header's log line, with its two numbers
  uint32_t faultNumbers[2] = {0, 0};
  uint64_t allocation = 0;  // bytes of the one block that decoding has to ask for, if it does
  bool allocates = false;
  bool tablesAreTight = true;  // each as long as its fields take, as a packer's are
};

// Decodes into record, which then points into memory that the next call reuses. With words, also
// lists the structural words that it came across.
Verdict naiveDecode(const Shape& shape, std::span<const uint8_t> message, void* record,
                    std::vector<Word>* words = nullptr);

}  // namespace kel::fuzz
