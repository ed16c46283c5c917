// The same calls in hosts with all, either half or none of the OS layer linked, as the programs'
// names say: whatever is there gets used, and whatever is missing is not missed.
#include <dlfcn.h>
#include <kel_sys_diag/osal.h>

#include <optional>

#include "host/os_allocator.hpp"
#include "tests/host/scripted_server.hpp"

namespace kel::host {

// Null where it is left out.
// NOLINTNEXTLINE(readability-redundant-declaration): the header's is not weak
[[gnu::weak]] AllocatorUse allocatorUse();

namespace test {
namespace {

class OsLayer : public HostFixture {
 protected:
  static bool has(const char* name) { return dlsym(RTLD_DEFAULT, name) != nullptr; }
  static bool isNamed(const char* part) {
    const std::string program = std::filesystem::read_symlink("/proc/self/exe").filename();
    return program.find(part) != std::string::npos;
  }
};

TEST_F(OsLayer, IsUsedAsFarAsItIsThere) {
  const bool logs = isNamed("os_logger");
  const bool allocates = isNamed("os_allocator");
  EXPECT_EQ(has("QSV_OsalLogWrite"), logs);
  EXPECT_EQ(has("QSV_OsalMemCacheAlloc"), allocates);

  std::optional<ScriptedServer> server(std::in_place, folder / "socket", Script{});
  std::string reply;
  EXPECT_EQ(outcome(sendAlarm(sampleAlarm(), reply)), outcome(kOk));
  EXPECT_EQ(reply, "ok");
  ASSERT_EQ(allocatorUse != nullptr, allocates);
  if (allocates) {
    EXPECT_EQ(allocatorUse().served, 1U);
    EXPECT_EQ(allocatorUse().outstanding, 0U);
  }

  ::testing::internal::CaptureStderr();
  configureCalls({});
  server.reset();
  server.emplace(folder / "socket", Script{.replies = {Bytes(4, 0xFF)}});
  EXPECT_EQ(call(), outcome(kReplyNotDecoded));
  const std::string log = ::testing::internal::GetCapturedStderr();
  const bool logged = log.find(
                          "Kel_sys_diag_AlarmOutput_unpack_non_root: [KORVA]:Table offset("
                          "4294967295) is out of range(4 - 4)") != std::string::npos;
  EXPECT_EQ(logged, logs) << log;
}

}  // namespace
}  // namespace test
}  // namespace kel::host
