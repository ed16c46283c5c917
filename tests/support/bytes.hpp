// Expected buffers, written down value by value as a layout reads. For tests; shares nothing with
// the codecs that it checks.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

namespace kel::test {

class Bytes {
 public:
  Bytes& u8(uint64_t value) { return little(value, 1); }
  Bytes& u16(uint64_t value) { return little(value, 2); }
  Bytes& u32(uint64_t value) { return little(value, 4); }
  Bytes& u64(uint64_t value) { return little(value, 8); }
  Bytes& u16s(std::initializer_list<uint16_t> values) {
    for (const uint16_t value : values) u16(value);
    return *this;
  }
  Bytes& u32s(std::initializer_list<uint32_t> values) {
    for (const uint32_t value : values) u32(value);
    return *this;
  }
  Bytes& fill(size_t count, uint8_t value) {
    bytes_.insert(bytes_.end(), count, value);
    return *this;
  }
  Bytes& text(std::string_view characters) {
    bytes_.insert(bytes_.end(), characters.begin(), characters.end());
    return *this;
  }
  Bytes& append(const Bytes& other) {
    bytes_.insert(bytes_.end(), other.bytes_.begin(), other.bytes_.end());
    return *this;
  }
  operator const std::vector<uint8_t>&() const { return bytes_; }

 private:
  Bytes& little(uint64_t value, int width) {
    for (int i = 0; i < width; ++i) bytes_.push_back(static_cast<uint8_t>(value >> (8 * i)));
    return *this;
  }

  std::vector<uint8_t> bytes_;
};

}  // namespace kel::test
