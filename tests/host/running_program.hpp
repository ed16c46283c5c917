// A program that a test runs beside itself.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <string>
#include <vector>

namespace kel::host::test {

using Arguments = std::vector<std::string>;

Arguments operator+(Arguments left, const Arguments& right);

// What starts a program that has been built beside this test, if need be under an emulator.
Arguments built(const std::string& program);

// Killed in the end, if it is still there.
class RunningProgram {
 public:
  // Both of its outputs go to the end of the file. Waits until it has said what makes it ready.
  RunningProgram(Arguments command, std::filesystem::path output, const std::string& ready = "");
  ~RunningProgram();
  RunningProgram(const RunningProgram&) = delete;
  RunningProgram& operator=(const RunningProgram&) = delete;

  // Waits for text in what this process has put out, or for its end. Says whether text came.
  [[nodiscard]] bool says(const std::string& text) const;
  [[nodiscard]] std::string output() const;
  // Of this machine's network, at which it has said that it listens.
  [[nodiscard]] std::string address() const;
  [[nodiscard]] bool ended() const;
  [[nodiscard]] pid_t id() const { return process_; }
  void signal(int number) const;
  // Waits for the end: the exit code, or -1 after a signal.
  int end();

 private:
  const std::filesystem::path output_;
  std::uintmax_t outputStart_ = 0;
  pid_t process_ = 0;
};

// Entries of /proc/PROCESS/fd; of this process by default.
size_t openDescriptors(const std::string& process = "self");

}  // namespace kel::host::test
