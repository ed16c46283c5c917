// Text in byte arrays: padding, cutting, showing.
#include "host/field_text.hpp"

#include <algorithm>
#include <cstring>

namespace kel::host {
namespace {

bool continuesCharacter(char byte) { return (static_cast<uint8_t>(byte) & 0xC0U) == 0x80U; }

}  // namespace

void putText(std::span<uint8_t> field, std::string_view text) {
  size_t length = std::min(text.size(), field.size());
  while (length != 0 && length < text.size() && continuesCharacter(text[length])) {
    --length;
  }
  std::ranges::fill(field, uint8_t{0});
  std::memcpy(field.data(), text.data(), length);
}

std::string rawTextOf(std::span<const uint8_t> field) {
  const auto* const text = reinterpret_cast<const char*>(field.data());
  return {text, strnlen(text, field.size())};
}

std::string textOf(std::span<const uint8_t> field) { return shown(rawTextOf(field)); }

std::string shown(std::string_view text) {
  constexpr char kDelete = 0x7F;
  std::string result(text);
  std::ranges::replace_if(
      result, [](char byte) { return (byte >= 0 && byte < ' ') || byte == kDelete; }, '?');
  return result;
}

}  // namespace kel::host
