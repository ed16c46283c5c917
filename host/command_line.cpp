// The command lines of all programs on CLI11, whose header is so large that it is in no other file.
#include "host/command_line.hpp"

#include <fcntl.h>
#include <fmt/core.h>
#include <grpc/support/log.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <limits>
#include <system_error>

#include "host/field_text.hpp"
#include "host/lines.hpp"

namespace kel::host {
namespace {

void addSecurityOptions(CLI::App& app, TlsFiles& files, TransportSecurity& security) {
  app.add_option("--tls-ca", files.authority,
                 "PEM file of the authority that issues peers' certificates; for TCP");
  app.add_option("--tls-certificate", files.certificate, "PEM file of this program's certificate");
  app.add_option("--tls-key", files.key, "PEM file of the certificate's key");
  app.add_flag("--insecure-plain-tcp", security.insecurePlainTcp,
               "TCP that anybody may read, change and call");
}

// An option for a number, which CLI11 would take for octal if it began with 0.
CLI::Option* decimal(CLI::Option* option) {
  const auto strip = [](std::string& digits) -> std::string {
    if (digits.empty() || digits.find_first_not_of("0123456789") != std::string::npos) {
      return fmt::format("\"{}\" is no decimal number", digits);
    }
    digits.erase(0, std::min(digits.find_first_not_of('0'), digits.size() - 1));
    return {};
  };
  return option->transform(CLI::Validator(strip, ""));
}

// gRPC counts bytes by an int.
void addMessageOption(CLI::App& app, uint32_t& bytes) {
  decimal(app.add_option("--max-message", bytes, "bytes of a request or a reply at most"))
      ->check(CLI::Range(kLeastMessageBytes, uint32_t{std::numeric_limits<int32_t>::max()}))
      ->capture_default_str();
}

void addDeadlineOption(CLI::App& app, uint32_t& milliseconds) {
  decimal(app.add_option("--deadline", milliseconds,
                         fmt::format("milliseconds for a call; 0: {}", kDefaultDeadline.count())))
      ->capture_default_str();
}

void addCallOptions(CLI::App& app, TlsFiles& files, CallSettings& settings) {
  addSecurityOptions(app, files, settings.security);
  app.add_option("--tls-server-name", settings.serverName,
                 "name that servers' certificates must bear; default: the target's host");
  addMessageOption(app, settings.messageBytes);
}

void addLimitOptions(CLI::App& app, ServerLimits& limits) {
  constexpr int kMostCalls = 100'000;
  constexpr int64_t kMostSeconds = 86'400;
  decimal(app.add_option("--max-calls", limits.calls, "calls at a time at most"))
      ->check(CLI::Range(1, kMostCalls))
      ->capture_default_str();
  decimal(app.add_option_function<int64_t>(
              "--longest-call",
              [&limits](int64_t seconds) { limits.longestCall = std::chrono::seconds(seconds); },
              "seconds that a call may take at most"))
      ->check(CLI::Range(int64_t{1}, kMostSeconds))
      ->default_str(std::to_string(
          std::chrono::duration_cast<std::chrono::seconds>(limits.longestCall).count()));
}

const CLI::App* addServeCommand(CLI::App& app, HostOptions& options) {
  CLI::App* const command =
      app.add_subcommand("serve", "serve KelSysdiagQarne until SIGTERM, SIGINT or SIGHUP");
  command->fallthrough();
  command->add_option("--listen", options.listen, "gRPC target to listen on")
      ->capture_default_str();
  command->add_option("--images", options.imageFolder,
                      "folder of disk images that may be formatted and mounted");
  command
      ->add_option("--operator", options.operators,
                   "name in the certificate of a peer that may set thresholds, format and mount; "
                   "may be given several times")
      ->check(CLI::Validator(
          [](const std::string& name) {
            return name.empty() ? std::string("nobody has an empty name") : std::string();
          },
          ""))
      ->allow_extra_args(false);
  addLimitOptions(*command, options.limits);
  return command;
}

// A name that a request carries.
std::string checkName(const std::string& name) {
  return name.empty() || name.size() > kLongestName
             ? fmt::format("a request carries a name of 1 to {} bytes", kLongestName)
             : std::string();
}

std::optional<int> parse(CLI::App& app, int argc, char** argv, const TlsFiles& files,
                         TransportSecurity& security) {
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& end) {
    return app.exit(end) == 0 ? 0 : 1;
  }
  security.tls = readTlsFiles(files);
  return std::nullopt;
}

// One that was closed would be given to a connection or an event, into which our texts would go. So
// opened, output to it fails as before.
void occupyStandardDescriptors() {
  int descriptor = 0;
  do {
    descriptor = open("/dev/null", O_RDONLY);
  } while (descriptor >= 0 && descriptor <= STDERR_FILENO);
  close(descriptor);
}

// gRPC writes into its lines what strangers say, as it is and as often as they say it.
void tameGrpcLog() {
  gpr_set_log_function(std::getenv("GRPC_VERBOSITY") == nullptr
                           ? [](gpr_log_func_args*) {}
                           : [](gpr_log_func_args* line) {
                               complain(fmt::format("gRPC: {}", shown(line->message)));
                             });
}

}  // namespace

