#include "tests/host/made_up_machine.hpp"

#include <fmt/core.h>

#include <fstream>

namespace kel::host::test {

void MadeUpMachine::put(const std::string& path, const std::string& text) const {
  std::filesystem::create_directories((root / path).parent_path());
  std::ofstream(root / path) << text << '\n';
}

void MadeUpMachine::mount(const std::string& device, const std::string& mountPoint,
                          const std::string& source) {
  std::filesystem::create_directories(root / mountPoint.substr(1));
  mounts_ += fmt::format("{} 1 {} / {} rw,relatime shared:1 - ext4 {} rw\n", nextMount_++, device,
                         mountPoint, source);
  put("proc/self/mountinfo", mounts_);
}

void MadeUpMachine::addProcess(uint32_t number, const std::vector<std::string>& targets) const {
  const std::string folder = fmt::format("proc/{}", number);
  put(folder + "/comm", fmt::format("p{}", number));
  std::filesystem::create_directories(root / folder / "fd");
  for (size_t i = 0; i < targets.size(); ++i) {
    std::filesystem::create_symlink(targets[i], root / folder / "fd" / std::to_string(i));
  }
}

}  // namespace kel::host::test
