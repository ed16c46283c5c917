// Text in byte arrays: padding, cutting, showing.
#include "host/field_text.hpp"

#include <algorithm>
#include <bit>
#include <cstring>

namespace kel::host {
namespace {

bool continuesCharacter(char byte) { return (static_cast<uint8_t>(byte) & 0xC0U) == 0x80U; }

// The UTF-8 character at the start of text; empty if there is none.
std::string_view firstCharacter(std::string_view text) {
  const auto ones = static_cast<size_t>(std::countl_one(static_cast<uint8_t>(text.front())));
  if (ones == 0) {
    return text.substr(0, 1);
  }
  const std::string_view character = text.substr(0, ones);
  const bool whole = ones >= 2 && ones <= 4 && character.size() == ones &&
                     std::ranges::all_of(character.substr(1), continuesCharacter);
  return whole ? character : std::string_view();
}

bool isControl(std::string_view character) {
  constexpr std::string_view kFirstBeyond = "\xC2\xA0";  // U+00A0
  return character < " " || (character >= "\x7F" && character < kFirstBeyond);
}

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
  std::string result;
  while (!text.empty()) {
    const std::string_view character = firstCharacter(text);
    result += isControl(character) ? "?" : character;
    text.remove_prefix(std::max(character.size(), size_t{1}));
  }
  return result;
}

}  // namespace kel::host
