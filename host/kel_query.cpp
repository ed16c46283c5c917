// kel_query: asks a host that serves KelSysdiagQarne everything, and shows it to a person; changes
// what it is told to; or tells the story of an overload. Ends with 0 only if every call was
// answered and every change made.
#include <fmt/core.h>
#include <signal.h>

#include <algorithm>
#include <array>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>

#include "host/command_line.hpp"
#include "host/field_text.hpp"
#include "host/qarne_client.hpp"
#include "host/qarne_text.hpp"
#include "host/result_code.hpp"

namespace {

using namespace kel::host;

// How it ends if every call was answered, but a change was not made.
constexpr int kNotChanged = 2;

// The reply, or the reason in an exception.
template <class Method>
Reply<typename Method::Output> ask(const QarneClient& client, const Method& method,
                                   const typename Method::Input& input) {
  Reply<typename Method::Output> reply = client.call(method, input);
  if (reply.result() != kOk) {
    throw std::runtime_error(fmt::format("{}: {}", method.name, explain(reply.result())));
  }
  return reply;
}

template <class Record>
Record named(const std::string& name) {
  Record record{};
  putText(record.bytes50, name);
  return record;
}

template <class Method>
void heading(const Method& method, const std::string& what) {
  fmt::print("\n{}: {}\n", method.name, what);
}

Reply<OperResult> setThreshold(const QarneClient& client, const std::string& mountPoint,
                               uint32_t percent) {
  auto threshold = named<SysOvLoadDiskThreshold>(mountPoint);
  threshold.value1 = percent;
  return ask(client, kSysOvLoadDiskThresholdSet, threshold);
}

// Says whether the change was made.
bool showChange(const OperResult& answer) {
  fmt::print("{}", tell(answer));
  return ResultCode{answer.result} == ResultCode::done;
}

void showDisks(const QarneClient& client, const QueryOptions& options) {
  heading(kBrdPartInfoQuery, "disks and partitions");
  fmt::print("{}", tell(*ask(client, kBrdPartInfoQuery, {}), options.rows));
  heading(kGetSysDiskUseInfo, shown(options.mountPoint));
  fmt::print("{}",
             tell(*ask(client, kGetSysDiskUseInfo, named<SysDiskUseInput>(options.mountPoint))));
  heading(kQueryStorageEraseInfo, "all devices");
  fmt::print("{}", tell(*ask(client, kQueryStorageEraseInfo, {}), options.rows));
  heading(kQueryStorageBadBlockInfo, "all devices");
  fmt::print("{}", tell(*ask(client, kQueryStorageBadBlockInfo, {}), options.rows));
}

void showProcesses(const QarneClient& client, const QueryOptions& options) {
  constexpr uint32_t kAtLeast = 1;
  constexpr uint32_t kAtMost = 1000;
  heading(kFdProcInfoQuery, "processes by open descriptors");
  fmt::print("{}", tell(*ask(client, kFdProcInfoQuery, {kAtLeast, kAtMost}), options.rows));
}

// Like changeThreshold, says whether all that was asked for was done.
bool useImage(const QarneClient& client, const QueryOptions& options) {
  if (options.image.empty()) {
    fmt::print("\n{} and {} were not asked: name an image of the host's folder with --image\n",
               kResetDiskMakeFS.name, kMountDisk.name);
    return true;
  }
  heading(kResetDiskMakeFS, shown(options.image));
  if (!showChange(*ask(client, kResetDiskMakeFS, named<ResetDiskCondition>(options.image)))) {
    fmt::print("\n{} was not asked: the image has not been formatted\n", kMountDisk.name);
    return false;
  }
  heading(kMountDisk, shown(options.image));
  return showChange(*ask(client, kMountDisk, named<MountDiskInput>(options.image)));
}

bool changeThreshold(const QarneClient& client, const QueryOptions& options) {
  if (!options.threshold) {
    fmt::print("\n{} was not asked: name a threshold with --threshold\n",
               kSysOvLoadDiskThresholdSet.name);
    return true;
  }
  heading(kSysOvLoadDiskThresholdSet,
          fmt::format("{} % for {}", *options.threshold, shown(options.mountPoint)));
  return showChange(*setThreshold(client, options.mountPoint, *options.threshold));
}

// Changes come first, so that the answers show them. Says whether they were made.
bool askEverything(const QarneClient& client, const QueryOptions& options) {
  const bool imageUsed = useImage(client, options);
  const bool thresholdSet = changeThreshold(client, options);
  showDisks(client, options);
  showProcesses(client, options);
  return imageUsed && thresholdSet;
}

// Every mount point that the host's disks have, and the root, which may be none of them.
std::set<std::string> mountPoints(const QarneClient& client) {
  std::set<std::string> found = {"/"};
  const Reply<BrdPartInfo> disks = ask(client, kBrdPartInfoQuery, {});
  for (uint32_t i = 0; i < disks->entryCount; ++i) {
    found.insert(rawTextOf(disks->entries[i].bytes64));
  }
  std::erase_if(found, [](const std::string& mountPoint) {
    return mountPoint.empty() || mountPoint.size() > kLongestName;
  });
  return found;
}

std::string fullest(const QarneClient& client) {
  std::string result = "/";
  uint32_t most = 0;
  for (const std::string& mountPoint : mountPoints(client)) {
    const auto use = ask(client, kGetSysDiskUseInfo, named<SysDiskUseInput>(mountPoint));
    fmt::print("{}", tell(*use));
    if (use->value3 > most) {
      most = use->value3;
      result = mountPoint;
    }
  }
  return result;
}

// Whoever interrupts the program while this exists does not end it.
class Uninterrupted {
 public:
  Uninterrupted() {
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    for (auto& [signal, before] : signals_) {
      sigaction(signal, &ignore, &before);
    }
  }
  ~Uninterrupted() {
    for (const auto& [signal, before] : signals_) {
      sigaction(signal, &before, nullptr);
    }
  }
  Uninterrupted(const Uninterrupted&) = delete;
  Uninterrupted& operator=(const Uninterrupted&) = delete;

