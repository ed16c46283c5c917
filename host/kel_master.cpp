// kel_master: serves KelSysdiagMaster and prints every alarm, until SIGTERM, SIGINT or SIGHUP.
#include <fmt/core.h>

#include <functional>
#include <utility>

#include "host/command_line.hpp"
#include "host/lines.hpp"
#include "host/master_service.hpp"
#include "host/rpc_server.hpp"
#include "host/stop_signals.hpp"

namespace {

using namespace kel::host;

void serve(const MasterOptions& options, DiskRules rules) {
  const StopSignals stop;
  MasterService service(std::move(rules), [](const KeptAlarm& alarm) {
    printLine(fmt::format("{:>6}  {}  {}", alarm.sequence, alarm.method, alarm.words));
  });
  RpcServer server(options.listen, std::bind_front(&MasterService::handle, &service),
                   options.server);
  printLine(fmt::format("KelSysdiagMaster listens on {}", server.target()));
  stop.wait();
  server.stop(kShutdownGrace);
  printLine(
      fmt::format("KelSysdiagMaster stops, with {} alarms kept", service.keptAlarms().size()));
}

int run(int argc, char** argv) {
  MasterOptions options;
  if (const auto code = parse(argc, argv, options)) {
    return *code;
  }
  serve(options, DiskRules::fromFile(options.configFile));
  return 0;
}

}  // namespace

int main(int argc, char** argv) { return runProgram("kel_master", argc, argv, run); }
