// The programs as a person runs them: how they end, and what they say when it is ill.
#include <fmt/format.h>
#include <signal.h>

#include <fstream>

#include "host/qarne_client.hpp"
#include "tests/host/host_fixture.hpp"
#include "tests/host/running_program.hpp"
#include "tests/host/test_authority.hpp"

namespace kel::host::test {
namespace {

using Arguments = std::vector<std::string>;

Arguments operator+(Arguments left, const Arguments& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

class Programs : public HostFixture {
 protected:
  // How a program ended, and its last words.
  struct End {
    int code;
    std::string output;
    [[nodiscard]] bool says(const std::string& text) const {
      return output.find(text) != std::string::npos;
    }
  };

  Programs() {
    std::ofstream(folder / "rules.json") << R"({"rules": [{"name": "all", "mountPoint": "*",
      "device": "*", "warningPercent": 80, "criticalPercent": 90}]})";
  }
  ~Programs() override { configureCalls({}); }

  RunningProgram startMaster(const Arguments& more) {
    return {beside("kel_master"), Arguments{"--config", folder / "rules.json"} + more,
            folder / "master", "listens on"};
  }
  RunningProgram startMaster() { return startMaster({"--listen", target}); }

  // Its alarms go to the master.
  RunningProgram startServing(const Arguments& more) {
    return {beside("kel_host"), Arguments{"serve", "--target", target} + more, folder / "host",
            "listens on"};
  }

  End run(const std::string& program, const Arguments& arguments) {
    RunningProgram running(beside(program), arguments, folder / "run");
    const int code = running.end();
    return {code, running.output()};
  }
  End runHost(const Arguments& more = {}) {
    return run("kel_host", more + Arguments{"--target", target});
  }
  End runQuery(const Arguments& more) {
    return run("kel_query", more + Arguments{"--target", qarne_, "--deadline", "60000"});
  }

  static End stop(RunningProgram& program, int signal = SIGTERM) {
    program.signal(signal);
    const int code = program.end();
    return {code, program.output()};
  }

  std::string qarne_ = "unix:" + (folder / "qarne").string();
};

TEST_F(Programs, TellTheWholeStoryAndEndWell) {
  RunningProgram master = startMaster();
  const End full = runHost();
  EXPECT_EQ(full.code, 0) << full.output;
  EXPECT_TRUE(full.says("192 bytes, fixed layout"));
  EXPECT_TRUE(full.says(" 0 are outstanding"));
  const End compact = runHost({"--compact"});
  EXPECT_EQ(compact.code, 0) << compact.output;
  EXPECT_FALSE(compact.says("fixed layout"));
  EXPECT_FALSE(compact.says("\033")) << "styled, but not for a terminal";
  const End stopped = stop(master);
  EXPECT_EQ(stopped.code, 0);
  EXPECT_TRUE(stopped.says("12 alarms kept")) << stopped.output;
  EXPECT_FALSE(std::filesystem::exists(folder / "socket"));
}

// All eight methods, against this very machine.
TEST_F(Programs, ServeAndShowThisMachine) {
  std::filesystem::create_directory(folder / "images");
  std::ofstream(folder / "images" / "disk.img").put('x');
  std::filesystem::resize_file(folder / "images" / "disk.img", uintmax_t{8} << 20U);
  RunningProgram host = startServing({"--listen", qarne_, "--images", folder / "images"});
  const End shown = runQuery({"--image", "disk.img", "--rows", "3"});
  EXPECT_EQ(shown.code, 0) << shown.output;
  for (const char* method :
       {"KelBrdPartInfoQuery", "FdProcInfoQuery", "KelSysOvLoadDiskThresholdSet",
        "KelGetSysDiskUseInfo", "KelResetDiskMakeFS", "KelMountDisk", "KelQueryStorageEraseInfo",
        "KelQueryStorageBadBlockInfo"}) {
    EXPECT_TRUE(shown.says(std::string(method) + ": ")) << method;
  }
  EXPECT_TRUE(shown.says(" the threshold of 80 %")) << shown.output;
  const End outside = runQuery({"--image", "../disk.img"});
  EXPECT_EQ(outside.code, 0);
  EXPECT_TRUE(outside.says("the name is not that of a file of its own"));
  const End stopped = stop(host);
  EXPECT_EQ(stopped.code, 0) << stopped.output;
  EXPECT_TRUE(stopped.says(" 0 are outstanding"));
  for (const auto& left : std::filesystem::directory_iterator(folder)) {
    EXPECT_EQ(left.path().filename().string().find("images.mounted"), std::string::npos);
  }
  const End alone = runQuery({});
  EXPECT_EQ(alone.code, 1);
  EXPECT_TRUE(alone.says("KelBrdPartInfoQuery: the server cannot be reached")) << alone.output;
}

