// The served role from end to end: a client's requests over gRPC, through the library's tables and
// wrappers, to the host's methods on live and made-up machines, and back.
#include <fmt/format.h>
#include <kel_sys_diag/service.h>

#include <atomic>
#include <fstream>
#include <thread>

#include "host/diagnostics.hpp"
#include "host/field_text.hpp"
#include "host/os_allocator.hpp"
#include "host/qarne_client.hpp"
#include "host/qarne_methods.hpp"
#include "host/rpc_server.hpp"
#include "host/service_framework.hpp"
#include "tests/host/host_fixture.hpp"
#include "tests/host/made_up_machine.hpp"

namespace kel::host::test {
namespace {

class Qarne : public HostFixture {
 protected:
  ~Qarne() override {
    setDiagnostics(nullptr);
    EXPECT_EQ(allocatorUse().outstanding, 0U);
  }

  // Serves from now on.
  void serve(Diagnostics::Settings settings,
             ServedService::ReplyForm form = ServedService::ReplyForm::fixedWherePossible) {
    server_.reset();
    diagnostics_ = std::make_unique<Diagnostics>(std::move(settings));
    setDiagnostics(diagnostics_.get());
    service_ =
        std::make_unique<ServedService>(__module_spec_KelSysdiagQarne, "KelSysdiagQarne", form);
    server_ = std::make_unique<RpcServer>(
        target, [this](const std::string& path, std::span<const uint8_t> request) {
          return service_->handle(path, request);
        });
  }

  QarneClient client() { return QarneClient(target, 20'000); }

 private:
  std::unique_ptr<Diagnostics> diagnostics_;
  std::unique_ptr<ServedService> service_;
  std::unique_ptr<RpcServer> server_;
};

TEST_F(Qarne, FailsWhileNobodyAnswers) {
  serve({});
  setDiagnostics(nullptr);
  EXPECT_EQ(outcome(client().call(kBrdPartInfoQuery, {}).result()), outcome(kGrpcStatus + 13));
}

TEST_F(Qarne, SeesThisMachine) {
  serve({});
  const auto disks = client().call(kBrdPartInfoQuery, {});
  EXPECT_EQ(outcome(disks.result()), outcome(kOk));
  const auto processes = client().call(kFdProcInfoQuery, {1, 5});
  EXPECT_EQ(outcome(processes.result()), outcome(kOk));
  ASSERT_GT(processes->entryCount, 0U);
  EXPECT_LE(processes->entryCount, 5U);
}

}  // namespace
}  // namespace kel::host::test
