// The programs as a person runs them: how they end, and what they say when it is ill.
#include <fmt/ranges.h>
#include <signal.h>
#include <sys/stat.h>

#include <fstream>

#include "host/qarne_client.hpp"
#include "tests/host/host_fixture.hpp"
#include "tests/host/running_program.hpp"
#include "tests/host/scripted_server.hpp"
#include "tests/host/test_authority.hpp"

namespace kel::host::test {
namespace {

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

  RunningProgram startMaster(const Arguments& more) {
    return {built("kel_master") + Arguments{"--config", folder / "rules.json"} + more,
            folder / "master", "listens on"};
  }
  RunningProgram startMaster() { return startMaster({"--listen", target}); }

  // Its alarms go to the master.
  RunningProgram startServing(const Arguments& more) {
    return {built("kel_host") + Arguments{"serve", "--target", target} + more, folder / "host",
            "listens on"};
  }

  End run(const std::string& program, const Arguments& arguments) {
    RunningProgram running(built(program) + arguments, folder / "run");
    const int code = running.end();
    return {code, running.output()};
  }
  End runHost(const Arguments& more = {}) {
    return run("kel_host",
               more + Arguments{"--target", target, "--deadline", std::to_string(kCallMs)});
  }
  End runQuery(const Arguments& more) {
    return run("kel_query",
               more + Arguments{"--target", qarne_, "--deadline", std::to_string(kCallMs)});
  }

  static End stop(RunningProgram& program, int signal = SIGTERM) {
    program.signal(signal);
    const int code = program.end();
    return {code, program.output()};
  }

  static void expectEnd(const End& end, int code, const std::vector<std::string>& words = {}) {
    EXPECT_EQ(end.code, code) << end.output;
    for (const std::string& word : words) {
      EXPECT_TRUE(end.says(word)) << word << "\nis not in\n" << end.output;
    }
  }

