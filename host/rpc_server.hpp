// A gRPC server of raw bytes: whatever path is called, one handler gets the request and gives the
// answer. For the programs here and their tests; it knows no service and no message.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "host/credentials.hpp"
#include "host/limits.hpp"
#include "host/peer_policy.hpp"

namespace kel::host {

// Each is answered with a gRPC status of its own: OK, INVALID_ARGUMENT, NOT_FOUND, UNIMPLEMENTED,
// DATA_LOSS, INTERNAL.
enum class AnswerStatus : uint8_t {
  ok,
  badRequest,
  notFound,
  unknownMethod,
  replyLost,  // there is a reply, but it cannot be encoded
  internal
};

struct Answer {
  AnswerStatus status = AnswerStatus::ok;
  std::string detail;          // why, for anything but ok
  std::vector<uint8_t> reply;  // for ok
};

// path is "/<serviceName>/<methodName>". The request is valid during the call only. Runs on any
// number of threads at a time. An exception is answered like AnswerStatus::internal.
using RequestHandler =
    std::function<Answer(const std::string& path, std::span<const uint8_t> request)>;

struct ServerOptions {
  TransportSecurity security = {};
  ServerLimits limits = {};
  PeerPolicy policy = {};  // none: everything is open to whoever gets in
};

class RpcServer {
 public:
  // Serves at a gRPC target ("unix:/run/kel/master.sock", "10.0.0.1:50051") from now on. Throws
  // std::runtime_error with a sentence when it cannot, also when another process serves at the same
  // Unix-domain socket; a socket that nobody serves any more is replaced.
  //
  // Calls beyond the limits end with RESOURCE_EXHAUSTED or DEADLINE_EXCEEDED, those that the policy
  // refuses with PERMISSION_DENIED, each with a sentence. A handler that is at work when its call
  // ends is not interrupted; what it answers then is dropped.
  RpcServer(const std::string& target, RequestHandler handler, const ServerOptions& options = {});
  ~RpcServer();
  RpcServer(const RpcServer&) = delete;
  RpcServer& operator=(const RpcServer&) = delete;

  // Where it serves, with the port that was chosen for port 0. Not after stop.
  [[nodiscard]] const std::string& target() const;

  // Takes no more calls, cancels those that are still running after the grace time, and removes the
  // Unix-domain socket. Returns when the last handler has. The destructor does it without grace.
  void stop(std::chrono::milliseconds grace);

 private:
  class Running;
  std::unique_ptr<Running> running_;
};

}  // namespace kel::host
