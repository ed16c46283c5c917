// kel_master: serves KelSysdiagMaster and prints every alarm, until SIGTERM or SIGINT.
#include <fmt/format.h>
#include <signal.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <exception>

#include "host/command_line.hpp"
#include "host/default_target.hpp"
#include "host/master_service.hpp"
#include "host/rpc_server.hpp"

namespace {

using namespace kel::host;

// Longer than any call takes here, and than what callers wait by default.
constexpr std::chrono::seconds kGrace(6);

void print(const std::string& line) {
  fmt::print("{}\n", line);
  std::fflush(stdout);
}

// Blocked here for every thread that follows, so that only waitForStop sees them.
sigset_t blockStopSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  return signals;
}

void serve(const std::string& target, const std::string& configFile, const ServerOptions& options,
           const sigset_t& stopSignals) {
  MasterService service(DiskRules::fromFile(configFile), [](const KeptAlarm& alarm) {
    print(fmt::format("{:>6}  {}  {}", alarm.sequence, alarm.method, alarm.words));
  });
  RpcServer server(
      target,
      [&service](const std::string& path, std::span<const uint8_t> request) {
        return service.handle(path, request);
      },
      options);
  print(fmt::format("KelSysdiagMaster listens on {}", server.target()));
  int signal = 0;
  sigwait(&stopSignals, &signal);
  server.stop(kGrace);
  print(fmt::format("KelSysdiagMaster stops, with {} alarms kept", service.keptAlarms().size()));
}

int run(int argc, char** argv) {
  const sigset_t stopSignals = blockStopSignals();
  CLI::App app("Serves KelSysdiagMaster: takes alarms and tells disks their thresholds.");
  std::string target = kDefaultTarget;
  std::string configFile;
  ServerOptions options;
  app.add_option("--listen", target, "gRPC target to listen on")->capture_default_str();
  app.add_option("--config", configFile, "JSON file with the disk rules")->required();
  addServerOptions(app, options);
  CLI11_PARSE(app, argc, argv);
  serve(target, configFile, options, stopSignals);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "kel_master: %s\n", error.what());
    return 1;
  }
}
