// kel_host: loads libkel_sys_diag.so, reports this machine to KelSysdiagMaster by every method,
// synchronously and asynchronously, and tells the story. Ends with 0 only if all of it went well.
#include <fmt/core.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "host/client_library.hpp"
#include "host/command_line.hpp"
#include "host/field_text.hpp"
#include "host/machine_records.hpp"
#include "host/machine_state.hpp"
#include "host/os_allocator.hpp"
#include "host/record_text.hpp"
#include "host/rpc_framework.hpp"
#include "host/serve_diagnostics.hpp"

namespace {

using namespace kel::host;
using Clock = std::chrono::steady_clock;

// Bold and dim, for terminals only.
std::string styled(const char* code, const std::string& text) {
  static const bool terminal = isatty(STDOUT_FILENO) != 0;
  return terminal ? fmt::format("\033[{}m{}\033[0m", code, text) : text;
}

std::string bold(const std::string& text) { return styled("1", text); }
std::string dim(const std::string& text) { return styled("2", text); }

void printMachine(const MachineState& machine) {
  fmt::print("{}\n", bold(fmt::format("This machine is {}", shown(machine.hostName))));
  fmt::print("  processors  {}\n", machine.processors);
  fmt::print("  load        {:.2f}  {:.2f}  {:.2f}  over 1, 5 and 15 minutes\n",
             machine.load[0] / 100.0, machine.load[1] / 100.0, machine.load[2] / 100.0);
  fmt::print("  memory      {}, {} available\n", sizeText(machine.memory.totalMiB),
             sizeText(machine.memory.availableMiB));
  size_t widest = 0;
  for (const FileSystem& disk : machine.fileSystems) {
    widest = std::max(widest, disk.mountPoint.size());
  }
  for (const FileSystem& disk : machine.fileSystems) {
    fmt::print("  disk        {:<{}}  {:>10}  {:>3} % used  {}\n", shown(disk.mountPoint), widest,
               sizeText(disk.sizeMiB), disk.usedPercent, dim(shown(disk.device)));
  }
}

// One part of a record a line.
std::string spread(std::string words) {
  constexpr std::string_view kEnd = "; ";
  for (size_t at = 0; (at = words.find(kEnd, at)) != std::string::npos;) {
    words.replace(at, kEnd.size(), ",\n              ");
  }
  return words;
}

// One call as it went.
struct Story {
  std::string method;
  std::string request;
  std::string encoding;
  int32_t result = kOk;
  std::string outcome;  // the reply, or why there is none
  Clock::duration took{};
};

// An asynchronous call under way. The completion writes the story's last part.
struct Pending {
  Story story;
  Clock::time_point began;
};

template <class Output>
void complete(int32_t result, void* output, uintptr_t context) {
  auto& pending = *reinterpret_cast<Pending*>(context);
  pending.story.result = result;
  pending.story.outcome =
      output == nullptr ? explain(result) : tell(*static_cast<const Output*>(output));
  pending.story.took = Clock::now() - pending.began;
}

// Makes calls and prints each as it ends. A failed call throws std::runtime_error.
class Caller {
 public:
  explicit Caller(const HostOptions& options) : options_(options) {}

  // Returns the reply, its content given back.
  template <class Method>
  typename Method::Output call(const Method& method, const typename Method::Input& input) const {
    IdlCodecOps ops{};
    method.setIdl(&ops);
    Story story = begin(method, ops, input);
    typename Method::Output output{};
    const Clock::time_point began = Clock::now();
    story.result = method.call(&input, &output, options_.deadlineMs);
    story.took = Clock::now() - began;
    if (story.result == kOk) {
      story.outcome = tell(output);
      ops.releaseFn(&output);
    } else {
      story.outcome = explain(story.result);
    }
    end(story);
    return output;
  }

  template <class Method>
  void start(const Method& method, const typename Method::Input& input) {
    IdlCodecOps ops{};
    method.setIdl(&ops);
    auto& pending = *pending_.emplace_back(std::make_unique<Pending>());
    pending.story = begin(method, ops, input);
    pending.began = Clock::now();
    const int32_t result = method.callAsync(
        &input,
        reinterpret_cast<uintptr_t>(static_cast<Completion>(complete<typename Method::Output>)),
        reinterpret_cast<uintptr_t>(&pending), options_.deadlineMs);
    if (result != kOk) {  // then there will be no completion
      complete<typename Method::Output>(result, nullptr, reinterpret_cast<uintptr_t>(&pending));
    }
  }

