// kel_host's serving mode.
#pragma once

#include <string>

namespace kel::host {

struct ServeOptions {
  std::string library;
  std::string listen;       // gRPC target of KelSysdiagQarne, served here
  std::string master;       // gRPC target of KelSysdiagMaster, told of overloads
  std::string imageFolder;  // of the disk images that may be formatted and mounted; empty: none
  bool compact = false;
};

// Serves KelSysdiagQarne until SIGTERM or SIGINT. Throws std::runtime_error with a sentence, also
// when memory of the codecs did not come back.
void serveDiagnostics(const ServeOptions& options);

}  // namespace kel::host
