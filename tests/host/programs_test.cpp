// The programs as a person runs them: how they end, and what they say when it is ill.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <thread>

#include "tests/host/host_fixture.hpp"

namespace kel::host::test {
namespace {

class Programs : public HostFixture {
 protected:
  Programs() {
    std::ofstream(folder / "rules.json") << R"({"rules": [{"name": "all", "mountPoint": "*",
      "device": "*", "warningPercent": 80, "criticalPercent": 90}]})";
  }

  // Starts a program with both of its outputs in one file.
  pid_t start(const std::string& program, std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), beside(program));
    std::vector<char*> pointers;
    for (std::string& argument : arguments) {
      pointers.push_back(argument.data());
    }
    pointers.push_back(nullptr);
    const std::string file = folder / (program + ".out");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, file.c_str(),
                                     O_CREAT | O_TRUNC | O_WRONLY, 0600);
    posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
    pid_t process = 0;
    EXPECT_EQ(posix_spawn(&process, pointers[0], &actions, nullptr, pointers.data(), environ), 0);
    posix_spawn_file_actions_destroy(&actions);
    return process;
  }

  static int exitCodeOf(pid_t process) {
    int status = 0;
    waitpid(process, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  std::string output(const std::string& program) {
    std::ifstream file(folder / (program + ".out"));
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  }

  bool says(const std::string& program, const std::string& text) {
    return output(program).find(text) != std::string::npos;
  }

  pid_t startMaster() {
    const pid_t master =
        start("kel_master", {"--listen", target, "--config", folder / "rules.json"});
    waitFor("kel_master", "listens on");
    return master;
  }

  // A serving host whose alarms go to the master; its own log is "kel_host".
  pid_t startServing(const std::filesystem::path& images) {
    const pid_t host =
        start("kel_host", {"serve", "--listen", qarne_, "--target", target, "--images", images});
    waitFor("kel_host", "listens on");
    return host;
  }

  int runQuery(std::vector<std::string> arguments) {
    arguments.insert(arguments.end(), {"--target", qarne_, "--deadline", "60000"});
    return exitCodeOf(start("kel_query", arguments));
  }

  // Programs write their lines when they like.
  void waitFor(const std::string& program, const std::string& text) {
    for (int i = 0; i < 1000 && !says(program, text); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }

  const std::string qarne_ = "unix:" + (folder / "qarne").string();

  int runHost(std::vector<std::string> more = {}) {
    more.insert(more.end(), {"--target", target});
    return exitCodeOf(start("kel_host", more));
  }
};

TEST_F(Programs, TellTheWholeStoryAndEndWell) {
  const pid_t master = startMaster();
  EXPECT_EQ(runHost(), 0) << output("kel_host");
  EXPECT_TRUE(says("kel_host", "192 bytes, fixed layout"));
  EXPECT_TRUE(says("kel_host", " 0 are outstanding"));
  EXPECT_EQ(runHost({"--compact"}), 0) << output("kel_host");
  EXPECT_FALSE(says("kel_host", "fixed layout"));
  EXPECT_EQ(output("kel_host").find('\033'), std::string::npos) << "styled, but not for a terminal";
  kill(master, SIGTERM);
  EXPECT_EQ(exitCodeOf(master), 0);
  EXPECT_TRUE(says("kel_master", "12 alarms kept")) << output("kel_master");
  EXPECT_FALSE(std::filesystem::exists(folder / "socket"));
}

// All eight methods, against this very machine.
TEST_F(Programs, ServeAndShowThisMachine) {
  std::filesystem::create_directory(folder / "images");
  std::ofstream(folder / "images" / "disk.img").put('x');
  std::filesystem::resize_file(folder / "images" / "disk.img", uintmax_t{8} << 20U);
  const pid_t host = startServing(folder / "images");
  EXPECT_EQ(runQuery({"--image", "disk.img", "--rows", "3"}), 0) << output("kel_query");
  for (const char* method :
       {"KelBrdPartInfoQuery", "FdProcInfoQuery", "KelSysOvLoadDiskThresholdSet",
        "KelGetSysDiskUseInfo", "KelResetDiskMakeFS", "KelMountDisk", "KelQueryStorageEraseInfo",
        "KelQueryStorageBadBlockInfo"}) {
    EXPECT_TRUE(says("kel_query", std::string(method) + ": ")) << method;
  }
  EXPECT_TRUE(says("kel_query", " the threshold of 80 %")) << output("kel_query");
  EXPECT_EQ(runQuery({"--image", "../disk.img"}), 0);
  EXPECT_TRUE(says("kel_query", "the name is not that of a file of its own"));
  kill(host, SIGTERM);
  EXPECT_EQ(exitCodeOf(host), 0) << output("kel_host");
  EXPECT_TRUE(says("kel_host", " 0 are outstanding"));
  for (const auto& left : std::filesystem::directory_iterator(folder)) {
    EXPECT_EQ(left.path().filename().string().find("images.mounted"), std::string::npos);
  }
  EXPECT_EQ(runQuery({}), 1);
  EXPECT_TRUE(says("kel_query", "KelBrdPartInfoQuery: the server cannot be reached"))
      << output("kel_query");
}

TEST_F(Programs, TellOfAnOverloadFromTheThresholdToTheMaster) {
  const pid_t master = startMaster();
  const pid_t host = startServing(folder);
  EXPECT_EQ(runQuery({"overload"}), 0) << output("kel_query");
  EXPECT_TRUE(says("kel_query", "has reached the threshold")) << output("kel_query");
  waitFor("kel_host", "answered by the master");
  EXPECT_TRUE(says("kel_host", "answered by the master: no. 1, understood: alarm 1003, warning: "))
      << output("kel_host");
  kill(master, SIGTERM);
  EXPECT_EQ(exitCodeOf(master), 0);
  EXPECT_TRUE(says("kel_master", "alarm 1003, warning: ")) << output("kel_master");
  // Without a master, the host says so and goes on.
  EXPECT_EQ(runQuery({"overload"}), 0) << output("kel_query");
  waitFor("kel_host", "could not be raised");
  EXPECT_TRUE(says("kel_host", "could not be raised: the server cannot be reached"))
      << output("kel_host");
  kill(host, SIGINT);
  EXPECT_EQ(exitCodeOf(host), 0) << output("kel_host");
}

TEST_F(Programs, SayWhatIsWrong) {
  EXPECT_EQ(runHost(), 1);
  EXPECT_TRUE(says("kel_host", "kel_host: KelSendAlarm: the server cannot be reached"))
      << output("kel_host");
  EXPECT_EQ(runHost({"--library", folder / "none.so"}), 1);
  EXPECT_TRUE(says("kel_host", "kel_host: cannot load the library: ")) << output("kel_host");

  EXPECT_EQ(exitCodeOf(start("kel_master", {"--config", folder / "none.json"})), 1);
  EXPECT_TRUE(says("kel_master", "No such file")) << output("kel_master");
  std::ofstream(folder / "bad.json") << "{";
  EXPECT_EQ(exitCodeOf(start("kel_master", {"--config", folder / "bad.json"})), 1);
  EXPECT_TRUE(says("kel_master", "bad.json: ")) << output("kel_master");

  EXPECT_EQ(exitCodeOf(start("kel_host", {"serve", "--listen", qarne_, "--images", folder / "x"})),
            1);
  EXPECT_TRUE(says("kel_host", "cannot open the folder")) << output("kel_host");
  EXPECT_EQ(exitCodeOf(start("kel_host", {"serve", "--listen", "unix:/none/here"})), 1);
  EXPECT_TRUE(says("kel_host", "cannot listen on")) << output("kel_host");

  const pid_t master = startMaster();
  EXPECT_EQ(
      exitCodeOf(start("kel_master", {"--listen", target, "--config", folder / "rules.json"})), 1);
  EXPECT_TRUE(says("kel_master", "another process serves there")) << output("kel_master");
  kill(master, SIGINT);
  EXPECT_EQ(exitCodeOf(master), 0);
}

}  // namespace
}  // namespace kel::host::test
