// kel_master and kel_host as a person runs them: how they end, and what they say when it is ill.
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
    for (int i = 0; i < 1000 && !says("kel_master", "listens on"); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return master;
  }

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

  const pid_t master = startMaster();
  EXPECT_EQ(
      exitCodeOf(start("kel_master", {"--listen", target, "--config", folder / "rules.json"})), 1);
  EXPECT_TRUE(says("kel_master", "another process serves there")) << output("kel_master");
  kill(master, SIGINT);
  EXPECT_EQ(exitCodeOf(master), 0);
}

}  // namespace
}  // namespace kel::host::test
