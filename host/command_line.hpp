// The options by which an operator sets protection and limits, the same in every program.
#pragma once

#include <CLI/CLI.hpp>

#include "host/rpc_framework.hpp"
#include "host/rpc_server.hpp"

namespace kel::host {

// What app has parsed goes into options or settings, which must live that long.
void addCallOptions(CLI::App& app, CallSettings& settings);
void addServerOptions(CLI::App& app, ServerOptions& options);
// The part of the server's options that a program which calls and serves has besides its call
// options.
void addLimitOptions(CLI::App& app, ServerLimits& limits);

}  // namespace kel::host
