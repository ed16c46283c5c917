// Text in byte arrays: padding, cutting, showing.
#include "host/field_text.hpp"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>

namespace kel::host {
namespace {

bool continuesCharacter(char byte) { return (static_cast<uint8_t>(byte) & 0xC0U) == 0x80U; }

// Whether bytes that have the shape of a UTF-8 character are one: in the shortest form, no
// surrogate and not beyond the last.
bool isCharacter(std::string_view bytes) {
  constexpr std::array<std::string_view, 5> kFirstOfLength = {"", "", "\xC2\x80", "\xE0\xA0\x80",
                                                              "\xF0\x90\x80\x80"};
  const bool isSurrogate = bytes >= "\xED\xA0\x80" && bytes <= "\xED\xBF\xBF";
  return bytes >= kFirstOfLength[bytes.size()] && bytes <= "\xF4\x8F\xBF\xBF" && !isSurrogate;
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

// Or ends a line, as two of them do.
bool turnsDirection(std::string_view character) {
  const auto isFromTo = [character](std::string_view first, std::string_view last) {
    return character >= first && character <= last;
  };
  return isFromTo("\xE2\x80\x8E", "\xE2\x80\x8F") ||  // U+200E, U+200F
         isFromTo("\xE2\x80\xA8", "\xE2\x80\xAE") ||  // U+2028 to U+202E
         isFromTo("\xE2\x81\xA6", "\xE2\x81\xA9");    // U+2066 to U+2069
}

bool isControl(std::string_view character) {
  constexpr std::string_view kFirstBeyond = "\xC2\xA0";  // U+00A0
  return character < " " || (character >= "\x7F" && character < kFirstBeyond) ||
         turnsDirection(character);
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
