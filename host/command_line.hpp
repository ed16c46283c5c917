// The options by which an operator sets protection and limits, the same in every program.
#pragma once

#include <CLI/CLI.hpp>

#include "host/rpc_framework.hpp"
#include "host/rpc_server.hpp"

namespace kel::host {

// What app has parsed goes into options or settings, which must live that long.
void addServerOptions(CLI::App& app, ServerOptions& options);
void addCallOptions(CLI::App& app, CallSettings& settings);

}  // namespace kel::host
