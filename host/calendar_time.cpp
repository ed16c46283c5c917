// Breaks a time down by the local calendar.
#include "host/calendar_time.hpp"

#include <fmt/core.h>

#include <ctime>

namespace kel::host {

DiagSubRecord calendarTime(const timeval& time) {
  tm parts{};
  localtime_r(&time.tv_sec, &parts);
  const auto byte = [](int value) { return static_cast<uint8_t>(value); };
  return {static_cast<uint16_t>(parts.tm_year + 1900),
          byte(parts.tm_mon + 1),
          byte(parts.tm_mday),
          byte(parts.tm_hour),
          byte(parts.tm_min),
          byte(parts.tm_sec),
          byte(parts.tm_wday),
          static_cast<uint32_t>(time.tv_usec)};
}

std::string calendarText(const DiagSubRecord& at) {
  return fmt::format("{:04}-{:02}-{:02} {:02}:{:02}:{:02}", at.value16, at.byte1, at.byte2,
                     at.byte3, at.byte4, at.byte5);
}

}  // namespace kel::host
