// kel_master: serves KelSysdiagMaster and prints every alarm, until SIGTERM, SIGINT or SIGHUP.
#include <fmt/format.h>

#include <CLI/CLI.hpp>

#include "host/command_line.hpp"
#include "host/default_target.hpp"
#include "host/lines.hpp"
#include "host/master_service.hpp"
#include "host/rpc_server.hpp"
#include "host/stop_signals.hpp"

namespace {

using namespace kel::host;

void serve(const std::string& target, const std::string& configFile, const ServerOptions& options,
           const StopSignals& stop) {
  MasterService service(DiskRules::fromFile(configFile), [](const KeptAlarm& alarm) {
    printLine(fmt::format("{:>6}  {}  {}", alarm.sequence, alarm.method, alarm.words));
  });
  RpcServer server(
      target,
      [&service](const std::string& path, std::span<const uint8_t> request) {
        return service.handle(path, request);
      },
      options);
  printLine(fmt::format("KelSysdiagMaster listens on {}", server.target()));
  stop.wait();
  server.stop(kShutdownGrace);
  printLine(
      fmt::format("KelSysdiagMaster stops, with {} alarms kept", service.keptAlarms().size()));
}

int run(int argc, char** argv) {
  const StopSignals stop;
  CLI::App app("Serves KelSysdiagMaster: takes alarms and tells disks their thresholds.");
  std::string target = kDefaultTarget;
  std::string configFile;
  ServerOptions options;
  app.add_option("--listen", target, "gRPC target to listen on")->capture_default_str();
  app.add_option("--config", configFile, "JSON file with the disk rules")->required();
  addServerOptions(app, options);
  if (const auto code = parse(app, argc, argv)) {
    return *code;
  }
  serve(target, configFile, options, stop);
  return 0;
}

}  // namespace

int main(int argc, char** argv) { return runProgram("kel_master", argc, argv, run); }
