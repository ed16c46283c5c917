// Tells the master of file systems whose use has reached its threshold. For the serving kel_host.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "host/client_library.hpp"
#include "host/diagnostics.hpp"
#include "host/worker_pool.hpp"

namespace kel::host {

class OverloadAlarms {
 public:
  // Gets a line for people about every alarm, from a thread of its own.
  using Narrator = std::function<void(const std::string& line)>;

  // The library's server address has to be filled in.
  OverloadAlarms(const ClientLibrary& library, uint32_t deadlineMs, Narrator narrator);

  // Raises KelSendMobileDiskOverloadAlarm; does not wait for the answer, but the destructor does.
  void raise(const Overload& overload);

 private:
  void send(const Overload& overload) const;

  const ClientLibrary& library_;
  const uint32_t deadlineMs_;
  const Narrator narrator_;
  WorkerPool sender_{1};  // one at a time, in their order
};

}  // namespace kel::host
