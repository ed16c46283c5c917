// Records in words; docs/fields.md is the table behind them.
#include "host/record_text.hpp"

#include <fmt/chrono.h>
#include <fmt/core.h>

#include <ctime>

#include "host/calendar_time.hpp"
#include "host/field_text.hpp"

namespace kel::host {
namespace {

std::string severityName(uint32_t severity) {
  switch (severity) {
    case kNotice:
      return "notice";
    case kWarning:
      return "warning";
    case kCritical:
      return "critical";
    default:
      return fmt::format("severity {}", severity);
  }
}

std::string heading(uint32_t number, uint32_t severity) {
  return fmt::format("alarm {}, {}", number, severityName(severity));
}

double hundredths(uint32_t value) { return value / 100.0; }

std::string time(const DiagSubRecord& at) {
  return fmt::format("{}.{:06}", calendarText(at), at.value32);
}

}  // namespace

std::string sizeText(uint64_t mebibytes) {
  constexpr uint64_t kTooManyToRead = 10'000;
  return mebibytes < kTooManyToRead
             ? fmt::format("{} MiB", mebibytes)
             : fmt::format("{:.1f} GiB", static_cast<double>(mebibytes) / 1024);
}

std::string tell(const AlarmInput& alarm) {
  return fmt::format("{}: {}, measured {}, threshold {}; host {}, {:%Y-%m-%d %H:%M:%S} UTC",
                     heading(alarm.value1, alarm.value2),
                     alarm.text == nullptr ? "(no description)" : shown(alarm.text), alarm.value3,
                     alarm.value4, textOf(alarm.bytes32), fmt::gmtime(time_t{alarm.value5}));
}

std::string tell(const OverloadAlarmInput& alarm) {
  return fmt::format(
      "{}: load {:.2f}, threshold {:.2f}; 1/5/15 minutes {:.2f} {:.2f} {:.2f} on {} processors, {} "
      "of {} memory available; host {}, {}",
      heading(alarm.value1, alarm.value2), hundredths(alarm.value3), hundredths(alarm.value4),
      hundredths(alarm.value5), hundredths(alarm.value6), hundredths(alarm.value7), alarm.value10,
      sizeText(alarm.value9), sizeText(alarm.value8), textOf(alarm.bytes64), time(alarm.sub));
}

std::string tell(const OverloadDiskAlarmInput& alarm) {
  return fmt::format("{}: {} ({}) {} % used, threshold {} %; {} of {} free; {}",
                     heading(alarm.value1, alarm.value2), textOf(alarm.bytes64),
                     textOf(alarm.bytes32), alarm.value3, alarm.value4, sizeText(alarm.value6),
                     sizeText(alarm.value5), time(alarm.sub));
}

std::string tell(const OvLoadDiskCtlInput& question) {
  return fmt::format("thresholds for {} ({}); host {}", textOf(question.bytes50),
                     textOf(question.bytes32b), textOf(question.bytes32a));
}

std::string tell(const AlarmOutput& reply) {
  return reply.text == nullptr ? "(no text)" : shown(reply.text);
}

std::string tell(const OvLoadDiskCtlOutput& reply) {
  return fmt::format("{} ({}) warns at {} %, is critical at {} %, by the rule \"{}\"",
                     textOf(reply.bytes50), textOf(reply.bytes32b), reply.value1, reply.value2,
                     textOf(reply.bytes32a));
}

}  // namespace kel::host
