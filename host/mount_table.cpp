// Reads mountinfo and statvfs.
#include "host/mount_table.hpp"

#include <sys/statvfs.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <sstream>

#include "host/kernel_files.hpp"

namespace kel::host {
namespace {

// Any other white space stands for itself, and a source may be empty.
std::vector<std::string> splitAtSpaces(const std::string& line) {
  std::istringstream stream(line);
  std::vector<std::string> parts;
  for (std::string part; std::getline(stream, part, ' ');) {
    parts.push_back(part);
  }
  return parts;
}

// Spaces, tabs, line ends and backslashes are written as a backslash and three octal digits.
std::string unescaped(const std::string& text) {
  const auto octal = [&](size_t at) { return text[at] >= '0' && text[at] <= '7'; };
  std::string result;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && i + 3 < text.size() && octal(i + 1) && octal(i + 2) && octal(i + 3)) {
      result += static_cast<char>(std::stoi(text.substr(i + 1, 3), nullptr, 8));
      i += 3;
    } else {
      result += text[i];
    }
  }
  return result;
}

// "36 35 98:0 /mnt1 /mnt2 rw,noatime master:1 - ext3 /dev/root rw,errors=continue", with any number
// of words before the dash.
std::optional<Mount> parseMount(const std::string& line) {
  constexpr size_t kDevice = 2;
  constexpr size_t kMountPoint = 4;
  constexpr size_t kFirstOptional = 6;
  const std::vector<std::string> parts = splitAtSpaces(line);
  if (parts.size() <= kFirstOptional) {
    return std::nullopt;
  }
  const auto id = firstNumber(parts[0]);
  const auto parent = firstNumber(parts[1]);
  const auto dash = std::find(parts.begin() + kFirstOptional, parts.end(), "-");
  if (!id || !parent || parts.end() - dash < 3) {
    return std::nullopt;
  }
  return Mount{parseDeviceNumber(parts[kDevice]),
               unescaped(parts[kMountPoint]),
               unescaped(dash[1]),
               unescaped(dash[2]),
               *id,
               *parent};
}

uint32_t usedPercent(const struct statvfs& state) {
  uint64_t used = state.f_blocks - std::min(state.f_bfree, state.f_blocks);
  uint64_t usable = used + state.f_bavail;
  constexpr uint64_t kMost = std::numeric_limits<uint64_t>::max() / 101;  // for the sum below
  for (; usable > kMost; usable /= 2) {
    used /= 2;
  }
  return static_cast<uint32_t>(usable == 0 ? 0 : (used * 100 + usable - 1) / usable);
}

uint64_t bytesIn(uint64_t blocks, uint64_t blockSize) {
  uint64_t bytes = 0;
  return __builtin_mul_overflow(blocks, blockSize, &bytes) ? std::numeric_limits<uint64_t>::max()
                                                           : bytes;
}

bool isBelow(const std::string& place, const std::string& other) {
  return place.size() > other.size() && place.starts_with(other) &&
         (other.ends_with('/') || place[other.size()] == '/');
}

bool isMountedOn(const Mount& upper, const Mount& lower) {
  return upper.parent == lower.id && upper.id != lower.id && upper.mountPoint == lower.mountPoint;
}

// Of what is mounted in one mount, what comes first on the way to a place is what is met there.
bool comesBefore(const Mount& first, const Mount& second) {
  return first.parent == second.parent && first.id != second.id &&
         isBelow(second.mountPoint, first.mountPoint);
}

// Null for the first of all, and where it cannot be seen from here.
const Mount* parentOf(const std::vector<Mount>& mounts, const Mount& mount) {
  const auto found = std::ranges::find(mounts, mount.parent, &Mount::id);
  return found == mounts.end() || found->id == mount.id ? nullptr : &*found;
}

}  // namespace

bool isSeen(const std::vector<Mount>& mounts, const Mount& mount) {
  if (std::ranges::any_of(mounts, [&](const Mount& other) { return isMountedOn(other, mount); })) {
    return false;
  }
  // No way up is longer than the table, even if that changed while it was read.
  const Mount* at = &mount;
  for (size_t step = 0; at != nullptr && step < mounts.size(); ++step) {
    if (std::ranges::any_of(mounts, [&](const Mount& other) { return comesBefore(other, *at); })) {
      return false;
    }
    at = parentOf(mounts, *at);
  }
  return true;
}

std::vector<Mount> parseMounts(const std::string& text) {
  std::vector<Mount> mounts;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (auto mount = parseMount(line)) {
      mounts.push_back(*std::move(mount));
    }
  }
  return mounts;
}

std::vector<Mount> readMounts(const std::filesystem::path& root) {
  return parseMounts(readText(root / "proc/self/mountinfo").value_or(""));
}

std::optional<Mount> findMount(const std::vector<Mount>& mounts, const std::string& mountPoint) {
  const auto found = std::ranges::find_if(mounts, [&](const Mount& mount) {
    return mount.mountPoint == mountPoint && isSeen(mounts, mount);
  });
  if (found != mounts.end()) {
    return *found;
  }
  return mountPoint == "/" ? std::optional(Mount{std::nullopt, "/", "-", "-"}) : std::nullopt;
}

std::optional<FileSystemUse> measureUse(const std::filesystem::path& mountPoint) {
  struct statvfs state {};
  if (statvfs(mountPoint.c_str(), &state) != 0) {
    return std::nullopt;
  }
  if (state.f_bsize == 0) {  // what the kernel tells of one that this user may not look at
    errno = EACCES;
    return std::nullopt;
  }
  return FileSystemUse{bytesIn(state.f_blocks, state.f_frsize),
                       bytesIn(state.f_bavail, state.f_frsize), usedPercent(state),
                       (state.f_flag & ST_RDONLY) != 0};
}

}  // namespace kel::host
