// Reads a file that a command line names. For credentials and disk_rules.
#pragma once

#include <fmt/core.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

namespace kel::host {

// All at once, since a pipe can be read only so. Throws std::runtime_error with a sentence, for an
// empty file too.
inline std::string readWholeFile(const std::string& path) {
  errno = 0;
  const std::ifstream file(path);
  std::ostringstream text;
  if (!file || !(text << file.rdbuf())) {
    throw std::runtime_error(
        fmt::format("cannot read {}: {}", path, errno == 0 ? "it is empty" : std::strerror(errno)));
  }
  return text.str();
}

}  // namespace kel::host
