// Tells what a serving host has answered.
#include "host/qarne_text.hpp"

#include <fmt/core.h>

#include <algorithm>
#include <array>
#include <iterator>
#include <limits>
#include <span>
#include <string_view>

#include "host/calendar_time.hpp"
#include "host/field_text.hpp"
#include "host/result_code.hpp"
#include "host/text_table.hpp"

namespace kel::host {
namespace {

std::string sizeOf(uint64_t bytes) {
  static constexpr std::array<std::string_view, 6> kUnits = {"KiB", "MiB", "GiB",
                                                             "TiB", "PiB", "EiB"};
  constexpr double kStep = 1024;
  if (bytes < static_cast<uint64_t>(kStep)) {
    return fmt::format("{} B", bytes);
  }
  auto value = static_cast<double>(bytes) / kStep;
  size_t unit = 0;
  while (value >= kStep && unit + 1 < kUnits.size()) {
    value /= kStep;
    ++unit;
  }
  return fmt::format("{:.1f} {}", value, kUnits[unit]);
}

std::string orDash(const std::string& text) { return text.empty() ? "-" : text; }

std::string momentOf(const DiagSubRecord& at) { return at.value16 == 0 ? "-" : calendarText(at); }

std::string softLimitOf(const DiagSubRecord& kinds) {
  return kinds.value32 == std::numeric_limits<uint32_t>::max()
             ? "-"
             : fmt::format("{} % of {}", kinds.byte6, kinds.value32);
}

std::string deviceOf(uint32_t number) {
  constexpr uint32_t kMinorBits = 20;
  return fmt::format("{}:{}", number >> kMinorBits, number & ((1U << kMinorBits) - 1));
}

// The entries of a reply, whatever it says about how many there are.
template <class Reply>
auto entriesOf(const Reply& reply) {
  return std::span(reply.entries, reply.entries == nullptr ? 0 : reply.entryCount);
}

template <class Reply, class ToRow>
std::string listText(const Reply& reply, const std::vector<Column>& columns, size_t limit,
                     std::string_view ifEmpty, const ToRow& toRow) {
  const auto entries = entriesOf(reply);
  if (entries.empty()) {
    return fmt::format("  {}\n", ifEmpty);
  }
  const auto shownEntries = entries.first(std::min(entries.size(), limit));
  std::vector<Row> rows;
  std::ranges::transform(shownEntries, std::back_inserter(rows), toRow);
  std::string text = tableText(columns, rows);
  if (rows.size() < entries.size()) {
    text += fmt::format("  and {} more\n", entries.size() - rows.size());
  }
  return text;
}

}  // namespace

std::string tell(const BrdPartInfo& reply, size_t limit) {
  const std::vector<Column> columns = {{"device"},      {"kind"},        {"size", true},
                                       {"start", true}, {"block", true}, {"mounted at"},
                                       {"model"}};
  return listText(reply, columns, limit, "no disks", [](const BrdPartEntry& entry) {
    return Row{textOf(entry.bytes50a),        textOf(entry.bytes32), sizeOf(entry.value1),
               sizeOf(entry.value2),          sizeOf(entry.value3),  orDash(textOf(entry.bytes64)),
               orDash(textOf(entry.bytes50b))};
  });
}

std::string tell(const FdProcInfoOutput& reply, size_t limit) {
  constexpr size_t kLongestCommand = 40;
  const std::vector<Column> columns = {{"process", true}, {"open", true},   {"files", true},
                                       {"sockets", true}, {"pipes", true},  {"anon", true},
                                       {"devices", true}, {"others", true}, {"limit"},
                                       {"started"},       {"command"}};
  return listText(reply, columns, limit, "no processes", [](const FdProcEntry& entry) {
    const DiagSubRecord& kinds = entry.sub3;
    return Row{std::to_string(entry.value1),
               std::to_string(entry.value2),
               std::to_string(kinds.value16),
               std::to_string(kinds.byte1),
               std::to_string(kinds.byte2),
               std::to_string(kinds.byte3),
               std::to_string(kinds.byte4),
               std::to_string(kinds.byte5),
               softLimitOf(kinds),
               momentOf(entry.sub1),
               std::string(startOf(textOf(entry.bytes256), kLongestCommand))};
  });
}

std::string tell(const StorageEraseInfo& reply, size_t limit) {
  return listText(reply, {{"device"}, {"life used", true}}, limit, "no device reports its wear",
                  [](const StorageEraseEntry& entry) {
                    return Row{deviceOf(entry.value1), fmt::format("{} %", entry.value2)};
                  });
}

std::string tell(const StorageBadBlockInfo& reply, size_t limit) {
  return listText(reply, {{"device"}, {"bad blocks", true}}, limit,
                  "no device keeps a list of bad blocks", [](const StorageBadBlockEntry& entry) {
                    return Row{textOf(entry.bytes32), std::to_string(entry.value1)};
                  });
}

std::string tell(const OperResult& reply) {
  return fmt::format("  {}\n", describe(ResultCode{reply.result}));
}

std::string tell(const SysDiskUseInfoResult& reply) {
  const std::string mountPoint = textOf(reply.bytes50a);
  if (ResultCode{reply.value4} != ResultCode::done) {
    return fmt::format("  {}: {}\n", mountPoint, describe(ResultCode{reply.value4}));
  }
  std::string threshold = "no threshold is set";
  if (reply.value5 != 0) {
    threshold =
        fmt::format("{} the threshold of {} %",
                    reply.value3 >= reply.value5 ? "has reached" : "is below", reply.value5);
  }
  return fmt::format("  {} ({}, {}): {} % of {} used, {} free for users; {}\n", mountPoint,
                     textOf(reply.bytes50b), textOf(reply.bytes32), reply.value3,
                     sizeOf(reply.value1), sizeOf(reply.value2), threshold);
}

}  // namespace kel::host
