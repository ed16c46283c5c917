// A machine made of files, to be examined instead of the live one.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace kel::host::test {

class MadeUpMachine {
 public:
  explicit MadeUpMachine(std::filesystem::path folder) : root(std::move(folder)) {}

  // A file of /proc or /sys with its folders.
  void put(const std::string& path, const std::string& text) const;

  // Adds to the mounts; the mount point becomes a folder.
  void mount(const std::string& device, const std::string& mountPoint, const std::string& source);

  // Adds a process with one link in its fd folder for each target.
  void addProcess(uint32_t number, const std::vector<std::string>& targets) const;

  const std::filesystem::path root;

 private:
  std::string mounts_;
  uint32_t nextMount_ = 20;
};

}  // namespace kel::host::test
