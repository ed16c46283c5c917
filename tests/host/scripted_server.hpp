// A server that speaks HTTP/2 by rote, right or wrong.
#pragma once

#include <sys/socket.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "host/file_descriptor.hpp"
#include "tests/host/host_fixture.hpp"

namespace kel::host::test {

// A Unix socket that bind, or whatever else takes an address, has been called with.
using UseOfAddress = std::function<int(int descriptor, const sockaddr* address, socklen_t length)>;
FileDescriptor openSocket(const std::string& path, const UseOfAddress& use, int type = SOCK_STREAM);

// One that is connected, after something else has been done once it is open.
FileDescriptor connectTo(
    const std::string& path, const std::function<void()>& first = [] {});

// What makes a caller send its requests.
extern const std::string kHttpGreeting;

struct Script {
  enum class Damage : uint8_t { none, cut, corrupt };

  std::string greeting = kHttpGreeting;
  bool answers = true;
  size_t patience = SIZE_MAX;  // hangs up after so many requests of a sample
  std::vector<Bytes> replies = {okReply()};
  int grpcStatus = 0;     // with which a call ends after the replies
  bool headOnly = false;  // no reply and no status
  Damage damage = Damage::none;
  size_t position = 0;  // of the damage, in all that is said to a caller
};

class ScriptedServer {
 public:
  ScriptedServer(const std::string& path, Script script);
  ~ScriptedServer();
  ScriptedServer(const ScriptedServer&) = delete;
  ScriptedServer& operator=(const ScriptedServer&) = delete;

  // So far, of all callers.
  [[nodiscard]] size_t requests() const { return requests_; }
  [[nodiscard]] size_t bytesSaid() const { return bytesSaid_; }

 private:
  void run();
  void converse(int caller);

  const Script script_;
  const std::string path_;
  const FileDescriptor listener_;
  std::atomic<bool> stopping_ = false;
  std::atomic<size_t> requests_ = 0;
  std::atomic<size_t> bytesSaid_ = 0;
  std::thread thread_;
};

}  // namespace kel::host::test
