// Options on CLI11.
#include "host/command_line.hpp"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <exception>
#include <limits>
#include <system_error>

namespace kel::host {
namespace {

void addSecurityOptions(CLI::App& app, TransportSecurity& security) {
  app.add_option("--tls-ca", security.tls.authority,
                 "PEM file of the authority that peers' certificates are of; for TCP");
  app.add_option("--tls-certificate", security.tls.certificate, "PEM file of the own certificate");
  app.add_option("--tls-key", security.tls.key, "PEM file of the certificate's key");
  app.add_flag("--insecure-plain-tcp", security.insecurePlainTcp,
               "TCP that anybody may read, change and call");
}

// gRPC counts bytes by an int.
void addMessageOption(CLI::App& app, uint32_t& bytes) {
  app.add_option("--max-message", bytes, "bytes of a request or a reply at most")
      ->check(CLI::Range(1, std::numeric_limits<int32_t>::max()))
      ->capture_default_str();
}

}  // namespace

void addDeadlineOption(CLI::App& app, uint32_t& milliseconds) {
  app.add_option("--deadline", milliseconds,
                 "milliseconds for a call; 0: " + std::to_string(kDefaultDeadline.count()))
      ->capture_default_str();
}

void addCallOptions(CLI::App& app, CallSettings& settings) {
  addSecurityOptions(app, settings.security);
  app.add_option("--tls-server-name", settings.serverName,
                 "name that servers' certificates must bear; default: the target's host");
  addMessageOption(app, settings.messageBytes);
}

void addServerOptions(CLI::App& app, ServerOptions& options) {
  addSecurityOptions(app, options.security);
  addMessageOption(app, options.limits.messageBytes);
  addLimitOptions(app, options.limits);
}

void addLimitOptions(CLI::App& app, ServerLimits& limits) {
  constexpr int kMostCalls = 100'000;
  constexpr int64_t kMostSeconds = 86'400;
  app.add_option("--max-calls", limits.calls, "calls at a time at most")
      ->check(CLI::Range(1, kMostCalls))
      ->capture_default_str();
  app.add_option_function<int64_t>(
         "--longest-call",
         [&limits](int64_t seconds) { limits.longestCall = std::chrono::seconds(seconds); },
         "seconds that a call may take at most")
      ->check(CLI::Range(int64_t{1}, kMostSeconds))
      ->default_str(std::to_string(
          std::chrono::duration_cast<std::chrono::seconds>(limits.longestCall).count()));
}

std::optional<int> parse(CLI::App& app, int argc, char** argv) {
  try {
    app.parse(argc, argv);
    return std::nullopt;
  } catch (const CLI::ParseError& end) {
    return app.exit(end) == 0 ? 0 : 1;
  }
}

int runProgram(const char* name, int argc, char** argv, int (*run)(int argc, char** argv)) {
  try {
    const int code = run(argc, argv);
    if (std::fflush(stdout) != 0) {
      throw std::system_error(errno, std::generic_category(), "cannot write the output");
    }
    return code;
  } catch (const std::exception& error) {
    std::fflush(stdout);
    std::fprintf(stderr, "%s: %s\n", name, error.what());
    return 1;
  }
}

}  // namespace kel::host
