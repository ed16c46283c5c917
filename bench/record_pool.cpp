// Records at random.
#include "bench/record_pool.hpp"

#include <algorithm>
#include <cstring>

namespace kel::bench {
namespace {

constexpr size_t kMostBytes = size_t{1} << 19;

// What a record takes with all that it points at. One without fields still has an address.
size_t bytesOf(const fuzz::Shape& shape, uint32_t entries) {
  size_t bytes = aligned(std::max<size_t>(shape.recordSize, 1));
  for (const fuzz::Field& field : shape.fields) {
    if (field.kind == fuzz::Kind::string) bytes += aligned(kTextLength + 1);
    if (field.kind == fuzz::Kind::vector) bytes += aligned(entries * field.nested->recordSize);
  }
  return bytes;
}

}  // namespace

std::string_view nameOf(Filling filling) {
  constexpr std::string_view kNames[] = {"all set", "random", "half of each"};
  return kNames[static_cast<size_t>(filling)];
}

RecordPool::RecordPool(const fuzz::Shape& shape, Filling filling, uint32_t entries, size_t most)
    : entries_(entries), bytesEach_(bytesOf(shape, entries)) {
  const size_t count = std::clamp<size_t>(kMostBytes / bytesEach_, 1, most);
  memory_.resize(count * bytesEach_);
  for (size_t i = 0; i < count; ++i) {
    void* const record = room(shape.recordSize);
    fill(shape, filling, zerosIn(filling), record);
    records_.push_back(record);
  }
}

bool RecordPool::zerosIn(Filling filling) {
  return filling == Filling::random || (filling == Filling::half && entropy_.below(2) == 0);
}

void RecordPool::fill(const fuzz::Shape& shape, Filling filling, bool zeros, void* record) {
  for (const fuzz::Field& field : shape.fields) {
    uint8_t* const member = static_cast<uint8_t*>(record) + field.at;
    if (field.kind == fuzz::Kind::scalar) {
      const uint64_t value = scalar(zeros);
      std::memcpy(member, &value, field.width);
    } else if (field.kind == fuzz::Kind::bytes) {
      std::generate_n(member, field.width, [&] { return entropy_.byte(); });
    } else if (field.kind == fuzz::Kind::table) {
      fill(*field.nested, filling, zeros, member);
    } else if (field.kind == fuzz::Kind::string) {
      uint8_t* const text = room(kTextLength + 1);
      std::generate_n(text, kTextLength, [&] { return 'a' + entropy_.byte() % 26; });
      std::memcpy(member, &text, sizeof text);
    } else {
      uint8_t* const elements = room(entries_ * field.nested->recordSize);
      std::memcpy(member, &elements, sizeof elements);
      std::memcpy(static_cast<uint8_t*>(record) + field.countAt, &entries_, sizeof entries_);
      for (uint32_t i = 0; i < entries_; ++i) {
        fill(*field.nested, filling, zerosIn(filling), elements + i * field.nested->recordSize);
      }
    }
  }
}

// Every byte of a value that is set is set, whatever its width.
uint64_t RecordPool::scalar(bool zeros) {
  return zeros && entropy_.below(2) == 0 ? 0 : entropy_.next() | 0x0101010101010101;
}

uint8_t* RecordPool::room(size_t size) {
  uint8_t* const begin = memory_.data() + used_;
  used_ += aligned(size);
  return begin;
}

}  // namespace kel::bench
