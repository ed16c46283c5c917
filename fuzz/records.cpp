// Records of any shape.
#include "fuzz/records.hpp"

#include <algorithm>

#include "fuzz/checks.hpp"

namespace kel::fuzz {
namespace {

constexpr size_t kLongestText = 300;
constexpr size_t kMostElements = 24;
constexpr size_t kLargestElement = 300;

void fillScalar(uint32_t width, Entropy& entropy, uint8_t* member) {
  const uint8_t choice = entropy.byte();
  const uint64_t value = choice < 128   ? 0
                         : choice < 144 ? 1
                         : choice < 160 ? UINT64_MAX
                         : choice < 176 ? uint64_t{1} << entropy.below(64)
                                        : entropy.next();
  std::memcpy(member, &value, width);
}

// No two bytes within 256 are alike, so that none can stand in another's place.
void fillArray(uint32_t width, Entropy& entropy, uint8_t* member) {
  const uint8_t first = entropy.byte();
  const uint8_t step = entropy.byte() | 1;
  for (uint32_t i = 0; i < width; ++i) member[i] = static_cast<uint8_t>(first + i * step);
}

char* makeText(Entropy& entropy) {
  static FencedBuffer<kLongestText + 1> buffer;
  const size_t length = entropy.below(8) == 0 ? entropy.below(kLongestText + 1) : entropy.below(8);
  auto* const text = reinterpret_cast<char*>(buffer.open(length + 1));
  for (size_t i = 0; i < length; ++i) text[i] = static_cast<char>(1 + entropy.byte() % 255);
  text[length] = '\0';
  return text;
}

void fillVector(const Field& field, Entropy& entropy, uint8_t* record) {
  static FencedBuffer<kMostElements * kLargestElement> buffer;
  const auto count = static_cast<uint32_t>(entropy.below(16) == 0 ? entropy.below(kMostElements + 1)
                                                                  : entropy.below(4));
  std::memcpy(record + field.countAt, &count, sizeof count);
  const size_t size = field.nested->recordSize;
  uint8_t* const elements = entropy.below(16) == 0 ? nullptr : buffer.open(count * size);
  std::memcpy(record + field.at, &elements, sizeof elements);
  if (elements == nullptr) return;
  for (uint32_t i = 0; i < count; ++i) fillRecord(*field.nested, entropy, elements + i * size);
}

bool sameField(const Field& field, const void* left, const void* right) {
  if (field.kind == Kind::scalar || field.kind == Kind::bytes) {
    return std::memcmp(static_cast<const uint8_t*>(left) + field.at,
                       static_cast<const uint8_t*>(right) + field.at, field.width) == 0;
  }
  if (field.kind == Kind::table) {
    return sameRecord(*field.nested, static_cast<const uint8_t*>(left) + field.at,
                      static_cast<const uint8_t*>(right) + field.at);
  }
  const auto* const a = get<const char*>(left, field.at);
  const auto* const b = get<const char*>(right, field.at);
  if (field.kind == Kind::string) {
    return a == nullptr || b == nullptr ? a == b : std::strcmp(a, b) == 0;
  }
  const uint32_t count = a == nullptr ? 0 : get<uint32_t>(left, field.countAt);
  if (count != (b == nullptr ? 0 : get<uint32_t>(right, field.countAt))) return false;
  const size_t size = field.nested->recordSize;
  for (uint32_t i = 0; i < count; ++i) {
    if (!sameRecord(*field.nested, a + i * size, b + i * size)) return false;
  }
  return true;
}

}  // namespace

void fillRecord(const Shape& shape, Entropy& entropy, void* record) {
  auto* const bytes = static_cast<uint8_t*>(record);
  std::memset(bytes, 0xEE, shape.recordSize);  // the padding, which must not matter
  for (const Field& field : shape.fields) {
    uint8_t* const member = bytes + field.at;
    switch (field.kind) {
      case Kind::scalar:
        fillScalar(field.width, entropy, member);
        break;
      case Kind::bytes:
        fillArray(field.width, entropy, member);
        break;
      case Kind::table:
        fillRecord(*field.nested, entropy, member);
        break;
      case Kind::string: {
        const char* const text = entropy.below(4) != 0 ? makeText(entropy) : nullptr;
        std::memcpy(member, &text, sizeof text);
        break;
      }
      case Kind::vector:
        fillVector(field, entropy, bytes);
        break;
    }
  }
}

bool sameRecord(const Shape& shape, const void* left, const void* right) {
  return std::ranges::all_of(shape.fields,
                             [&](const Field& field) { return sameField(field, left, right); });
}

bool identical(const Shape& shape, const RecordRoom& left, const RecordRoom& right,
               size_t blockSize) {
  RecordRoom moved = left;
  if (const Field* const owner = shape.owner(); owner != nullptr) {
    const auto* const one = get<const uint8_t*>(&left, owner->at);
    const auto* const other = get<const uint8_t*>(&right, owner->at);
    if ((one == nullptr) != (other == nullptr) || !std::equal(one, one + blockSize, other)) {
      return false;
    }
    std::memcpy(moved.bytes + owner->at, &other, sizeof other);
  }
  return std::memcmp(&moved, &right, sizeof right) == 0;
}

}  // namespace kel::fuzz
