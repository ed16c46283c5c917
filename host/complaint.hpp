// Sentences on standard error for whoever runs a program, from code that has other work to finish.
#pragma once

#include <cstdio>
#include <string>

namespace kel::host {

// Any thread may. What cannot be written is lost, so that nobody's work fails for want of a reader.
inline void complain(const std::string& sentence) { std::fputs((sentence + '\n').c_str(), stderr); }

}  // namespace kel::host
