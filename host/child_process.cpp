// Starts, watches and ends a child process.
#include "host/child_process.hpp"

#include <fcntl.h>
#include <fmt/core.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <thread>

#include "host/lines.hpp"

namespace kel::host {
namespace {

class FileActions {
 public:
  explicit FileActions(int descriptor) {
    posix_spawn_file_actions_init(&actions_);
    // First of all, because it may have the number of one that follows.
    posix_spawn_file_actions_adddup2(&actions_, descriptor, kInherited);
    posix_spawn_file_actions_addopen(&actions_, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions_, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addclosefrom_np(&actions_, kInherited + 1);
  }
  ~FileActions() { posix_spawn_file_actions_destroy(&actions_); }
  FileActions(const FileActions&) = delete;
  FileActions& operator=(const FileActions&) = delete;

  const posix_spawn_file_actions_t* get() const { return &actions_; }

 private:
  posix_spawn_file_actions_t actions_{};
};

// A group of its own, to be killed as one, and none of this process's blocked signals.
class Attributes {
 public:
  Attributes() {
    posix_spawnattr_init(&attributes_);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attributes_, &none);
    posix_spawnattr_setpgroup(&attributes_, 0);
    posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETPGROUP);
  }
  ~Attributes() { posix_spawnattr_destroy(&attributes_); }
  Attributes(const Attributes&) = delete;
  Attributes& operator=(const Attributes&) = delete;

  const posix_spawnattr_t* get() const { return &attributes_; }

 private:
  posix_spawnattr_t attributes_{};
};

// Asks again and again: a descriptor of the process, to wait for with a limit, is not to be had
// from every kernel, and from none when there are no more descriptors.
bool endsWithin(pid_t child, std::chrono::milliseconds limit) {
  constexpr std::chrono::milliseconds kPause(10);
  const auto end = std::chrono::steady_clock::now() + limit;
  siginfo_t ended{};
  while (waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOHANG | WNOWAIT) == 0 &&
         ended.si_pid == 0) {
    if (std::chrono::steady_clock::now() >= end) {
      return false;
    }
    std::this_thread::sleep_for(kPause);
  }
  return true;
}

}  // namespace

bool runChild(std::vector<std::string> arguments, int descriptor, std::chrono::milliseconds limit) {
  std::vector<char*> pointers;
  for (std::string& argument : arguments) {
    pointers.push_back(argument.data());
  }
  pointers.push_back(nullptr);
  std::string path = "PATH=/usr/sbin:/usr/bin:/sbin:/bin";
  std::string locale = "LC_ALL=C";
  std::array<char*, 3> environment = {path.data(), locale.data(), nullptr};
  pid_t child = 0;
  if (const int error = posix_spawn(&child, pointers[0], FileActions(descriptor).get(),
                                    Attributes().get(), pointers.data(), environment.data());
      error != 0) {
    complain(fmt::format("cannot start {}: {}", arguments[0], std::strerror(error)));
    return false;
  }
  if (!endsWithin(child, limit)) {
    kill(-child, SIGKILL);
    kill(child, SIGKILL);  // under emulation it may have stopped before it had a group
    complain(fmt::format("{} did not end in its time and was killed", arguments[0]));
  }
  int status = 0;
  pid_t ended = 0;
  do {
    ended = waitpid(child, &status, 0);
  } while (ended < 0 && errno == EINTR);
  return ended == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace kel::host
