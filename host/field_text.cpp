// Text in byte arrays: padding, cutting, showing.
#include "host/field_text.hpp"

#include <algorithm>
#include <cstring>

namespace kel::host {
namespace {

bool continuesCharacter(char byte) { return (static_cast<uint8_t>(byte) & 0xC0U) == 0x80U; }

}  // namespace

std::string_view startOf(std::string_view text, size_t bytes) {
  size_t length = std::min(text.size(), bytes);
  while (length != 0 && length < text.size() && continuesCharacter(text[length])) {
    --length;
  }
  return text.substr(0, length);
}

void putText(std::span<uint8_t> field, std::string_view text) {
  const std::string_view start = startOf(text, field.size());
  std::ranges::fill(field, uint8_t{0});
  std::memcpy(field.data(), start.data(), start.size());
}

std::string rawTextOf(std::span<const uint8_t> field) {
  const auto* const text = reinterpret_cast<const char*>(field.data());
  return {text, strnlen(text, field.size())};
}

std::string textOf(std::span<const uint8_t> field) { return shown(rawTextOf(field)); }

std::string shown(std::string_view text) {
  constexpr uint8_t kDelete = 0x7F;
  constexpr uint8_t kFirstOfTwo = 0xC2;  // U+0080 to U+009F follow it
  std::string result(text);
  for (size_t i = 0; i < result.size(); ++i) {
    const auto byte = static_cast<uint8_t>(result[i]);
    if (byte < ' ' || byte == kDelete) {
      result[i] = '?';
    } else if (byte == kFirstOfTwo && i + 1 < result.size() &&
               static_cast<uint8_t>(result[i + 1]) < 0xA0) {
      result.replace(i, 2, "?");
    }
  }
  return result;
}

}  // namespace kel::host
