// Serves requests through a library's wrappers. A wrapper is called with the address of the call's
// ServedCall as its first value and 0 as its second, and comes back through RPC_IdlServiceWrapper.
#include "host/service_framework.hpp"

#include <fmt/core.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <limits>
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include "host/encoding.hpp"
#include "host/field_text.hpp"
#include "host/method_convention.hpp"
#include "host/module_table.hpp"

namespace kel::host {
namespace {

using Implementation = int32_t (*)(const void* input, void* output);
using Free = void (*)(void* output);

struct ServedCall {
  std::span<const uint8_t> request;
  bool compact;
  Answer answer;
};

std::string describeFailure(int32_t result) {
  switch (result) {
    case kMethodNotReady:
      return "the host is not set up to serve it";
    case kMethodOutOfMemory:
      return "there is not enough memory";
    case kMethodUnreadable:
      return "the machine's state cannot be read";
    default:
      return fmt::format("the method failed with {}", result);
  }
}

// The method's output record and the duty to release it.
class Output {
 public:
  explicit Output(const IdlCodecOps& ops) : ops_(ops) {}
  ~Output() {
    if (ops_.userFreeFn != nullptr) {
      reinterpret_cast<Free>(ops_.userFreeFn)(record());
    } else {
      ops_.releaseFn(record());
    }
  }
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  void* record() { return record_.data(); }

 private:
  const IdlCodecOps& ops_;
  alignas(std::max_align_t) std::array<std::byte, kLargestOutputRecord> record_{};
};

// Empty when the reply does not encode.
std::vector<uint8_t> encode(const IdlCodecOps& ops, const void* output, bool compact) {
  const Encoding encoding(ops, output, compact);
  std::vector<uint8_t> reply(encoding.size());
  if (!reply.empty() && !encoding.writeTo(reply.data())) {
    reply.clear();
  }
  return reply;
}

bool decode(const IdlCodecOps& ops, std::span<const uint8_t> request, void* input) {
  return request.size() <= std::numeric_limits<uint32_t>::max() &&
         ops.unpackFn(request.data(), static_cast<uint32_t>(request.size()), input) != 0;
}

Answer serve(const ServedCall& call, uint32_t inputRecordSize, const IdlCodecOps& ops,
             const ServiceMethodBinding& binding) {
  // A message without fields still needs an address.
  const std::unique_ptr<std::byte[]> input(new std::byte[std::max(inputRecordSize, 1U)]());
  if (!decode(ops, call.request, input.get())) {
    return {AnswerStatus::badRequest, "the request does not decode", {}};
  }
  Output output(ops);
  const auto implementation = reinterpret_cast<Implementation>(binding.implementation);
  if (const int32_t result = implementation(input.get(), output.record()); result != kServed) {
    return {AnswerStatus::internal, describeFailure(result), {}};
  }
  std::vector<uint8_t> reply = encode(ops, output.record(), call.compact);
  if (reply.empty()) {
    return {AnswerStatus::replyLost, "the reply does not encode", {}};
  }
  return {AnswerStatus::ok, {}, std::move(reply)};
}

// The library between this and its caller knows no exceptions. The reasons are so short that they
// take no memory.
Answer serveWithoutThrowing(const ServedCall& call, uint32_t inputRecordSize,
                            const IdlCodecOps& ops, const ServiceMethodBinding& binding) noexcept {
  try {
    return serve(call, inputRecordSize, ops, binding);
  } catch (const std::bad_alloc&) {
    return {AnswerStatus::internal, "no memory", {}};
  } catch (...) {
    return {AnswerStatus::internal, "it threw", {}};
  }
}

}  // namespace

ServedService::ServedService(const IdlModuleSpec& module, const std::string& service,
                             ReplyForm form)
    : form_(form) {
  for (const ServedMethod& method : readModule(module, service)) {
    wrappers_.emplace(fmt::format("/{}/{}", service, method.name), method.wrapper);
  }
}

Answer ServedService::handle(const std::string& path, std::span<const uint8_t> request) const {
  const auto found = wrappers_.find(path);
  if (found == wrappers_.end()) {
    return {AnswerStatus::unknownMethod, fmt::format("there is no {} here", shown(path)), {}};
  }
  ServedCall call{request,
                  form_ == ReplyForm::compact,
                  {AnswerStatus::internal, "the library served nothing", {}}};
  IdlCodecOps ops{};
  found->second(reinterpret_cast<uintptr_t>(&call), 0, &ops);
  if (call.answer.status != AnswerStatus::ok) {
    call.answer.detail = fmt::format("{}: {}", path, call.answer.detail);
  }
  return std::move(call.answer);
}

}  // namespace kel::host

using namespace kel::host;

// The result only says that the call came to an end; the answer is in the call.
int32_t RPC_IdlServiceWrapper(uintptr_t first, uint32_t inputRecordSize, uintptr_t /*second*/,
                              IdlCodecOps* ops, const ServiceMethodBinding* binding) {
  auto& call = *reinterpret_cast<ServedCall*>(first);
  call.answer = serveWithoutThrowing(call, inputRecordSize, *ops, *binding);
  return 0;
}
