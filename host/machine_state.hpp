// The state of this machine, read live: mounted file systems, load, memory, name, time.
// For kel_host; works with any set of mounts, an empty one included.
#pragma once

#include <sys/time.h>

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "host/mount_table.hpp"

namespace kel::host {

struct FileSystem {
  std::string mountPoint;
  std::string device;
  uint64_t sizeMiB;
  uint64_t freeMiB;      // for ordinary users
  uint32_t usedPercent;  // of what ordinary users may use, rounded up, as df has it
};

struct Memory {
  uint64_t totalMiB;
  uint64_t availableMiB;
};

using LoadAverages = std::array<uint32_t, 3>;  // 1, 5 and 15 minutes, in hundredths

struct MachineState {
  std::string hostName;
  timeval time;
  uint32_t processors;
  LoadAverages load;
  Memory memory;
  std::vector<FileSystem> fileSystems;  // every writable device of any size, once
};

// Throws std::runtime_error with a sentence when something cannot be read; where no mount can be,
// the root stands for all.
MachineState readMachineState();

FileSystem fileSystemOf(const Mount& mount, const FileSystemUse& use);

// Containers mount one device in many places, of which the first that can be measured is as good as
// any. File systems without a device of their own (tmpfs, overlay) only share its name.
std::vector<FileSystem> eachDeviceOnce(
    const std::vector<Mount>& mounts,
    const std::function<std::optional<FileSystem>(const Mount&)>& measure);

// What the texts of /proc/loadavg and /proc/meminfo say; both throw std::runtime_error when they
// say something else.
LoadAverages parseLoadAverages(const std::string& text);
Memory parseMemory(const std::string& text);

}  // namespace kel::host
