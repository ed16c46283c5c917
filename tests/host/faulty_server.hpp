// A gRPC server that does what it is told, right or wrong.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace kel::host::test {

using Bytes = std::vector<uint8_t>;

struct Behaviour {
  std::vector<Bytes> replies;
  int grpcStatus = 0;                  // with which the call ends after the replies
  bool answers = true;                 // false: keeps silent until the caller gives up
  std::chrono::milliseconds delay{0};  // before the answer
};

class FaultyServer {
 public:
  FaultyServer(const std::string& target, Behaviour behaviour);
  ~FaultyServer();
  FaultyServer(const FaultyServer&) = delete;
  FaultyServer& operator=(const FaultyServer&) = delete;

  // For calls that arrive from now on.
  void behave(Behaviour behaviour);

  // What has been called and sent so far; blocks until there is at least one for take.
  struct Request {
    std::string path;
    Bytes bytes;
  };
  Request take();

 private:
  class Service;
  std::unique_ptr<Service> service_;
};

// An AlarmOutput with the text "ok", as the wire has it.
Bytes okReply();

}  // namespace kel::host::test
