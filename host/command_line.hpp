// What every program's command line has in common: the options for protection and limits, and how a
// program ends that cannot do what it was asked.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <optional>
#include <string>

#include "host/rpc_framework.hpp"
#include "host/rpc_server.hpp"

namespace kel::host {

// What app has parsed goes into options or settings, which must live that long.
void addDeadlineOption(CLI::App& app, uint32_t& milliseconds);
void addCallOptions(CLI::App& app, CallSettings& settings);
void addServerOptions(CLI::App& app, ServerOptions& options);
// The part of the server's options that a program which calls and serves has besides its call
// options.
void addLimitOptions(CLI::App& app, ServerLimits& limits);

// Parses what a program was given. Returns an exit code if there is nothing else to do: 0 after
// --help, 1 after a mistake, which has been told.
[[nodiscard]] std::optional<int> parse(CLI::App& app, int argc, char** argv);

// Returns what run does. What it throws, and output that cannot be written, becomes a sentence on
// stderr, behind the program's name and all that was printed before, and an exit code of 1.
int runProgram(const char* name, int argc, char** argv, int (*run)(int argc, char** argv));

}  // namespace kel::host
