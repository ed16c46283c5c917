// kel_host's serving mode.
#pragma once

#include "host/command_line.hpp"

namespace kel::host {

// Serves KelSysdiagQarne until SIGTERM, SIGINT or SIGHUP. Throws std::runtime_error with a
// sentence, also when memory of the codecs did not come back.
void serveDiagnostics(const HostOptions& options);

}  // namespace kel::host
