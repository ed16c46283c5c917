// One message with a pool of records, and what each candidate makes of it. For bench/.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "bench/candidate.hpp"
#include "bench/record_pool.hpp"

namespace kel::bench {

// Memory that begins at another distance from a page each time, since a copy's speed depends on it.
class ScatteredBytes {
 public:
  explicit ScatteredBytes(size_t size);
  [[nodiscard]] uint8_t* data() const { return begin_; }

 private:
  std::vector<uint8_t> memory_;
  uint8_t* begin_;
};

// A candidate's encoding of every record, checked: it decodes to the record again, or the process
// ends. The pool must outlive it.
class Encodings {
 public:
  Encodings(const Message& message, const Candidate& candidate, const RecordPool& pool);
  ~Encodings();
  Encodings(const Encodings&) = delete;
  Encodings& operator=(const Encodings&) = delete;

  [[nodiscard]] const Candidate& candidate() const { return candidate_; }
  [[nodiscard]] const std::vector<Item>& items() const { return items_; }
  [[nodiscard]] double meanLength() const;

 private:
  void requireSameRecord(const Message& message, const Item& item) const;

  Candidate candidate_;
  ScatteredBytes bytes_;
  std::vector<Item> items_;
};

// Room for the record or the encoding of any one item, by any candidate.
size_t roomForAny(const RecordPool& pool);

// Of every rival.
std::vector<std::unique_ptr<Encodings>> rivalEncodings(const Message& message,
                                                       const RecordPool& pool);

}  // namespace kel::bench
