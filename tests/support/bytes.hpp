// Expected buffers, written down value by value as a layout reads. For tests; shares nothing with
// the codecs that it checks.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

namespace kel::test {

using Buffer = std::vector<uint8_t>;

template <class... Values>
Buffer little(int width, Values... values) {
  Buffer bytes;
  const auto add = [&](uint64_t value) {
    for (int i = 0; i < width; ++i) bytes.push_back(static_cast<uint8_t>(value >> (8 * i)));
  };
  (add(static_cast<uint64_t>(values)), ...);
  return bytes;
}

Buffer u8(auto... values) { return little(1, values...); }
Buffer u16(auto... values) { return little(2, values...); }
Buffer u32(auto... values) { return little(4, values...); }
Buffer u64(auto... values) { return little(8, values...); }
inline Buffer fill(size_t count, uint8_t value) {
  Buffer bytes(count, value);
  return bytes;
}
inline Buffer chars(std::string_view text) { return {text.begin(), text.end()}; }

// A record as memory has it, padding among it.
template <class Record>
Buffer bytesOf(const Record& record) {
  const auto* const begin = reinterpret_cast<const uint8_t*>(&record);
  return {begin, begin + sizeof record};
}

// One part behind another.
template <class... Parts>
Buffer layout(const Parts&... parts) {
  Buffer all;
  (all.insert(all.end(), parts.begin(), parts.end()), ...);
  return all;
}

}  // namespace kel::test
