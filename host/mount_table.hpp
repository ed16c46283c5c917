// What is mounted where, and how full it is. For the readers of the machine's state and for
// diagnostics.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace kel::host {

struct Mount {
  std::optional<uint32_t> deviceNumber;  // major * 2^20 + minor
  std::string mountPoint;
  std::string type;
  std::string source;  // a device's path, or whatever the file system calls its source
  uint64_t id = 0;
  uint64_t parent = 0;  // of the mount that it is mounted in
};

// root is put before every path, as with all readers.
std::vector<Mount> readMounts(const std::filesystem::path& root);

// The text of a mountinfo file; lines that are none are left out.
std::vector<Mount> parseMounts(const std::string& text);

// Whether a mount is what is found at its mount point: nothing is mounted over it, nor over a
// folder on the way there.
bool isSeen(const std::vector<Mount>& mounts, const Mount& mount);

// What is to be seen at a mount point; null when nothing is mounted there. / is always there, even
// where the table does not list it.
std::optional<Mount> findMount(const std::vector<Mount>& mounts, const std::string& mountPoint);

struct FileSystemUse {
  uint64_t size;          // bytes
  uint64_t freeForUsers;  // bytes
  uint32_t usedPercent;   // of what ordinary users may use, rounded up, as df has it
  bool readOnly;
};

// Null when this user may not look, or nothing is there any more; errno tells.
std::optional<FileSystemUse> measureUse(const std::filesystem::path& mountPoint);

}  // namespace kel::host
