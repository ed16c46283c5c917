// The machine's disks and partitions, their wear and their bad blocks, as the kernel shows them to
// everybody. For the served methods; every reader takes the folder that stands for /.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace kel::host {

struct BlockDevice {
  std::string name;        // as the kernel has it: "sda1"
  std::string path;        // "/dev/sda1"
  std::string model;       // of the whole disk; often empty
  std::string kind;        // "disk", "partition" or "block device", and ", removable" and so on
  uint64_t size = 0;       // bytes
  uint64_t start = 0;      // bytes from the start of the disk
  uint64_t blockSize = 0;  // logical, in bytes
  uint32_t partition = 0;  // 0: a whole disk
  std::string mountPoint;  // the first one; empty when it is not mounted
};

// Every disk of any size with its partitions behind it. What /sys does not show, but
// /proc/partitions does, is a "block device" with no more than its name and size.
std::vector<BlockDevice> readBlockDevices(const std::filesystem::path& root);

struct Wear {
  uint32_t deviceNumber;  // major * 2^20 + minor
  uint64_t percent;       // of the rated life that is used; more than 100 beyond its end
};

// The devices that report their wear: eMMC and UFS, in steps of 10 per cent, of which the upper end
// is told; of several kinds of cells the most worn.
std::vector<Wear> readWear(const std::filesystem::path& root);

struct BadBlocks {
  std::string device;  // "mtd0", "pmem0", or a member of an array, "md0/sda1"
  uint64_t count;      // erase blocks of an MTD device, otherwise sectors of 512 bytes
};

// The devices whose bad blocks the kernel keeps, sound ones included.
std::vector<BadBlocks> readBadBlocks(const std::filesystem::path& root);

}  // namespace kel::host
