// What each program can be told on its command line, and how a program ends that cannot do what it
// was asked.
#pragma once

#include <kel_sys_diag/records.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "host/limits.hpp"
#include "host/rpc_framework.hpp"
#include "host/rpc_server.hpp"

namespace kel::host {

// Where the programs meet unless they are told otherwise.
inline constexpr char kDefaultTarget[] = "unix:/tmp/kel_sys_diag_master.sock";
inline constexpr char kDefaultQarneTarget[] = "unix:/tmp/kel_sys_diag_qarne.sock";

struct MasterOptions {
  std::string listen = kDefaultTarget;  // gRPC target of KelSysdiagMaster, served here
  std::string configFile;
  ServerOptions server = {};
};

struct HostOptions {
  std::string library;                  // its path
  std::string master = kDefaultTarget;  // gRPC target of KelSysdiagMaster
  uint32_t deadlineMs = 0;              // of a call to the master; 0: the framework's
  bool compact = false;
  CallSettings calls = {};  // to the master

  // The rest is for serving. Callers are met with the same protection as calls.security, and with
  // the same limit to a message.
  bool serve = false;
  std::string listen = kDefaultQarneTarget;  // gRPC target of KelSysdiagQarne, served here
  std::string imageFolder;  // of the disk images that may be formatted and mounted; empty: none
  ServerLimits limits = {};
  // Names in the certificates of the peers that may call the methods which change this machine.
  std::vector<std::string> operators = {};
};

// Of a mount point or an image, as a request carries it.
inline constexpr size_t kLongestName = sizeof(SysDiskUseInput::bytes50);

struct QueryOptions {
  std::string target = kDefaultQarneTarget;
  std::string mountPoint = "/";  // 1 to kLongestName bytes
  std::string image;             // the same, or empty: none
  std::optional<uint32_t> threshold;
  uint32_t rows = 12;
  uint32_t deadlineMs = 0;
  CallSettings calls = {};
  bool overload = false;
};

// Parses what a program was given, and reads the TLS files that it names. Returns an exit code if
// there is nothing else to do: 0 after --help, 1 after a mistake, which has been told. Throws
// std::runtime_error with a sentence for files that cannot be used.
[[nodiscard]] std::optional<int> parse(int argc, char** argv, MasterOptions& options);
[[nodiscard]] std::optional<int> parse(int argc, char** argv, HostOptions& options);
[[nodiscard]] std::optional<int> parse(int argc, char** argv, QueryOptions& options);

// Returns what run does. What it throws, and output that cannot be written, becomes a sentence on
// stderr, behind the program's name and all that was printed before, and an exit code of 1. Only
// printLine, and so a server, goes on without what it could not write.
int runProgram(const char* name, int argc, char** argv, int (*run)(int argc, char** argv));

}  // namespace kel::host