TEST_F(Programs, TellOfAnOverloadFromTheThresholdToTheMaster) {
  RunningProgram master = startMaster();
  RunningProgram host = startServing({"--listen", qarne_});
  const End told = runQuery({"overload"});
  EXPECT_EQ(told.code, 0) << told.output;
  EXPECT_TRUE(told.says("has reached the threshold")) << told.output;
  EXPECT_TRUE(host.says("answered by the master: no. 1, understood: alarm 1003, warning: "))
      << host.output();
  const End stopped = stop(master);
  EXPECT_EQ(stopped.code, 0);
  EXPECT_TRUE(stopped.says("alarm 1003, warning: ")) << stopped.output;
  // Without a master, the host says so and goes on.
  EXPECT_EQ(runQuery({"overload"}).code, 0);
  EXPECT_TRUE(host.says("could not be raised: the server cannot be reached")) << host.output();
  EXPECT_EQ(stop(host, SIGINT).code, 0);
}

// Between machines: everybody of the authority may ask, and only operators may change.
TEST_F(Programs, OpenWhatChangesAMachineToOperatorsOnly) {
  const TestAuthority authority(folder, "authority");
  const auto tls = [](const TlsFiles& files) {
    return Arguments{"--tls-ca",        files.authority, "--tls-certificate",
                     files.certificate, "--tls-key",     files.key};
  };
  constexpr char kEveryPort[] = "127.0.0.1:0";
  const auto addressOf = [](const RunningProgram& program) {
    const std::string said = program.output();
    const std::string address = said.substr(said.find("127.0.0.1:"));
    return address.substr(0, address.find('\n'));
  };
  const Arguments own = tls(authority.issue("server", "subjectAltName=IP:127.0.0.1"));
  const RunningProgram master = startMaster(own + Arguments{"--listen", kEveryPort});
  const RunningProgram host = startServing(
      own + Arguments{"--listen", kEveryPort, "--operator", "chief", "--operator", "deputy"});
  qarne_ = addressOf(host);
  target = addressOf(master);

  for (const char* name : {"chief", "deputy", "reader"}) {
    SCOPED_TRACE(name);
    const TlsFiles files = authority.issue(name);
    const bool mayChange = name != std::string("reader");
    const int32_t changing = mayChange ? kOk : kNotPermitted;
    configureCalls({.security = {files}});
    const QarneClient client(qarne_, 0);
    EXPECT_EQ(outcome(client.call(kSysOvLoadDiskThresholdSet, {}).result()), outcome(changing));
    EXPECT_EQ(outcome(client.call(kResetDiskMakeFS, {}).result()), outcome(changing));
    EXPECT_EQ(outcome(client.call(kMountDisk, {}).result()), outcome(changing));
    EXPECT_EQ(outcome(client.call(kBrdPartInfoQuery, {}).result()), outcome(kOk));
    EXPECT_EQ(outcome(client.call(kGetSysDiskUseInfo, {}).result()), outcome(kOk));
    const End query = runQuery(tls(files));
    EXPECT_EQ(query.code, mayChange ? 0 : 1) << query.output;
    EXPECT_NE(query.says("does not let this caller call"), mayChange) << query.output;
    const End report = runHost(tls(files));
    EXPECT_EQ(report.code, 0) << report.output;
  }
  const End unprotected = runQuery({});
  EXPECT_EQ(unprotected.code, 1);
  EXPECT_TRUE(unprotected.says("--tls-ca")) << unprotected.output;
}

TEST_F(Programs, SayWhatIsWrong) {
  const RunningProgram master = startMaster({"--listen", "unix:" + (folder / "taken").string()});
  std::ofstream(folder / "bad.json") << "{";
  struct Case {
    const char* program;
    Arguments arguments;
    std::string complaint;
  };
  const std::string none = folder / "none";
  const Case cases[] = {
      {"kel_host", {"--target", target}, "kel_host: KelSendAlarm: the server cannot be reached"},
      {"kel_host", {"--library", none}, "kel_host: cannot load the library: "},
      {"kel_host", {"--tls-ca", none}, "three files"},
      {"kel_host", {"--target", "127.0.0.1:1"}, "--insecure-plain-tcp"},
      {"kel_host", {"serve", "--listen", qarne_, "--images", none}, "cannot open the folder"},
      {"kel_host", {"serve", "--listen", "unix:/none/here"}, "cannot listen on"},
      {"kel_host", {"serve", "--listen", "127.0.0.1:0"}, "--insecure-plain-tcp"},
      {"kel_query", {"--target", "127.0.0.1:1"}, "--insecure-plain-tcp"},
      {"kel_master", {"--config", none}, "No such file"},
      {"kel_master", {"--config", folder / "bad.json"}, "bad.json: "},
      {"kel_master",
       {"--listen", "unix:" + (folder / "taken").string(), "--config", folder / "rules.json"},
       "another process serves there"},
  };
  for (const Case& ill : cases) {
    const End end = run(ill.program, ill.arguments);
    EXPECT_EQ(end.code, 1) << ill.complaint;
    EXPECT_TRUE(end.says(ill.complaint)) << ill.complaint << "\nis not in\n" << end.output;
  }
}

}  // namespace
}  // namespace kel::host::test
