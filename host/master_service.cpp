// KelSysdiagMaster's four methods, on the peer library's codecs.
#include "host/master_service.hpp"

#include <fmt/core.h>
#include <kel_sys_diag/peer.h>

#include <algorithm>
#include <limits>
#include <memory>
#include <string_view>
#include <utility>

#include "host/field_text.hpp"
#include "host/limits.hpp"
#include "host/record_text.hpp"

namespace kel::host {
namespace {

constexpr std::string_view kService = "/KelSysdiagMaster/";

Answer notDecoded(std::string_view method) {
  return {AnswerStatus::badRequest, fmt::format("the request of {} does not decode", method), {}};
}

template <class Reply, class Pack>
Answer packed(const Reply& reply, Pack pack) {
  std::vector<uint8_t> bytes(pack(nullptr, &reply));
  const auto capacity = static_cast<uint32_t>(bytes.size());
  const PackTarget target{bytes.data(), &capacity};
  if (bytes.empty() || pack(&target, &reply) != capacity) {
    return {AnswerStatus::internal, "the reply cannot be encoded", {}};
  }
  return {AnswerStatus::ok, {}, std::move(bytes)};
}

// No encoding is longer than a codec's length argument can say, so nothing longer can decode.
template <class Request, class Unpack>
bool decode(std::span<const uint8_t> bytes, Unpack unpack, Request& request) {
  return bytes.size() <= std::numeric_limits<uint32_t>::max() &&
         unpack(bytes.data(), static_cast<uint32_t>(bytes.size()), &request) != 0;
}

}  // namespace

MasterService::MasterService(DiskRules rules, Observer observer)
    : rules_(std::move(rules)), observer_(std::move(observer)) {}

Answer MasterService::handle(const std::string& path, std::span<const uint8_t> request) {
  const std::string method = path.starts_with(kService) ? path.substr(kService.size()) : "";
  if (method == "KelSendAlarm") {
    return takeAlarm<AlarmInput>(method, request, Kel_sys_diag_AlarmInput_unpack,
                                 Kel_sys_diag_AlarmInput_free_unpacked);
  }
  if (method == "KelSendOverloadAlarm") {
    return takeAlarm<OverloadAlarmInput>(method, request, Kel_sys_diag_OverloadAlarmInput_unpack,
                                         Kel_sys_diag_OverloadAlarmInput_free_unpacked);
  }
  if (method == "KelSendMobileDiskOverloadAlarm") {
    return takeAlarm<OverloadDiskAlarmInput>(method, request,
                                             Kel_sys_diag_OverloadDiskAlarmInput_unpack,
                                             Kel_sys_diag_OverloadDiskAlarmInput_free_unpacked);
  }
  if (method == "KelGetDiskOvLoadCfgInfo") {
    return answerThresholds(request);
  }
  return {AnswerStatus::unknownMethod, fmt::format("there is no {} here", shown(path)), {}};
}

template <class Request, class Unpack, class Release>
Answer MasterService::takeAlarm(const std::string& method, std::span<const uint8_t> bytes,
                                Unpack unpack, Release release) {
  Request request{};
  if (!decode(bytes, unpack, request)) {
    return notDecoded(method);
  }
  const std::unique_ptr<Request, Release> content(&request, release);
  std::string text = keep(method, tell(request));
  return packed(AlarmOutput{text.data()}, Kel_sys_diag_AlarmOutput_pack);
}

Answer MasterService::answerThresholds(std::span<const uint8_t> bytes) {
  OvLoadDiskCtlInput question{};
  if (!decode(bytes, Kel_sys_diag_OvLoadDiskCtlInput_unpack, question)) {
    return notDecoded("KelGetDiskOvLoadCfgInfo");
  }
  const DiskRule* const rule =
      rules_.find(rawTextOf(question.bytes50), rawTextOf(question.bytes32b));
  if (rule == nullptr) {
    return {AnswerStatus::notFound,
            fmt::format("no rule for {} ({})", textOf(question.bytes50), textOf(question.bytes32b)),
            {}};
  }
  OvLoadDiskCtlOutput reply{};
  putText(reply.bytes32a, rule->name);
  std::ranges::copy(question.bytes32b, reply.bytes32b);
  reply.value1 = rule->warningPercent;
  reply.value2 = rule->criticalPercent;
  std::ranges::copy(question.bytes50, reply.bytes50);
  return packed(reply, Kel_sys_diag_OvLoadDiskCtlOutput_pack);
}

std::string MasterService::keep(const std::string& method, const std::string& words) {
  const std::scoped_lock lock(mutex_);
  alarms_.push_back({++sequence_, method, std::string(startOf(words, kLongestWords))});
  if (alarms_.size() > kKeptAlarms) {
    alarms_.pop_front();
  }
  observer_(alarms_.back());
  return fmt::format("no. {}, understood: {}", sequence_, alarms_.back().words);
}

std::vector<KeptAlarm> MasterService::keptAlarms() const {
  const std::scoped_lock lock(mutex_);
  return {alarms_.begin(), alarms_.end()};
}

}  // namespace kel::host
