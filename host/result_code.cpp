// Result codes in words.
#include "host/result_code.hpp"

#include <fmt/core.h>

namespace kel::host {

std::string describe(ResultCode code) {
  switch (code) {
    case ResultCode::done:
      return "done";
    case ResultCode::notFound:
      return "there is no such mount point, image or threshold";
    case ResultCode::badArgument:
      return "the argument is empty or impossible";
    case ResultCode::noImageFolder:
      return "the host may not: it was given no folder of disk images";
    case ResultCode::outsideFolder:
      return "the name is not that of a file of its own in the folder of disk images";
    case ResultCode::rightMissing:
      return "the host lacks the right";
    case ResultCode::programMissing:
      return "the host's system lacks mkfs.ext4";
    case ResultCode::loopMissing:
      return "the host's system offers no loop device";
    case ResultCode::inUse:
      return "the image is in use";
    case ResultCode::failed:
      return "it was tried and failed; the host's output says why";
  }
  return fmt::format("an unknown result, {}", static_cast<uint32_t>(code));
}

}  // namespace kel::host
