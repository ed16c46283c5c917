// Reads /sys/block, /sys/class/mtd and /proc/partitions.
#include "host/block_devices.hpp"

#include <algorithm>
#include <optional>
#include <sstream>
#include <string_view>
#include <system_error>

#include "host/kernel_files.hpp"
#include "host/mount_table.hpp"

namespace kel::host {
namespace {

using std::filesystem::path;

constexpr uint64_t kSector = 512;  // the kernel's unit, whatever the device's own

// A slash in a device's name is an exclamation mark in /sys.
std::string plainName(std::string name) {
  std::ranges::replace(name, '!', '/');
  return name;
}

std::string mountPointOf(const std::vector<Mount>& mounts, std::string_view deviceNumber,
                         const std::string& devicePath) {
  const auto number = parseDeviceNumber(deviceNumber);
  const auto found = std::ranges::find_if(mounts, [&](const Mount& mount) {
    const bool isOfDevice = (number && mount.deviceNumber == number) || mount.source == devicePath;
    return isOfDevice && isSeen(mounts, mount);
  });
  return found == mounts.end() ? "" : found->mountPoint;
}

bool isSet(const path& flag) { return readNumber(flag).value_or(0) != 0; }

// What a disk and its partitions have in common.
BlockDevice describeDevice(const path& folder, const std::vector<Mount>& mounts) {
  BlockDevice device;
  device.name = plainName(folder.filename());
  device.path = "/dev/" + device.name;
  device.size = readNumber(folder / "size").value_or(0) * kSector;
  device.mountPoint = mountPointOf(mounts, readText(folder / "dev").value_or(""), device.path);
  // btrfs has a device number of its own, and calls a mapped device by the name of its mapping.
  const auto mapping = readText(folder / "dm/name");
  if (mapping && device.mountPoint.empty()) {
    device.mountPoint = mountPointOf(mounts, "", "/dev/mapper/" + *mapping);
  }
  return device;
}

BlockDevice describeDisk(const path& folder, const std::vector<Mount>& mounts) {
  BlockDevice disk = describeDevice(folder, mounts);
  disk.model = readText(folder / "device/model").value_or("");
  if (disk.model.empty()) {
    disk.model = readText(folder / "device/name").value_or("");  // where eMMC has it
  }
  disk.kind = "disk";
  disk.kind += isSet(folder / "removable") ? ", removable" : "";
  disk.kind += isSet(folder / "ro") ? ", read-only" : "";
  disk.blockSize = readNumber(folder / "queue/logical_block_size").value_or(0);
  return disk;
}

BlockDevice describePartition(const path& folder, const BlockDevice& disk,
                              const std::vector<Mount>& mounts) {
  BlockDevice partition = describeDevice(folder, mounts);
  partition.model = disk.model;
  partition.kind = "partition";
  partition.kind += isSet(folder / "ro") ? ", read-only" : "";
  partition.start = readNumber(folder / "start").value_or(0) * kSector;
  partition.blockSize = disk.blockSize;
  partition.partition = static_cast<uint32_t>(readNumber(folder / "partition").value_or(0));
  return partition;
}

void addDisk(const path& folder, const std::vector<Mount>& mounts,
             std::vector<BlockDevice>& devices) {
  const BlockDevice disk = describeDisk(folder, mounts);
  if (disk.size == 0) {
    return;  // an unused loop device, an empty drive
  }
  if (isSet(folder / "hidden")) {
    return;  // nothing in /dev is of that name
  }
  devices.push_back(disk);
  const size_t first = devices.size();
  for (const std::string& name : namesIn(folder)) {
    if (readNumber(folder / name / "partition")) {
      devices.push_back(describePartition(folder / name, disk, mounts));
    }
  }
  std::ranges::sort(devices.begin() + static_cast<std::ptrdiff_t>(first), devices.end(), {},
                    &BlockDevice::partition);
}

// "   8        1  524288 sda1", sizes in KiB, after a heading.
void addUnseen(const path& root, const std::vector<Mount>& mounts,
               std::vector<BlockDevice>& devices) {
  constexpr size_t kParts = 4;
  std::istringstream lines(readText(root / "proc/partitions").value_or(""));
  for (std::string line; std::getline(lines, line);) {
    const std::vector<std::string> parts = words(line);
    const auto kibibytes = parts.size() == kParts ? firstNumber(parts[2]) : std::nullopt;
    if (!kibibytes || *kibibytes == 0 ||
        std::ranges::find(devices, parts[3], &BlockDevice::name) != devices.end()) {
      continue;
    }
    BlockDevice device;
    device.name = parts[3];
    device.path = "/dev/" + device.name;
    device.kind = "block device";
    device.size = *kibibytes * 1024;
    device.mountPoint = mountPointOf(mounts, parts[0] + ":" + parts[1], device.path);
    devices.push_back(std::move(device));
  }
}

// Life time is told in tenths: 1 stands for 0 to 10 per cent, 10 for 90 to 100, 11 for beyond; 0
// for not known. Several kinds of cells have a number each.
std::optional<uint64_t> percentFromTenths(const std::string& text) {
  constexpr uint64_t kBeyond = 11;
  uint64_t most = 0;
  for (const std::string& word : words(text)) {
    const uint64_t tenths = firstNumber(word).value_or(0);
    most = std::max(most, tenths <= kBeyond ? tenths : 0);
  }
  if (most == 0) {
    return std::nullopt;
  }
  return most == kBeyond ? 101 : most * 10;
}

// UFS keeps it with the controller, of which the disk is a distant child.
std::string ufsLifeTime(const path& disk) {
  std::error_code error;
  path folder = std::filesystem::canonical(disk, error);
  for (; !error && folder.has_relative_path(); folder = folder.parent_path()) {
    const path health = folder / "health_descriptor";
    if (const auto first = readText(health / "life_time_estimation_a")) {
      return *first + " " + readText(health / "life_time_estimation_b").value_or("");
    }
  }
  return "";
}

// "start length" in sectors, a line for each stretch.
uint64_t sumOfLengths(const std::string& text) {
  uint64_t sum = 0;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    const std::vector<std::string> parts = words(line);
    sum += parts.size() == 2 ? firstNumber(parts[1]).value_or(0) : 0;
  }
  return sum;
}

void addArrayMembers(const path& disk, const std::string& name, std::vector<BadBlocks>& found) {
  constexpr std::string_view kMember = "dev-";
  for (const std::string& member : namesIn(disk / "md")) {
    const auto text = readText(disk / "md" / member / "bad_blocks");
    if (text && member.starts_with(kMember)) {
      found.push_back({name + "/" + plainName(member.substr(kMember.size())), sumOfLengths(*text)});
    }
  }
}

}  // namespace