std::optional<int> parse(int argc, char** argv, MasterOptions& options) {
  CLI::App app("Serves KelSysdiagMaster: takes alarms and tells disks their thresholds.");
  app.add_option("--listen", options.listen, "gRPC target to listen on")->capture_default_str();
  app.add_option("--config", options.configFile, "JSON file with the disk rules")->required();
  TlsFiles files;
  addSecurityOptions(app, files, options.server.security);
  addMessageOption(app, options.server.limits.messageBytes);
  addLimitOptions(app, options.server.limits);
  return parse(app, argc, argv, files, options.server.security);
}

std::optional<int> parse(int argc, char** argv, HostOptions& options) {
  CLI::App app("Reports this machine to KelSysdiagMaster and tells what was said.");
  app.add_option("--library", options.library, "the library to load")->capture_default_str();
  app.add_option("--target", options.master, "gRPC target of the master")->capture_default_str();
  addDeadlineOption(app, options.deadlineMs);
  app.add_flag("--compact", options.compact, "send nothing in its fixed layout");
  TlsFiles files;
  addCallOptions(app, files, options.calls);
  const CLI::App* const serve = addServeCommand(app, options);
  const std::optional<int> code = parse(app, argc, argv, files, options.calls.security);
  options.serve = serve->parsed();
  return code;
}

std::optional<int> parse(int argc, char** argv, QueryOptions& options) {
  CLI::App app("Asks a host that serves KelSysdiagQarne about its machine.");
  app.footer(
      "Ends with 0 if every call was answered and every change made, with 2 if only a change "
      "was not made, with 1 if anything else went wrong.");
  const CLI::Validator name(checkName, "");
  app.add_option("--target", options.target, "gRPC target of the host")->capture_default_str();
  addDeadlineOption(app, options.deadlineMs);
  const auto notForOverload = {
      decimal(app.add_option("--rows", options.rows, "rows of a table that are shown"))
          ->capture_default_str(),
      app.add_option("--mount-point", options.mountPoint, "whose use to ask for and limit")
          ->check(name)
          ->capture_default_str(),
      decimal(app.add_option("--threshold", options.threshold,
                             "per cent, to be SET there; 0 removes it"))
          ->check(CLI::Range(0, 100)),
      app.add_option("--image", options.image,
                     "a disk image of the host to be FORMATTED and mounted")
          ->check(name),
  };
  TlsFiles files;
  addCallOptions(app, files, options.calls);
  CLI::App* const overload =
      app.add_subcommand("overload", "have the fullest disk pass a threshold")->fallthrough();
  overload->footer(
      "Ends with 0 if a threshold was passed and is again what it was, with 1 if anything went "
      "wrong.");
  for (CLI::Option* const option : notForOverload) {
    overload->excludes(option);
  }
  const std::optional<int> code = parse(app, argc, argv, files, options.calls.security);
  options.overload = overload->parsed();
  return code;
}

int runProgram(const char* name, int argc, char** argv, int (*run)(int argc, char** argv)) {
  occupyStandardDescriptors();
  tameGrpcLog();
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
