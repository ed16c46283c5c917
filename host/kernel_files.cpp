// Reads small files of /proc and /sys.
#include "host/kernel_files.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <fstream>
#include <iterator>
#include <sstream>
#include <system_error>

namespace kel::host {

std::optional<std::string> readText(const std::filesystem::path& path, size_t atMost) {
  std::ifstream file(path);
  if (!file) {
    return std::nullopt;
  }
  // By blocks, which set the stream's state: an iterator throws when reading fails, as it does for
  // the files of a process that has ended meanwhile.
  std::string text;
  std::array<char, 4096> block{};
  while (file && text.size() < atMost) {
    file.read(block.data(), block.size());
    text.append(block.data(), static_cast<size_t>(file.gcount()));
  }
  if (file.bad()) {
    return std::nullopt;
  }
  text.erase(text.find_last_not_of(" \t\n") + 1);
  return text;
}

std::optional<uint64_t> firstNumber(std::string_view text) {
  constexpr std::string_view kSpace = " \t\n";
  text.remove_prefix(std::min(text.find_first_not_of(kSpace), text.size()));
  text = text.substr(0, text.find_first_of(kSpace));
  const bool hexadecimal = text.starts_with("0x");
  text.remove_prefix(hexadecimal ? 2 : 0);
  uint64_t number = 0;
  const char* const end = text.data() + text.size();
  const auto parsed = std::from_chars(text.data(), end, number, hexadecimal ? 16 : 10);
  return parsed.ec == std::errc() && parsed.ptr == end ? std::optional(number) : std::nullopt;
}

std::optional<uint64_t> numberBehind(std::string_view heading, std::string_view text) {
  const size_t at = text.find(heading);
  return at == std::string_view::npos ? std::nullopt
                                      : firstNumber(text.substr(at + heading.size()));
}

std::optional<uint64_t> readNumber(const std::filesystem::path& path) {
  const auto text = readText(path);
  return text ? firstNumber(*text) : std::nullopt;
}

std::vector<std::string> words(std::string_view text) {
  std::istringstream stream{std::string(text)};
  return {std::istream_iterator<std::string>(stream), std::istream_iterator<std::string>()};
}

std::vector<std::string> namesIn(const std::filesystem::path& folder) {
  std::vector<std::string> names;
  std::error_code error;
  std::filesystem::directory_iterator entry(folder, error);
  for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
    names.push_back(entry->path().filename());
  }
  std::ranges::sort(names);
  return names;
}

std::optional<uint32_t> parseDeviceNumber(std::string_view text) {
  constexpr uint64_t kMajors = 1U << 12U;
  constexpr uint64_t kMinors = 1U << 20U;
  const size_t colon = text.find(':');
  if (colon == std::string_view::npos) {
    return std::nullopt;
  }
  const auto major = firstNumber(text.substr(0, colon));
  const auto minor = firstNumber(text.substr(colon + 1));
  if (!major || !minor || *major >= kMajors || *minor >= kMinors) {
    return std::nullopt;
  }
  return static_cast<uint32_t>(*major * kMinors + *minor);
}

}  // namespace kel::host
