// The machine's processes and what they have open. For the served methods; every reader takes the
// folder that stands for /.
#pragma once

#include <sys/time.h>

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace kel::host {

struct ProcessUse {
  uint32_t process;
  uint32_t descriptors;
};

// The processes with at least so many open descriptors, busiest first. Processes whose descriptors
// this user may not count are left out.
std::vector<ProcessUse> countDescriptors(const std::filesystem::path& root, uint32_t atLeast);

struct DescriptorKinds {
  uint32_t files = 0;  // and folders
  uint32_t sockets = 0;
  uint32_t pipes = 0;
  uint32_t anonymous = 0;  // event counters, timers and the like
  uint32_t devices = 0;
  uint32_t others = 0;  // also those that were closed in the meantime
};

struct ProcessDetails {
  std::string commandLine;  // or the name, in brackets, of one that has none
  timeval started;          // zero when it is not known
  DescriptorKinds kinds;
  std::optional<uint32_t> softLimit;  // of open descriptors; none: unlimited or unknown
};

// In Unix seconds. Slow to read, since it comes with the counts of every interrupt.
std::optional<uint64_t> readBootTime(const std::filesystem::path& root);

// Nothing about a process that has ended.
std::optional<ProcessDetails> examineProcess(const std::filesystem::path& root, uint32_t process,
                                             std::optional<uint64_t> bootTime);

}  // namespace kel::host
