// Text in byte arrays: padding, cutting, showing.
#include "host/field_text.hpp"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>

namespace kel::host {
namespace {

bool continuesCharacter(char byte) { return (static_cast<uint8_t>(byte) & 0xC0U) == 0x80U; }

// What bytes that have the shape of a UTF-8 character stand for.
char32_t codePoint(std::string_view bytes) {
  const auto first = static_cast<uint8_t>(bytes.front());
  char32_t result = bytes.size() == 1 ? first : first & (0x7FU >> bytes.size());
  for (const char byte : bytes.substr(1)) {
    result = (result << 6U) | (static_cast<uint8_t>(byte) & 0x3FU);
  }
  return result;
}

bool isFromTo(char32_t point, char32_t first, char32_t last) {
  return point >= first && point <= last;
}

// Whether such bytes are a character: in the shortest form, no surrogate and not beyond the last.
bool isCharacter(std::string_view bytes) {
  constexpr std::array<char32_t, 5> kFirstOfLength = {0, 0, 0x80, 0x800, 0x10000};
  const char32_t point = codePoint(bytes);
  return isFromTo(point, kFirstOfLength[bytes.size()], 0x10FFFF) &&
         !isFromTo(point, 0xD800, 0xDFFF);
}

// The UTF-8 character at the start of text; empty if there is none.
std::string_view firstCharacter(std::string_view text) {
  const auto ones = static_cast<size_t>(std::countl_one(static_cast<uint8_t>(text.front())));
  if (ones == 0) {
    return text.substr(0, 1);
  }
  const std::string_view character = text.substr(0, ones);
  const bool whole = ones >= 2 && ones <= 4 && character.size() == ones &&
                     std::ranges::all_of(character.substr(1), continuesCharacter) &&
                     isCharacter(character);
  return whole ? character : std::string_view();
}

// Controls, and what turns the direction of writing or ends a line.
bool steers(char32_t point) {
  return point < ' ' || isFromTo(point, 0x7F, 0x9F) || point == 0x61C ||
         isFromTo(point, 0x200E, 0x200F) || isFromTo(point, 0x2028, 0x202E) ||
         isFromTo(point, 0x2066, 0x2069);
}

}  // namespace

std::string_view startOf(std::string_view text, size_t bytes) {
  if (text.size() <= bytes) {
    return text;
  }
  constexpr size_t kMostBehindFirst = 3;  // bytes of a character
  const size_t least = bytes - std::min(bytes, kMostBehindFirst);
  size_t length = bytes;
  while (length > least && continuesCharacter(text[length])) {
    --length;
  }
  return text.substr(0, continuesCharacter(text[length]) ? bytes : length);
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
    result += character.empty() || steers(codePoint(character)) ? "?" : character;
    text.remove_prefix(std::max(character.size(), size_t{1}));
  }
  return result;
}

}  // namespace kel::host
