// Serves KelSysdiagQarne from this machine.
#include "host/qarne_methods.hpp"

#include <sys/time.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <exception>
#include <limits>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "host/block_devices.hpp"
#include "host/diagnostics.hpp"
#include "host/field_text.hpp"
#include "host/method_convention.hpp"
#include "host/processes.hpp"
#include "host/qarne_records.hpp"
#include "host/reply_memory.hpp"

namespace kel::host {
namespace {

template <class... Outputs>
constexpr bool kFit = ((sizeof(Outputs) <= kLargestOutputRecord) && ...);
static_assert(kFit<BrdPartInfo, FdProcInfoOutput, OperResult, SysDiskUseInfoResult, ResetDiskResult,
                   MountDiskResult, StorageEraseInfo, StorageBadBlockInfo>);

std::atomic<Diagnostics*> current = nullptr;

// Between the library and the machine nothing may throw.
template <class Body>
int32_t serve(const char* method, const Body& body) noexcept {
  Diagnostics* const diagnostics = current.load();
  if (diagnostics == nullptr) {
    return kMethodNotReady;
  }
  try {
    body(*diagnostics);
    return kServed;
  } catch (const std::bad_alloc&) {
    return kMethodOutOfMemory;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s: %s\n", method, error.what());
    return kMethodUnreadable;
  }
}

// Moves the entries into memory that the record owns.
template <class Output, class Entry>
void giveEntries(const std::vector<Entry>& entries, Output& output, const char* method) {
  if (entries.size() > std::numeric_limits<uint32_t>::max() / sizeof(Entry)) {
    throw std::length_error("too many entries");
  }
  if (entries.empty()) {
    return;
  }
  const auto size = static_cast<uint32_t>(entries.size() * sizeof(Entry));
  output.entries = static_cast<Entry*>(allocateEntries(size, method));
  std::uninitialized_copy(entries.begin(), entries.end(), output.entries);
  output.entryCount = static_cast<uint32_t>(entries.size());
}

template <class Output>
void takeEntries(Output& output, const char* method) {
  releaseEntries(output.entries, method);
  output.entries = nullptr;
}

uint32_t number(ResultCode code) { return static_cast<uint32_t>(code); }

std::vector<FdProcEntry> busiestProcesses(const Diagnostics& diagnostics, uint32_t atLeast,
                                          uint32_t atMost) {
  timeval now{};
  gettimeofday(&now, nullptr);
  const auto bootTime = readBootTime(diagnostics.root());
  std::vector<FdProcEntry> entries;
  for (const ProcessUse& use : countDescriptors(diagnostics.root(), atLeast)) {
    if (entries.size() == atMost) {
      break;
    }
    if (const auto details = examineProcess(diagnostics.root(), use.process, bootTime)) {
      entries.push_back(recordOf(use, *details, now));
    }
  }
  return entries;
}

// An array is asked for by its name, and answers with its members.
bool isAskedFor(const std::string& device, const std::string& asked) {
  return asked.empty() || device == asked || device.starts_with(asked + "/");
}

}  // namespace

void setDiagnostics(Diagnostics* diagnostics) { current = diagnostics; }

}  // namespace kel::host

using namespace kel::host;

int32_t KelBrdPartInfoQuery(const void* /*input*/, BrdPartInfo* output) {
  return serve(__func__, [&](const Diagnostics& diagnostics) {
    std::vector<BrdPartEntry> entries;
    for (const BlockDevice& device : readBlockDevices(diagnostics.root())) {
      entries.push_back(recordOf(device));
    }
    giveEntries(entries, *output, "KelBrdPartInfoQuery");
  });
}

void KelBrdPartInfoQuery_free(BrdPartInfo* output) { takeEntries(*output, __func__); }

int32_t FdProcInfoQuery(const FdProcInfoInput* input, FdProcInfoOutput* output) {
  return serve(__func__, [&](const Diagnostics& diagnostics) {
    const uint32_t wanted = input->value2 == 0 ? kDefaultProcesses : input->value2;
    giveEntries(busiestProcesses(diagnostics, input->value1, std::min(wanted, kMostProcesses)),
                *output, "FdProcInfoQuery");
  });
}

void FdProcInfoQuery_free(FdProcInfoOutput* output) { takeEntries(*output, __func__); }

int32_t KelSysOvLoadDiskThresholdSet(const SysOvLoadDiskThreshold* input, OperResult* output) {
  return serve(__func__, [&](Diagnostics& diagnostics) {
    output->result = number(diagnostics.setThreshold(rawTextOf(input->bytes50), input->value1));
  });
}

void KelSysOvLoadDiskThresholdSet_free(OperResult* /*output*/) {}

int32_t KelGetSysDiskUseInfo(const SysDiskUseInput* input, SysDiskUseInfoResult* output) {
  return serve(__func__, [&](Diagnostics& diagnostics) {
    *output = recordOf(diagnostics.reportUse(rawTextOf(input->bytes50)));
    std::ranges::copy(input->bytes50, output->bytes50a);
  });
}

void KelGetSysDiskUseInfo_free(SysDiskUseInfoResult* /*output*/) {}

int32_t KelResetDiskMakeFS(const ResetDiskCondition* input, ResetDiskResult* output) {
  return serve(__func__, [&](Diagnostics& diagnostics) {
    output->result = number(diagnostics.formatImage(rawTextOf(input->bytes50)));
  });
}

void KelResetDiskMakeFS_free(ResetDiskResult* /*output*/) {}

int32_t KelMountDisk(const MountDiskInput* input, MountDiskResult* output) {
  return serve(__func__, [&](Diagnostics& diagnostics) {
    output->result = number(diagnostics.mountImage(rawTextOf(input->bytes50)));
  });
}

void KelMountDisk_free(MountDiskResult* /*output*/) {}

int32_t KelQueryStorageEraseInfo(const StorageEraseInfoInput* input, StorageEraseInfo* output) {
  return serve(__func__, [&](const Diagnostics& diagnostics) {
    std::vector<StorageEraseEntry> entries;
    for (const Wear& wear : readWear(diagnostics.root())) {
      if (input->value1 == 0 || input->value1 == wear.deviceNumber) {
        entries.push_back(recordOf(wear));
      }
    }
    giveEntries(entries, *output, "KelQueryStorageEraseInfo");
  });
}

void KelQueryStorageEraseInfo_free(StorageEraseInfo* output) { takeEntries(*output, __func__); }

int32_t KelQueryStorageBadBlockInfo(const StorageBadBlockInfoInput* input,
                                    StorageBadBlockInfo* output) {
  return serve(__func__, [&](const Diagnostics& diagnostics) {
    const std::string asked = rawTextOf(input->bytes32);
    std::vector<StorageBadBlockEntry> entries;
    for (const BadBlocks& badBlocks : readBadBlocks(diagnostics.root())) {
      if (isAskedFor(badBlocks.device, asked)) {
        entries.push_back(recordOf(badBlocks));
      }
    }
    giveEntries(entries, *output, "KelQueryStorageBadBlockInfo");
  });
}

void KelQueryStorageBadBlockInfo_free(StorageBadBlockInfo* output) {
  takeEntries(*output, __func__);
}
