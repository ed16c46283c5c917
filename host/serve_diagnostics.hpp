// kel_host's serving mode.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "host/limits.hpp"
#include "host/rpc_framework.hpp"

namespace kel::host {

struct ServeOptions {
  std::string library;
  std::string listen;       // gRPC target of KelSysdiagQarne, served here
  std::string master;       // gRPC target of KelSysdiagMaster, told of overloads
  std::string imageFolder;  // of the disk images that may be formatted and mounted; empty: none
  bool compact = false;
  uint32_t deadlineMs = 0;  // of a call to the master; 0: the framework's
  // Of the calls to the master. Callers of this host are met with the same protection, and with the
  // same limit to a message.
  CallSettings calls = {};
  ServerLimits limits = {};
  // Names in the certificates of the peers that may call the methods which change this machine.
  std::vector<std::string> operators = {};
};

// Serves KelSysdiagQarne until SIGTERM, SIGINT or SIGHUP. Throws std::runtime_error with a
// sentence, also when memory of the codecs did not come back.
void serveDiagnostics(const ServeOptions& options);

}  // namespace kel::host