  std::string qarne_ = "unix:" + (folder / "qarne").string();
};

TEST_F(Programs, TellTheWholeStoryAndEndWell) {
  RunningProgram master = startMaster();
  expectEnd(runHost(), 0, {"192 bytes, fixed layout", " 0 are outstanding"});
  const End compact = runHost({"--compact"});
  expectEnd(compact, 0);
  EXPECT_FALSE(compact.says("fixed layout"));
  EXPECT_FALSE(compact.says("\033")) << "styled, but not for a terminal";
  expectEnd(stop(master), 0, {"12 alarms kept"});
  EXPECT_FALSE(std::filesystem::exists(folder / "socket"));
}

TEST_F(Programs, TakeMessagesUpToTheSizeTheyAreGiven) {
  const RunningProgram master = startMaster({"--listen", target, "--max-message", "9000"});
  AlarmInput alarm = sampleAlarm();
  for (const auto& [bytes, result] :
       {std::pair(size_t{8800}, kOk), std::pair(size_t{9000}, kTooLarge)}) {
    const std::string text(bytes, 'x');
    alarm.text = text.c_str();
    std::string reply;
    EXPECT_EQ(outcome(sendAlarm(alarm, reply)), outcome(result)) << bytes;
  }
}

// Whoever writes the rules may never come to it.
TEST_F(Programs, EndWhileTheyWaitForAFile) {
  const std::string pipe = folder / "pipe";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  RunningProgram master(built("kel_master") + Arguments{"--config", pipe}, folder / "master");
  const std::ofstream rules(pipe);  // opens together with its reader
  expectEnd(stop(master), -1);
}

// All eight methods, against this very machine.
TEST_F(Programs, ServeAndShowThisMachine) {
  std::filesystem::create_directory(folder / "images");
  addImage(folder / "images" / "disk.img");
  RunningProgram host = startServing({"--listen", qarne_, "--images", folder / "images"});
  const End all = runQuery({"--image", "disk.img", "--threshold", "80", "--rows", "3"});
  const bool mounted = all.says("KelMountDisk: disk.img\n  done");  // rarely in a container
  expectEnd(
      all, mounted ? 0 : 2,
      {"KelBrdPartInfoQuery: ", "FdProcInfoQuery: ", "KelSysOvLoadDiskThresholdSet: ",
       "KelGetSysDiskUseInfo: ", "KelResetDiskMakeFS: ", "KelMountDisk: ",
       "KelQueryStorageEraseInfo: ", "KelQueryStorageBadBlockInfo: ", " the threshold of 80 %"});
  expectEnd(runQuery({"--image", "../disk.img"}), 2,
            {"the name is not that of a file of its own", "KelMountDisk was not asked: "});
  expectEnd(runQuery({"--threshold", "50", "--mount-point", "/none"}), 2, {"no such mount point"});
  expectEnd(stop(host), 0, {" 0 are outstanding"});
  for (const auto& left : std::filesystem::directory_iterator(folder)) {
    EXPECT_PRED_FORMAT2(testing::IsNotSubstring, "images.mounted", left.path().string());
  }
  expectEnd(runQuery({}), 1, {"KelBrdPartInfoQuery: the server cannot be reached"});
}

// Nothing more may be written to the file of its complaints, and nobody wants to know how its
// children end.
TEST_F(Programs, ServeWhoeverStartedThem) {
  std::filesystem::create_directory(folder / "images");
  addImage(folder / "images" / "disk.img");
  RunningProgram host({"sh", "-c",
                       fmt::format("trap '' CHLD; truncate -s 64M {0}/full; ulimit -f 131072; "
                                   "exec {1} serve --listen {2} --images {0}/images 2>>{0}/full",
                                   folder.string(), fmt::join(built("kel_host"), " "), qarne_)},
                      folder / "host", "listens on");
  expectEnd(runQuery({"--image", "none.img"}), 2, {"no such mount point, image"});
  const End made = runQuery({"--image", "disk.img"});
  EXPECT_TRUE(made.says("KelResetDiskMakeFS: disk.img\n  done")) << made.output;
  RunningProgram unread(
      {"sh", "-c",
       fmt::format("exec {} --target {} >/dev/full", fmt::join(built("kel_query"), " "), qarne_)},
      folder / "unread");
  const int code = unread.end();
  expectEnd({code, unread.output()}, 1, {"No space left on device"});
  expectEnd(stop(host, SIGHUP), 0, {" 0 are outstanding"});
}

TEST_F(Programs, TellOfAnOverloadFromTheThresholdToTheMaster) {
  RunningProgram host = startServing({"--listen", qarne_});
  expectEnd(runQuery({"overload"}), 0, {"has reached the threshold"});
  // Without a master, the host says so, goes on, and tells the one that comes.
  EXPECT_TRUE(host.says("could not be raised yet: the server cannot be reached")) << host.output();
  expectEnd(runQuery({"overload"}), 0);
  RunningProgram master = startMaster();
  EXPECT_TRUE(host.says("answered by the master: no. 1, understood: alarm 1003, warning: "))
      << host.output();
  expectEnd(stop(host, SIGINT), 0);
  expectEnd(stop(master), 0, {"alarm 1003, warning: ", "with 1 alarms kept"});
}

// Between machines: everybody of the authority may ask, and only operators may change.
TEST_F(Programs, OpenWhatChangesAMachineToOperatorsOnly) {
  const TestAuthority authority(folder, "authority");
  constexpr char kEveryPort[] = "127.0.0.1:0";
  const Arguments own = optionsOf(authority.issue("server", "subjectAltName=IP:127.0.0.1"));
  const RunningProgram master = startMaster(own + Arguments{"--listen", kEveryPort});
  const RunningProgram host = startServing(
      own + Arguments{"--listen", kEveryPort, "--operator", "chief", "--operator", "deputy"});
  qarne_ = host.address();
  target = master.address();

  for (const char* name : {"chief", "deputy", "reader"}) {
    SCOPED_TRACE(name);
    const TlsFiles files = authority.issue(name);
    const bool mayChange = name != std::string("reader");
    const int32_t changing = mayChange ? kOk : kNotPermitted;
    configureCalls({.security = {readTlsFiles(files)}});
    const QarneClient client(qarne_, kCallMs);
    EXPECT_EQ(outcome(client.call(kSysOvLoadDiskThresholdSet, {}).result()), outcome(changing));
    EXPECT_EQ(outcome(client.call(kResetDiskMakeFS, {}).result()), outcome(changing));
    EXPECT_EQ(outcome(client.call(kMountDisk, {}).result()), outcome(changing));
    EXPECT_EQ(outcome(client.call(kBrdPartInfoQuery, {}).result()), outcome(kOk));
    EXPECT_EQ(outcome(client.call(kGetSysDiskUseInfo, {}).result()), outcome(kOk));
    expectEnd(runQuery(optionsOf(files)), 0);
    const End query = runQuery(optionsOf(files) + Arguments{"--threshold", "80"});
    expectEnd(query, mayChange ? 0 : 1);
    EXPECT_NE(query.says("does not let this caller call"), mayChange);
    expectEnd(runHost(optionsOf(files)), 0);
  }
  expectEnd(runQuery({}), 1, {"--tls-ca"});
}

TEST_F(Programs, SayWhatIsWrong) {
  const RunningProgram master = startMaster({"--listen", "unix:" + (folder / "taken").string()});
  std::ofstream(folder / "bad.json") << "{";
  const std::string silent = folder / "silent";
  const ScriptedServer server(silent, {.greeting = ""});
  struct Case {
    const char* program;
    Arguments arguments;
    std::string complaint;
  };
  const std::string none = folder / "none";
  const std::string endless = "unix:" + std::string(sizeof(RpcServerAddr::endpoint), 'x');
  const Case cases[] = {
      {"kel_host", {"--target", target}, "kel_host: KelSendAlarm: the server cannot be reached"},
      {"kel_host", {"--library", none}, "kel_host: cannot load the library: "},
      {"kel_host", {"--target", endless}, "the target is too long"},
      {"kel_host", {"serve", "--listen", qarne_, "--target", endless}, "the target is too long"},
      {"kel_query", {"--target", endless}, "the target is too long"},
      {"kel_host", {"--tls-ca", none}, "three files"},
      {"kel_host", {"--target", "127.0.0.1:1"}, "--insecure-plain-tcp"},
      {"kel_host", {"serve", "--listen", qarne_, "--images", none}, "cannot open the folder"},
      {"kel_host", {"serve", "--listen", "unix:/none/here"}, "cannot listen on"},
      {"kel_host", {"serve", "--listen", "127.0.0.1:0"}, "--insecure-plain-tcp"},
      {"kel_host",
       {"serve", "--listen", qarne_, "--target", "127.0.0.1:1"},
       "--insecure-plain-tcp"},
      {"kel_query", {"--target", "127.0.0.1:1"}, "--insecure-plain-tcp"},
      {"kel_query", {"--target", ""}, "there is no target"},
      {"kel_query",
       {"--target", "unix:" + silent, "--deadline", "10"},
       "the deadline passed before"},
      {"kel_query",
       {"--target", "ipv4:127.0.0.1:1,ipv4:127.0.0.1:2", "--insecure-plain-tcp"},
       "none that gRPC takes"},
      {"kel_query", {"--threshold", "0101"}, "--threshold: Value 101 not in range"},
      {"kel_master", {"--max-message", "8191"}, "--max-message: Value 8191 not in range"},
      {"kel_query", {"--threshold", "0x10"}, "--threshold: \"0x10\" is no decimal number"},
      {"kel_query", {"--image", ""}, "--image: a request carries a name of 1 to 50 bytes"},
      {"kel_query", {"--mount-point", "/" + std::string(50, 'x')}, "a name of 1 to 50 bytes"},
      {"kel_query", {"--nonsense"}, "--nonsense"},
      {"kel_query", {"overload", "--threshold", "5"}, "overload excludes --threshold"},
      {"kel_query", {"overload", "--mount-point", "/"}, "overload excludes --mount-point"},
      {"kel_host", {"serve", "--operator", ""}, "--operator: nobody has an empty name"},
      {"kel_master",
       {"--insecure-plain-tcp", "--listen", "127.0.0.1:99999", "--config", folder / "rules.json"},
       "\"99999\" is no port"},
      {"kel_master", {"--config", none}, "No such file"},
      {"kel_master", {"--config", folder}, "Is a directory"},
      {"kel_master", {"--config", "/dev/null"}, "cannot read /dev/null: it is empty"},
      {"kel_master", {"--config", "/dev/zero"}, "cannot read /dev/zero: it has more than 1 MiB"},
      {"kel_master", {"--config", folder / "bad.json"}, "bad.json: "},
      {"kel_master",
       {"--listen", "unix:" + (folder / "taken").string(), "--config", folder / "rules.json"},
       "another process serves there"},
  };
  for (const Case& ill : cases) {
    expectEnd(run(ill.program, ill.arguments), 1, {ill.complaint});
  }
}

}  // namespace
}  // namespace kel::host::test
