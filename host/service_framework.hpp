// The serving side of the host's RPC framework: from a request's bytes to the reply's, through a
// library's service tables and wrappers; defines RPC_IdlServiceWrapper. Knows no transport and no
// message. For host programs; method_convention.hpp says how it calls the host's functions.
//
// The answer to a request is
//   unknownMethod   the path names no method of the service
//   badRequest      the request does not decode
//   internal        the method failed, or there was not enough memory
//   replyLost       the method succeeded, but its reply does not encode
//   ok              with the reply, in the fixed layout where the message has one
#pragma once

#include <kel_sys_diag/rpc.h>

#include <cstdint>
#include <map>
#include <span>
#include <string>

#include "host/rpc_server.hpp"

namespace kel::host {

class ServedService {
 public:
  enum class ReplyForm : uint8_t { fixedWherePossible, compact };

  // Throws std::runtime_error with a sentence when the module's tables are unusable.
  ServedService(const IdlModuleSpec& module, const std::string& service,
                ReplyForm form = ReplyForm::fixedWherePossible);

  // A RequestHandler. Runs on any number of threads at a time.
  [[nodiscard]] Answer handle(const std::string& path, std::span<const uint8_t> request) const;

 private:
  const ReplyForm form_;
  std::map<std::string, IdlWrapperFn> wrappers_;  // by path
};

}  // namespace kel::host
