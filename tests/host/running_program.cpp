#include "tests/host/running_program.hpp"

#include <fcntl.h>
#include <fmt/core.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <iterator>
#include <utility>

#include "tests/host/host_fixture.hpp"

namespace kel::host::test {

Arguments operator+(Arguments left, const Arguments& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

Arguments built(const std::string& program) {
  Arguments command = {KEL_EMULATOR, beside(program)};
  if (command.front().empty()) {
    command.erase(command.begin());
  }
  return command;
}

RunningProgram::RunningProgram(Arguments command, std::filesystem::path output,
                               const std::string& ready)
    : output_(std::move(output)) {
  outputStart_ = std::filesystem::exists(output_) ? std::filesystem::file_size(output_) : 0;
  std::vector<char*> pointers;
  for (std::string& word : command) {
    pointers.push_back(word.data());
  }
  pointers.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output_.c_str(),
                                   O_CREAT | O_APPEND | O_WRONLY, S_IRUSR | S_IWUSR);
  posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
  EXPECT_EQ(posix_spawnp(&process_, pointers[0], &actions, nullptr, pointers.data(), environ), 0);
  posix_spawn_file_actions_destroy(&actions);
  EXPECT_TRUE(says(ready)) << this->output();
}

RunningProgram::~RunningProgram() {
  if (process_ != 0) {
    signal(SIGKILL);
    end();
  }
}

bool RunningProgram::says(const std::string& text) const {
  bool said = false;
  eventually([&] {
    const bool last = ended();
    said = output().find(text) != std::string::npos;
    return said || last;
  });
  return said;
}

bool RunningProgram::ended() const {
  siginfo_t end{};
  waitid(P_PID, static_cast<id_t>(process_), &end, WEXITED | WNOHANG | WNOWAIT);
  return end.si_pid != 0;
}

std::string RunningProgram::output() const { return contentOf(output_).substr(outputStart_); }

std::string RunningProgram::address() const {
  const std::string said = output();
  const std::string address = said.substr(said.find("127.0.0.1:"));
  return address.substr(0, address.find('\n'));
}

void RunningProgram::signal(int number) const { kill(process_, number); }

int RunningProgram::end() {
  int status = 0;
  waitpid(std::exchange(process_, 0), &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

size_t openDescriptors(const std::string& process) {
  const std::filesystem::directory_iterator entries(fmt::format("/proc/{}/fd", process));
  return static_cast<size_t>(std::distance(begin(entries), end(entries)));
}

}  // namespace kel::host::test
