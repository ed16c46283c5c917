// What the replies' result codes mean. For the served methods and whoever reads their replies.
#pragma once

#include <cstdint>
#include <string>

namespace kel::host {

enum class ResultCode : uint32_t {
  done = 0,
  notFound = 1,        // no such mount point, image or threshold
  badArgument = 2,     // an empty or impossible argument; nothing was tried
  noImageFolder = 3,   // the host was given no folder of disk images, so it formats nothing
  outsideFolder = 4,   // the name leads, or might lead, out of the folder of disk images
  rightMissing = 5,    // the host lacks the right
  programMissing = 6,  // mkfs.ext4 is not installed
  loopMissing = 7,     // the system offers no loop device
  inUse = 8,           // the image is mounted or is being formatted
  failed = 9,          // tried and failed; the host's standard error says more
};

// A sentence without its full stop, for people.
std::string describe(ResultCode code);

}  // namespace kel::host
