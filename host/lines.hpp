// Lines for whoever runs a program or looks on, from code that has other work to finish: what
// cannot be written is lost. Any thread may.
#pragma once

#include <cstdio>
#include <string>

namespace kel::host {

// On standard output, at once.
inline void printLine(const std::string& line) {
  std::fputs((line + '\n').c_str(), stdout);
  std::fflush(stdout);
}

// On standard error.
inline void complain(const std::string& sentence) { std::fputs((sentence + '\n').c_str(), stderr); }

}  // namespace kel::host
