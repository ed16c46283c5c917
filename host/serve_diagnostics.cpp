// Puts the serving host together: library, methods, server, alarms.
#include "host/serve_diagnostics.hpp"

#include <fmt/core.h>

#include <functional>
#include <stdexcept>

#include "host/client_library.hpp"
#include "host/diagnostics.hpp"
#include "host/lines.hpp"
#include "host/module_table.hpp"
#include "host/os_allocator.hpp"
#include "host/overload_alarms.hpp"
#include "host/qarne_methods.hpp"
#include "host/rpc_server.hpp"
#include "host/service_framework.hpp"
#include "host/stop_signals.hpp"

namespace kel::host {
namespace {

constexpr char kService[] = "KelSysdiagQarne";

// Whom the library's functions ask, for the time of a scope.
class Answering {
 public:
  explicit Answering(Diagnostics& diagnostics) { setDiagnostics(&diagnostics); }
  ~Answering() { setDiagnostics(nullptr); }
  Answering(const Answering&) = delete;
  Answering& operator=(const Answering&) = delete;
};

ServerOptions serverOptions(const HostOptions& options) {
  ServerOptions result{options.calls.security, options.limits,
                       restrictTo(options.operators, kAskingMethods)};
  result.limits.messageBytes = options.calls.messageBytes;
  return result;
}

void serveUntilStopped(const HostOptions& options, const StopSignals& stop) {
  const ClientLibrary library = prepareCalls(options);
  const ServedService service(loadModule(options.library, kService), kService,
                              options.compact ? ServedService::ReplyForm::compact
                                              : ServedService::ReplyForm::fixedWherePossible);
  OverloadAlarms alarms(library, options.deadlineMs, printLine);
  Diagnostics diagnostics(
      {.imageFolder = options.imageFolder,
       .onOverload = [&](const Overload& overload) { alarms.raise(overload); }});
  const Answering answering(diagnostics);
  RpcServer server(options.listen, std::bind_front(&ServedService::handle, &service),
                   serverOptions(options));
  printLine(fmt::format("{} listens on {}", kService, server.target()));
  printLine(options.imageFolder.empty()
                ? "no folder of disk images: nothing will be formatted or mounted"
                : fmt::format("formats and mounts the disk images of {}", options.imageFolder));
  stop.wait();
  server.stop(kShutdownGrace);
}

}  // namespace

void serveDiagnostics(const HostOptions& options) {
  const StopSignals stop;
  serveUntilStopped(options, stop);
  const AllocatorUse use = allocatorUse();
  printLine(fmt::format("{} stops; {} blocks were served, {} are outstanding", kService, use.served,
                        use.outstanding));
  if (use.outstanding != 0) {
    throw std::runtime_error("blocks of the codecs or the replies did not come back");
  }
}

}  // namespace kel::host