 private:
  std::array<std::pair<int, struct sigaction>, 3> signals_{
      {{SIGINT, {}}, {SIGTERM, {}}, {SIGHUP, {}}}};
};

struct Overload {
  Reply<OperResult> set;
  Reply<SysDiskUseInfoResult> report;
  Reply<OperResult> restored;
};

// Has a report made while a threshold is set, and then the threshold from before, whatever comes of
// that. Prints nothing, since whoever reads may have left.
Overload provokeOverload(const QarneClient& client, const std::string& mountPoint,
                         uint32_t threshold, uint32_t before) {
  const Uninterrupted uninterrupted;
  try {
    auto set = setThreshold(client, mountPoint, threshold);
    auto report = ask(client, kGetSysDiskUseInfo, named<SysDiskUseInput>(mountPoint));
    return {std::move(set), std::move(report), setThreshold(client, mountPoint, before)};
  } catch (...) {
    setThreshold(client, mountPoint, before);
    throw;
  }
}

// The host compares what it reports with the threshold that was set, and tells its master.
void tellOverload(const QarneClient& client) {
  fmt::print("How full are this host's disks?\n");
  const std::string mountPoint = fullest(client);
  const auto before = ask(client, kGetSysDiskUseInfo, named<SysDiskUseInput>(mountPoint));
  const uint32_t threshold = std::max(before->value3, 1U);
  const auto [set, report, restored] =
      provokeOverload(client, mountPoint, threshold, before->value5);
  fmt::print("\n{} is the fullest. A threshold of {} % is what it cannot keep:\n{}",
             shown(mountPoint), threshold, tell(*set));
  fmt::print("\nSo the next report has the host raise an alarm at its master:\n{}", tell(*report));
  fmt::print("\nThe threshold becomes what it was, {}:\n{}",
             before->value5 == 0 ? "none" : fmt::format("{} %", before->value5), tell(*restored));
  if (report->value5 == 0 || report->value3 < report->value5) {
    throw std::runtime_error("the threshold was not reached");
  }
  if (ResultCode{restored->result} != ResultCode::done) {
    throw std::runtime_error("the threshold is not what it was");
  }
}

int run(int argc, char** argv) {
  QueryOptions options;
  if (const auto code = parse(argc, argv, options)) {
    return *code;
  }
  configureCalls(options.calls);
  checkTarget(options.target);
  const QarneClient client(options.target, options.deadlineMs);
  if (options.overload) {
    tellOverload(client);
    return 0;
  }
  return askEverything(client, options) ? 0 : kNotChanged;
}

}  // namespace

int main(int argc, char** argv) { return runProgram("kel_query", argc, argv, run); }
