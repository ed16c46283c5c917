// Reads /proc/<pid>.
#include "host/processes.hpp"

#include <fcntl.h>
#include <fmt/core.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <limits>
#include <system_error>

#include "host/kernel_files.hpp"

namespace kel::host {
namespace {

using std::filesystem::path;

path folderOf(const path& root, uint32_t process) {
  return root / "proc" / std::to_string(process);
}

std::optional<uint32_t> processFrom(const std::string& name) {
  const auto number = name.starts_with("0x") ? std::nullopt : firstNumber(name);
  return number && *number <= std::numeric_limits<uint32_t>::max()
             ? std::optional(static_cast<uint32_t>(*number))
             : std::nullopt;
}

std::optional<uint32_t> countEntries(const path& folder) {
  std::error_code error;
  uint32_t count = 0;
  std::filesystem::directory_iterator entry(folder, error);
  for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
    ++count;
  }
  return error ? std::nullopt : std::optional(count);
}

uint32_t& kindOf(const path& link, DescriptorKinds& kinds) {
  std::error_code error;
  const std::string target = std::filesystem::read_symlink(link, error);
  if (target.starts_with("socket:")) {
    return kinds.sockets;
  }
  if (target.starts_with("pipe:")) {
    return kinds.pipes;
  }
  if (target.starts_with("anon_inode:")) {
    return kinds.anonymous;
  }
  // As far as it is known here: a file system that no longer answers is not waited for.
  struct statx state {};
  if (error || statx(AT_FDCWD, link.c_str(), AT_STATX_DONT_SYNC, STATX_TYPE, &state) != 0) {
    return kinds.others;
  }
  switch (state.stx_mode & S_IFMT) {
    case S_IFREG:
    case S_IFDIR:
      return kinds.files;
    case S_IFCHR:
    case S_IFBLK:
      return kinds.devices;
    case S_IFIFO:
      return kinds.pipes;
    case S_IFSOCK:
      return kinds.sockets;
    default:
      return kinds.others;
  }
}

DescriptorKinds classify(const path& folder) {
  DescriptorKinds kinds;
  for (const std::string& name : namesIn(folder)) {
    ++kindOf(folder / name, kinds);
  }
  return kinds;
}

// A process may say that its command line is as long as all of memory.
std::optional<std::string> commandLineOf(const path& folder) {
  constexpr size_t kEnough = 4096;
  std::string text = readText(folder / "cmdline", kEnough).value_or("");
  text.erase(text.find_last_not_of('\0') + 1);
  if (!text.empty()) {
    std::ranges::replace(text, '\0', ' ');
    return text;
  }
  const auto name = readText(folder / "comm");
  return name ? std::optional(fmt::format("[{}]", *name)) : std::nullopt;
}

// "Max open files            1024                 4096                 files"
std::optional<uint32_t> softLimitOf(const path& folder) {
  const auto limit = numberBehind("Max open files", readText(folder / "limits").value_or(""));
  return limit ? std::optional(static_cast<uint32_t>(
                     std::min<uint64_t>(*limit, std::numeric_limits<uint32_t>::max())))
               : std::nullopt;
}

// The start is the 22nd word, in ticks since the machine started; the second, a name in
// parentheses, may hold anything.
std::optional<uint64_t> startTicks(const path& folder) {
  constexpr size_t kWordsBehindName = 19;
  const std::string text = readText(folder / "stat").value_or("");
  const size_t name = text.rfind(')');
  if (name == std::string::npos) {
    return std::nullopt;
  }
  const std::vector<std::string> behind = words(text.substr(name + 1));
  return behind.size() > kWordsBehindName ? firstNumber(behind[kWordsBehindName]) : std::nullopt;
}

timeval startOf(const path& folder, std::optional<uint64_t> bootTime) {
  const auto ticks = startTicks(folder);
  if (!bootTime || !ticks) {
    return {};
  }
  constexpr uint64_t kMicroseconds = 1'000'000;
  const auto perSecond = static_cast<uint64_t>(sysconf(_SC_CLK_TCK));
  return {static_cast<time_t>(*bootTime + *ticks / perSecond),
          static_cast<suseconds_t>(*ticks % perSecond * kMicroseconds / perSecond)};
}

}  // namespace

std::vector<ProcessUse> countDescriptors(const path& root, uint32_t atLeast) {
  std::vector<ProcessUse> found;
  for (const std::string& name : namesIn(root / "proc")) {
    const auto process = processFrom(name);
    if (!process) {
      continue;
    }
    const auto count = countEntries(folderOf(root, *process) / "fd");
    if (count && *count >= atLeast) {
      found.push_back({*process, *count});
    }
  }
  std::ranges::sort(found, [](const ProcessUse& one, const ProcessUse& other) {
    return one.descriptors != other.descriptors ? one.descriptors > other.descriptors
                                                : one.process < other.process;
  });
  return found;
}

std::optional<uint64_t> readBootTime(const path& root) {
  return numberBehind("\nbtime ", readText(root / "proc/stat").value_or(""));
}

std::optional<ProcessDetails> examineProcess(const path& root, uint32_t process,
                                             std::optional<uint64_t> bootTime) {
  const path folder = folderOf(root, process);
  ProcessDetails details{
      {}, startOf(folder, bootTime), classify(folder / "fd"), softLimitOf(folder)};
  auto commandLine = commandLineOf(folder);  // last: the rest is whole if this is still there
  if (!commandLine) {
    return std::nullopt;
  }
  details.commandLine = *std::move(commandLine);
  return details;
}

}  // namespace kel::host
