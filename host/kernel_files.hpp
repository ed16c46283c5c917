// Small files of /proc and /sys, which come and go: whatever cannot be read is simply not there.
// For the readers of the machine's state, which take the folder to look in ("/" for the live
// machine) so that a machine can be made up.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kel::host {

// The text without white space at its end; reads on only while it has less than atMost bytes.
std::optional<std::string> readText(const std::filesystem::path& path,
                                    size_t atMost = std::string::npos);

// A text's first word as a number, decimal, or hexadecimal behind 0x; null if it is anything else,
// whatever numbers may follow.
std::optional<uint64_t> firstNumber(std::string_view text);

// The number behind a heading, as in "MemTotal: 2048 kB".
std::optional<uint64_t> numberBehind(std::string_view heading, std::string_view text);

std::optional<uint64_t> readNumber(const std::filesystem::path& path);

std::vector<std::string> words(std::string_view text);

// The names in a folder, sorted; none when it cannot be read.
std::vector<std::string> namesIn(const std::filesystem::path& folder);

// "8:1" as one number, major * 2^20 + minor.
std::optional<uint32_t> parseDeviceNumber(std::string_view text);

}  // namespace kel::host
