// What the host reads from the machine and how it fits into records.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "host/field_text.hpp"
#include "host/kernel_files.hpp"
#include "host/machine_records.hpp"
#include "host/machine_state.hpp"
#include "host/record_text.hpp"

namespace kel::host::test {
namespace {

TEST(FieldText, IsPaddedAndCutBetweenCharacters) {
  const std::pair<const char*, std::array<uint8_t, 6>> cases[] = {
      {"", {}},
      {"abc", {'a', 'b', 'c'}},
      {"abcdef", {'a', 'b', 'c', 'd', 'e', 'f'}},
      {"abcdefg", {'a', 'b', 'c', 'd', 'e', 'f'}},
      {"abcd\xC3\xA4", {'a', 'b', 'c', 'd', 0xC3, 0xA4}},
      {"abcde\xC3\xA4", {'a', 'b', 'c', 'd', 'e'}},
      {"abc\xF0\x9F\x92\xBE", {'a', 'b', 'c'}},
      {"ab\xF0\x9F\x92\xBE"
       "c",
       {'a', 'b', 0xF0, 0x9F, 0x92, 0xBE}},
      {"\x80\x80\x80\x80\x80\x80\x80", {0x80, 0x80, 0x80, 0x80, 0x80, 0x80}},  // is no UTF-8
      {"a\x80\x80\x80\x80\x80\x80\x80", {'a', 0x80, 0x80, 0x80, 0x80, 0x80}},
  };
  for (const auto& [text, expected] : cases) {
    std::array<uint8_t, 6> field{};
    field.fill(0xEE);
    putText(field, text);
    EXPECT_EQ(field, expected) << text;
  }
}

TEST(FieldText, CannotSteerATerminal) {
  const std::pair<const char*, const char*> cases[] = {
      {"\x1B[2J\n\x7F~", "?[2J??~"},
      {"\xC2\x9B\xC2\xA0\xC3\x9B\xF0\x9F\x92\xBE", "?\xC2\xA0\xC3\x9B\xF0\x9F\x92\xBE"},
      {"a\x9B", "a?"},                      // what a terminal without UTF-8 would obey
      {"\xC0\x9B\xC3[\xF0\x9F", "???[??"},  // in too many bytes, and in too few
      {"\xE0\x80\x9B\xE0\xA0\x80\xF0\x80\x80\x9B", "???\xE0\xA0\x80????"},
      {"\xED\x9F\xBF\xED\xA0\x80\xEE\x80\x80", "\xED\x9F\xBF???\xEE\x80\x80"},  // a surrogate
      {"\xF4\x8F\xBF\xBF\xF4\x90\x80\x80", "\xF4\x8F\xBF\xBF????"},             // beyond the last
      {"\xE2\x80\xA7\xE2\x80\xAE\xE2\x80\xAC\xE2\x81\xA6\xE2\x81\xA9",
       "\xE2\x80\xA7????"},  // from right to left
      {"\xD8\x9B\xD8\x9C\xD8\x9D", "\xD8\x9B?\xD8\x9D"},
      {"\xFF\xF8\x88\x80\x80\x80", "??????"},
  };
  for (const auto& [received, expected] : cases) {
    EXPECT_EQ(shown(received), expected);
  }
}

TEST(KernelFiles, AreNotThereWhenTheyCannotBeRead) {
  EXPECT_EQ(readText("/proc/sys/kernel/ostype"), "Linux");
  for (const char* path : {"/none", "/", "/proc/self/mem"}) {
    EXPECT_EQ(readText(path), std::nullopt) << path;
  }
}

TEST(MachineState, ParsesTheKernelsTexts) {
  EXPECT_EQ(parseLoadAverages("0.29 12.05 100.00 2/80 4194\n"), (LoadAverages{29, 1205, 10000}));
  EXPECT_THROW(parseLoadAverages("0.1 0.2"), std::runtime_error);
  EXPECT_THROW(parseLoadAverages(""), std::runtime_error);

  const Memory memory = parseMemory(
      "MemTotal:  2048 kB\nMemFree: 1 kB\nMemAvailable:\t1536 kB\nHugePages_Total: 0\n");
  EXPECT_EQ(memory.totalMiB, 2U);
  EXPECT_EQ(memory.availableMiB, 1U);
  EXPECT_THROW(parseMemory("MemTotal: 2048 kB\n"), std::runtime_error);
}

TEST(Mounts, AreSeenUnlessOthersLieOnThemOrOnTheWay) {
  const std::vector<Mount> mounts = parseMounts(
      "1 1 0:2 / / rw - rootfs rootfs rw\n"
      "20 1 8:1 / / rw - ext4 /dev/seen rw\n"
      "21 20 8:2 / /data rw - ext4 /dev/covered rw\n"
      "22 21 8:3 / /data/disk rw - ext4 /dev/behind rw\n"
      "23 22 8:4 / /data/disk/deep rw - ext4 /dev/behind rw\n"
      "24 21 8:5 / /data rw - ext4 /dev/seen rw\n"
      "25 24 8:6 / /data/disk rw - ext4 /dev/seen rw\n"
      "26 20 8:7 / /database rw - ext4 /dev/seen rw\n"
      "28 20 8:8 / /mnt rw - ext4 /dev/seen rw\n"
      "27 20 8:9 / /mnt/disk rw - ext4 /dev/behind rw\n"
      "40 41 8:10 / /ring rw - ext4 /dev/seen rw\n"
      "41 40 8:11 / /ring/one rw - ext4 /dev/seen rw\n"
      "x 20 8:12 / /left/out rw - ext4 /dev/no rw\n");
  ASSERT_EQ(mounts.size(), 12U);
  for (const Mount& mount : mounts) {
    EXPECT_EQ(isSeen(mounts, mount), mount.source == "/dev/seen") << mount.id;
  }
  EXPECT_EQ(findMount(mounts, "/data/disk").value_or(Mount{}).id, 25U);
  EXPECT_FALSE(findMount(mounts, "/mnt/disk"));
}

TEST(MachineState, ListsADeviceWhereItCanFirstBeMeasured) {
  const std::vector<Mount> mounts = {
      {{}, "/images", "ext4", "/dev/a", 2, 1}, {{}, "/", "ext4", "/dev/a", 1, 0},
      {{}, "/again", "ext4", "/dev/a", 3, 1},  {{}, "/run", "tmpfs", "none", 4, 1},
      {{}, "/tmp", "tmpfs", "none", 5, 1},     {{}, "/b", "xfs", "/dev/covered", 6, 1},
      {{}, "/b", "xfs", "/dev/b", 7, 6},       {{}, "/far", "autofs", "/etc/auto.far", 8, 1}};
  std::vector<std::string> measured;
  const auto listed = eachDeviceOnce(mounts, [&](const Mount& mount) -> std::optional<FileSystem> {
    measured.push_back(mount.mountPoint);
    if (mount.mountPoint == "/images") return std::nullopt;
    return FileSystem{mount.mountPoint, mount.source, 1, 1, 1};
  });
  std::vector<std::string> names;
  for (const FileSystem& disk : listed) names.push_back(disk.mountPoint + " " + disk.device);
  EXPECT_EQ(names, (std::vector<std::string>{"/ /dev/a", "/run none", "/tmp none", "/b /dev/b"}));
  EXPECT_EQ(measured, (std::vector<std::string>{"/images", "/", "/run", "/tmp", "/b"}));
}

TEST(MachineState, IsPlausibleHere) {
  const MachineState machine = readMachineState();
  EXPECT_FALSE(machine.hostName.empty());
  EXPECT_GT(machine.processors, 0U);
  EXPECT_GT(machine.memory.totalMiB, 0U);
  for (const FileSystem& disk : machine.fileSystems) {
    EXPECT_LE(disk.usedPercent, 100U) << disk.mountPoint;
    EXPECT_LE(disk.freeMiB, disk.sizeMiB) << disk.mountPoint;
    EXPECT_EQ(std::ranges::count(machine.fileSystems, disk.mountPoint, &FileSystem::mountPoint), 1)
        << disk.mountPoint;
  }
}

TEST(MachineRecords, CarryTheStateAndItsSeverity) {
  setenv("TZ", "UTC", 1);
  MachineState machine{};
  machine.hostName = "h";
  machine.time = {1'700'000'000, 123'456};
  machine.processors = 2;
  machine.load = {200, 150, 50};
  machine.memory = {1000, 99};
  EXPECT_EQ(memoryAlarm(machine).value3, 90U);
  EXPECT_EQ(memoryAlarm(machine).value2, kWarning);
  EXPECT_EQ(tell(loadAlarm(machine)),
            "alarm 1002, warning: load 2.00, threshold 2.00; 1/5/15 minutes 2.00 1.50 0.50 on 2 "
            "processors, 99 MiB of 1000 MiB memory available; host h, 2023-11-14 22:13:20.123456");
  EXPECT_EQ(loadAlarm(machine).sub.byte6, 2U) << "a Tuesday";
  EXPECT_EQ(tell(thresholdQuestion(machine, {"/", "d", 1, 1, 1})), "thresholds for / (d); host h");
  machine.load[0] = 199;
  machine.memory = {1000, 2000};  // some containers say so
  EXPECT_EQ(memoryAlarm(machine).value3, 0U);
  EXPECT_EQ(loadAlarm(machine).value2, kNotice);

  OvLoadDiskCtlOutput thresholds{};
  thresholds.value1 = 80;
  thresholds.value2 = 90;
  struct Case {
    uint32_t used;
    uint32_t severity;
    uint32_t threshold;
  };
  for (const Case& disk :
       {Case{79, kNotice, 80}, Case{80, kWarning, 80}, Case{90, kCritical, 90}}) {
    const FileSystem state{"/", "d", uint64_t{1} << 40U, 0, disk.used};
    const OverloadDiskAlarmInput alarm = diskAlarm(machine.time, state, thresholds);
    EXPECT_EQ(alarm.value2, disk.severity);
    EXPECT_EQ(alarm.value4, disk.threshold);
    EXPECT_EQ(alarm.value5, UINT32_MAX);  // more than the field can say
  }
}

}  // namespace
}  // namespace kel::host::test
