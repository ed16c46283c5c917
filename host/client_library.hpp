// libkel_sys_diag.so, loaded while the process runs, and its calls to the master. For kel_host.
#pragma once

#include <kel_sys_diag/client.h>

#include "host/command_line.hpp"

namespace kel::host {

template <class InputRecord, class OutputRecord>
struct ClientMethod {
  using Input = InputRecord;
  using Output = OutputRecord;
  const char* name;
  void (*setIdl)(IdlCodecOps* ops);
  int32_t (*call)(const Input* input, Output* output, uintptr_t invokeArg);
  int32_t (*callAsync)(const Input* input, uintptr_t userArg1, uintptr_t userArg2,
                       uintptr_t invokeArg);
};

struct ClientLibrary {
  RpcServerAddr* address;
  ClientMethod<AlarmInput, AlarmOutput> sendAlarm;
  ClientMethod<OverloadAlarmInput, AlarmOutput> sendOverloadAlarm;
  ClientMethod<OverloadDiskAlarmInput, AlarmOutput> sendDiskOverloadAlarm;
  ClientMethod<OvLoadDiskCtlInput, OvLoadDiskCtlOutput> getDiskThresholds;
};

// Loads the library for the rest of the process's life, and has its calls go as the options say.
// Throws std::runtime_error with a sentence.
ClientLibrary prepareCalls(const HostOptions& options);

}  // namespace kel::host