std::vector<BlockDevice> readBlockDevices(const path& root) {
  const std::vector<Mount> mounts = readMounts(root);
  std::vector<BlockDevice> devices;
  for (const std::string& name : namesIn(root / "sys/block")) {
    addDisk(root / "sys/block" / name, mounts, devices);
  }
  addUnseen(root, mounts, devices);
  return devices;
}

std::vector<Wear> readWear(const path& root) {
  std::vector<Wear> found;
  for (const std::string& name : namesIn(root / "sys/block")) {
    const path disk = root / "sys/block" / name;
    auto lifeTime = readText(disk / "device/life_time");
    const auto percent = percentFromTenths(lifeTime ? *lifeTime : ufsLifeTime(disk));
    const auto number = parseDeviceNumber(readText(disk / "dev").value_or(""));
    if (percent && number) {
      found.push_back({*number, *percent});
    }
  }
  return found;
}

std::vector<BadBlocks> readBadBlocks(const path& root) {
  std::vector<BadBlocks> found;
  for (const std::string& name : namesIn(root / "sys/class/mtd")) {
    if (const auto count = readNumber(root / "sys/class/mtd" / name / "bad_blocks")) {
      found.push_back({name, *count});
    }
  }
  for (const std::string& name : namesIn(root / "sys/block")) {
    const path disk = root / "sys/block" / name;
    if (const auto text = readText(disk / "badblocks")) {
      found.push_back({plainName(name), sumOfLengths(*text)});
    }
    addArrayMembers(disk, plainName(name), found);
  }
  return found;
}

}  // namespace kel::host
