// Runs another program, without a shell and for a limited time. For disk_images.
#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace kel::host {

// The descriptor's number in the child.
inline constexpr int kInherited = 3;

// Runs arguments[0], a path, with an environment of its own. It has /dev/null for standard input
// and output, this process's standard error, a copy of descriptor as kInherited, and no other
// descriptors. Waits for its end; a program that takes longer than the limit is killed, with its
// children. Says whether it ended by itself with 0.
bool runChild(std::vector<std::string> arguments, int descriptor, std::chrono::milliseconds limit);

}  // namespace kel::host
