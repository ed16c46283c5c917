// Reads a file that a command line names. For credentials and disk_rules.
#pragma once

#include <fmt/core.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <string>

namespace kel::host {

// All at once, since a pipe can be read only so. Throws std::runtime_error with a sentence, also
// for an empty file, and for one that goes on and on.
inline std::string readWholeFile(const std::string& path) {
  constexpr size_t kMostBytes = size_t{1} << 20U;
  errno = 0;
  std::ifstream file(path);
  std::string text(kMostBytes + 1, '\0');
  file.read(text.data(), static_cast<std::streamsize>(text.size()));
  text.resize(static_cast<size_t>(file.gcount()));
  if (file.good() || text.empty() || file.bad()) {
    const char* const why = file.good()  ? "it has more than 1 MiB"
                            : errno == 0 ? "it is empty"
                                         : std::strerror(errno);
    throw std::runtime_error(fmt::format("cannot read {}: {}", path, why));
  }
  return text;
}

}  // namespace kel::host
