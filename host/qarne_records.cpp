// Fills the served messages' records.
#include "host/qarne_records.hpp"

#include <algorithm>
#include <limits>

#include "host/calendar_time.hpp"
#include "host/field_text.hpp"

namespace kel::host {
namespace {

template <class Field>
Field saturated(uint64_t value) {
  return static_cast<Field>(std::min<uint64_t>(value, std::numeric_limits<Field>::max()));
}

DiagSubRecord recordOf(const DescriptorKinds& kinds, uint32_t descriptors,
                       const std::optional<uint32_t>& softLimit) {
  const bool limited = softLimit.value_or(0) != 0;
  return {saturated<uint16_t>(kinds.files),
          saturated<uint8_t>(kinds.sockets),
          saturated<uint8_t>(kinds.pipes),
          saturated<uint8_t>(kinds.anonymous),
          saturated<uint8_t>(kinds.devices),
          saturated<uint8_t>(kinds.others),
          limited ? saturated<uint8_t>(uint64_t{descriptors} * 100 / *softLimit) : uint8_t{0},
          softLimit.value_or(std::numeric_limits<uint32_t>::max())};
}

}  // namespace

BrdPartEntry recordOf(const BlockDevice& device) {
  BrdPartEntry record{};
  putText(record.bytes50a, device.path);
  putText(record.bytes50b, device.model);
  putText(record.bytes32, device.kind);
  record.value1 = device.size;
  record.value2 = device.start;
  record.value3 = device.blockSize;
  record.value4 = device.partition;
  putText(record.bytes64, device.mountPoint);
  return record;
}

FdProcEntry recordOf(const ProcessUse& use, const ProcessDetails& details, const timeval& counted) {
  FdProcEntry record{};
  record.value1 = use.process;
  record.value2 = use.descriptors;
  if (details.started.tv_sec != 0) {
    record.sub1 = calendarTime(details.started);
  }
  record.sub2 = calendarTime(counted);
  record.sub3 = recordOf(details.kinds, use.descriptors, details.softLimit);
  putText(record.bytes256, details.commandLine);
  return record;
}

SysDiskUseInfoResult recordOf(const Diagnostics::UseReport& report) {
  SysDiskUseInfoResult record{};
  putText(record.bytes50a, report.mount.mountPoint);
  putText(record.bytes50b, report.mount.source);
  record.value1 = report.use.size;
  record.value2 = report.use.freeForUsers;
  record.value3 = report.use.usedPercent;
  putText(record.bytes32, report.mount.type);
  record.value4 = static_cast<uint32_t>(report.code);
  record.value5 = report.threshold;
  return record;
}

StorageEraseEntry recordOf(const Wear& wear) { return {wear.deviceNumber, wear.percent}; }

StorageBadBlockEntry recordOf(const BadBlocks& badBlocks) {
  StorageBadBlockEntry record{};
  putText(record.bytes32, badBlocks.device);
  record.value1 = badBlocks.count;
  return record;
}

}  // namespace kel::host
