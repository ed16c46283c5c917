// Names put together at compile time, for log lines and message ids. For the codecs and schema/.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <string_view>

namespace korva {

// A name built at compile time, usable as a template argument.
template <size_t Size>
struct Name {
  std::array<char, Size> characters{};  // the NUL included

  consteval Name() = default;
  consteval Name(const char (&text)[Size]) { std::ranges::copy(text, characters.begin()); }

  [[nodiscard]] constexpr std::string_view view() const { return {characters.data(), Size - 1}; }
  [[nodiscard]] constexpr const char* text() const { return characters.data(); }
};

template <size_t Left, size_t Right>
consteval auto operator+(const Name<Left>& left, const Name<Right>& right) {
  Name<Left + Right - 1> joined;
  std::ranges::copy(left.view(), joined.characters.begin());
  std::ranges::copy(right.view(), joined.characters.begin() + left.view().size());
  return joined;
}

template <size_t Left, size_t Right>
consteval auto operator+(const Name<Left>& left, const char (&right)[Right]) {
  return left + Name<Right>(right);
}

}  // namespace korva