  // All of them, before the first failure is told: none may outlive what it writes to.
  void finish() const {
    waitForCompletions();
    for (const auto& pending : pending_) {
      end(pending->story);
    }
  }

 private:
  template <class Method>
  [[nodiscard]] Story begin(const Method& method, const IdlCodecOps& ops,
                            const typename Method::Input& input) const {
    const bool fixed = ops.fixedSizeFn != nullptr && !options_.compact;
    Story story;
    story.method = method.name;
    story.request = tell(input);
    story.encoding = fixed ? fmt::format("{} bytes, fixed layout", ops.fixedSizeFn())
                           : fmt::format("{} bytes, compact form", ops.packFn(nullptr, &input));
    return story;
  }

  static void end(const Story& story) {
    const double milliseconds = std::chrono::duration<double, std::milli>(story.took).count();
    const bool answered = story.result == kOk;
    fmt::print("  {}  {}\n    asked     {}\n    {}  {}\n", bold(story.method),
               dim(fmt::format("{}, {:.1f} ms", story.encoding, milliseconds)),
               spread(story.request), answered ? "answered" : "failed  ",
               answered ? spread(story.outcome) : story.outcome);
    if (!answered) {
      throw std::runtime_error(fmt::format("{}: {}", story.method, story.outcome));
    }
  }

  const HostOptions& options_;
  std::vector<std::unique_ptr<Pending>> pending_;
};

// The one that is nearest to its end; a machine that shows none still has a place to ask about.
FileSystem fullestDisk(const MachineState& machine) {
  const auto& disks = machine.fileSystems;
  const auto fullest = std::ranges::max_element(disks, {}, &FileSystem::usedPercent);
  return fullest == disks.end() ? FileSystem{"/", "-", 0, 0, 0} : *fullest;
}

void checkEcho(const OvLoadDiskCtlInput& question, const OvLoadDiskCtlOutput& thresholds) {
  if (!std::ranges::equal(question.bytes50, thresholds.bytes50) ||
      !std::ranges::equal(question.bytes32b, thresholds.bytes32b)) {
    throw std::runtime_error("the thresholds that came back are another disk's");
  }
}

void report(const HostOptions& options, const ClientLibrary& library) {
  const MachineState machine = readMachineState();
  printMachine(machine);
  const FileSystem disk = fullestDisk(machine);
  const AlarmInput memory = memoryAlarm(machine);
  const OverloadAlarmInput load = loadAlarm(machine);
  const OvLoadDiskCtlInput question = thresholdQuestion(machine, disk);

  Caller caller(options);
  fmt::print("\n{}\n", bold(fmt::format("Calls to {}, one after the other", options.master)));
  caller.call(library.sendAlarm, memory);
  caller.call(library.sendOverloadAlarm, load);
  const OvLoadDiskCtlOutput thresholds = caller.call(library.getDiskThresholds, question);
  checkEcho(question, thresholds);
  const OverloadDiskAlarmInput diskState = diskAlarm(machine.time, disk, thresholds);
  caller.call(library.sendDiskOverloadAlarm, diskState);

  fmt::print("\n{}\n", bold("The same calls, all at once"));
  caller.start(library.sendAlarm, memory);
  caller.start(library.sendOverloadAlarm, load);
  caller.start(library.getDiskThresholds, question);
  caller.start(library.sendDiskOverloadAlarm, diskState);
  caller.finish();
}

void checkMemory() {
  const AllocatorUse use = allocatorUse();
  fmt::print("\n{} blocks were served to the codecs, {} are outstanding\n", use.served,
             use.outstanding);
  if (use.served == 0 || use.outstanding != 0) {
    throw std::runtime_error("the codecs' blocks were not served, or did not all come back");
  }
}

void tellStory(const HostOptions& options) {
  report(options, prepareCalls(options));
  checkMemory();
}

int run(int argc, char** argv) {
  HostOptions options;
  std::error_code error;  // without /proc the system's folders are searched
  options.library =
      std::filesystem::read_symlink("/proc/self/exe", error).replace_filename("libkel_sys_diag.so");
  if (const auto code = parse(argc, argv, options)) {
    return *code;
  }
  options.serve ? serveDiagnostics(options) : tellStory(options);
  return 0;
}

}  // namespace

int main(int argc, char** argv) { return runProgram("kel_host", argc, argv, run); }
