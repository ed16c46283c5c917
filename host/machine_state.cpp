// Reads the machine's state from /proc and statvfs.
#include "host/machine_state.hpp"

#include <fmt/core.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <cmath>
#include <set>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "host/kernel_files.hpp"

namespace kel::host {
namespace {

std::string demandText(const std::string& path) {
  auto text = readText(path);
  if (!text) {
    throw std::runtime_error(fmt::format("cannot read {}", path));
  }
  return *std::move(text);
}

std::string readHostName() {
  std::array<char, 256> name{};
  if (gethostname(name.data(), name.size() - 1) != 0) {
    throw std::runtime_error("cannot read the host name");
  }
  return name.data();
}

// Null for images too, which are full for good, and which nobody can overload.
std::optional<FileSystem> measure(const Mount& mount) {
  const auto use = measureUse(mount.mountPoint);
  return use && use->size != 0 && !use->readOnly ? std::optional(fileSystemOf(mount, *use))
                                                 : std::nullopt;
}

std::vector<FileSystem> readFileSystems() {
  std::vector<FileSystem> result = eachDeviceOnce(readMounts("/"), measure);
  if (result.empty()) {
    if (const auto root = measure({std::nullopt, "/", "-", "-"})) {
      result.push_back(*root);
    }
  }
  return result;
}

}  // namespace

FileSystem fileSystemOf(const Mount& mount, const FileSystemUse& use) {
  constexpr uint64_t kMiB = 1024UL * 1024UL;
  return {mount.mountPoint, mount.source, use.size / kMiB, use.freeForUsers / kMiB,
          use.usedPercent};
}

std::vector<FileSystem> eachDeviceOnce(
    const std::vector<Mount>& mounts,
    const std::function<std::optional<FileSystem>(const Mount&)>& measure) {
  std::vector<FileSystem> result;
  std::set<std::string> seen;
  for (const Mount& mount : mounts) {
    const std::string& name = mount.source.starts_with('/') ? mount.source : mount.mountPoint;
    const bool mountsWhenAsked = mount.type == "autofs";
    if (mountsWhenAsked || seen.contains(name) || !isSeen(mounts, mount)) {
      continue;
    }
    if (const auto fileSystem = measure(mount)) {
      result.push_back(*fileSystem);
      seen.insert(name);
    }
  }
  return result;
}

LoadAverages parseLoadAverages(const std::string& text) {
  std::istringstream words(text);
  LoadAverages result{};
  for (uint32_t& load : result) {
    double value = 0;
    if (!(words >> value) || value < 0) {
      throw std::runtime_error("/proc/loadavg does not begin with three numbers");
    }
    load = static_cast<uint32_t>(std::lround(value * 100));
  }
  return result;
}

Memory parseMemory(const std::string& text) {
  const auto total = numberBehind("MemTotal:", text);  // in KiB
  const auto available = numberBehind("MemAvailable:", text);
  if (!total || !available) {
    throw std::runtime_error("/proc/meminfo lacks MemTotal or MemAvailable");
  }
  return {*total / 1024, *available / 1024};
}

MachineState readMachineState() {
  MachineState state{};
  state.hostName = readHostName();
  gettimeofday(&state.time, nullptr);
  state.processors = static_cast<uint32_t>(get_nprocs());
  state.load = parseLoadAverages(demandText("/proc/loadavg"));
  state.memory = parseMemory(demandText("/proc/meminfo"));
  state.fileSystems = readFileSystems();
  return state;
}

}  // namespace kel::host
