// The served role from end to end: a client's requests over gRPC, through the library's tables and
// wrappers, to the host's methods on live and made-up machines, and back.
#include <fmt/core.h>
#include <kel_sys_diag/service.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <barrier>
#include <cstdlib>
#include <fstream>
#include <future>
#include <stdexcept>

#include "host/diagnostics.hpp"
#include "host/field_text.hpp"
#include "host/os_allocator.hpp"
#include "host/qarne_client.hpp"
#include "host/qarne_methods.hpp"
#include "host/qarne_text.hpp"
#include "host/rpc_server.hpp"
#include "host/service_framework.hpp"
#include "tests/host/host_fixture.hpp"
#include "tests/host/made_up_machine.hpp"
#include "tests/host/running_program.hpp"

namespace kel::host::test {
namespace {

using Form = ServedService::ReplyForm;

constexpr size_t kAllRows = 1000;

template <class Record>
Record named(std::string_view text) {
  Record record{};
  putText(record.bytes50, text);
  return record;
}

SysOvLoadDiskThreshold threshold(std::string_view mountPoint, uint32_t percent) {
  auto record = named<SysOvLoadDiskThreshold>(mountPoint);
  record.value1 = percent;
  return record;
}

StorageBadBlockInfoInput badBlocksOf(std::string_view device) {
  StorageBadBlockInfoInput record{};
  putText(record.bytes32, device);
  return record;
}

class Qarne : public HostFixture {
 protected:
  Qarne() : machine_(folder / "machine") {}
  ~Qarne() override {
    server_.reset();
    setDiagnostics(nullptr);
    EXPECT_EQ(allocatorUse().outstanding, 0U);
  }

  // Serves from now on.
  QarneClient serve(Diagnostics::Settings settings, Form form = Form::fixedWherePossible) {
    server_.reset();
    diagnostics_ = std::make_unique<Diagnostics>(std::move(settings));
    setDiagnostics(diagnostics_.get());
    service_ =
        std::make_unique<ServedService>(__module_spec_KelSysdiagQarne, "KelSysdiagQarne", form);
    server_ = std::make_unique<RpcServer>(
        target, [this](const std::string& path, std::span<const uint8_t> request) {
          Answer answer = service_->handle(path, request);
          served_(path);
          return answer;
        });
    QarneClient client(target, kCallMs);
    // Calls wait three seconds for a connection, which is too little for many at once on a busy
    // machine.
    EXPECT_TRUE(eventually([&] { return client.call(kBrdPartInfoQuery, {}).result() == kOk; }));
    return client;
  }

  MadeUpMachine machine_;
  std::function<void(const std::string& path)> served_ = [](const std::string&) {
  };  // before the answer

 private:
  std::unique_ptr<Diagnostics> diagnostics_;
  std::unique_ptr<ServedService> service_;
  std::unique_ptr<RpcServer> server_;
};

TEST_F(Qarne, KeepsItsThresholdFromAQueryThatIsCutShort) {
  machine_.mount("8:1", "/", "/dev/sda1");
  std::promise<pid_t> started;
  auto first = started.get_future();
  std::atomic<int> thresholds = 0;
  served_ = [&](const std::string& path) {
    const int number = path.ends_with("KelSysOvLoadDiskThresholdSet") ? ++thresholds : 0;
    if (number == 2) {
      kill(first.get(), SIGINT);
    } else if (number == 4) {
      throw std::runtime_error("set, but nobody is told");
    }
  };
  const QarneClient client = serve({.root = machine_.root});
  client.call(kSysOvLoadDiskThresholdSet, threshold("/", 99));
  for (const int expected : {3, 5}) {
    RunningProgram query(built("kel_query") + Arguments{"--target", target, "overload"},
                         folder / "query");
    if (expected == 3) {
      started.set_value(query.id());
    }
    query.end();
    EXPECT_EQ(thresholds, expected) << query.output();
    EXPECT_EQ(client.call(kGetSysDiskUseInfo, named<SysDiskUseInput>("/"))->value5, 99U);
  }
}

TEST_F(Qarne, FailsWhileNobodyAnswers) {
  const QarneClient client = serve({});
  setDiagnostics(nullptr);
  EXPECT_EQ(outcome(client.call(kBrdPartInfoQuery, {}).result()), outcome(kGrpcStatus + 13));
}

// The methods against what this process can see by itself.
TEST_F(Qarne, SeesThisMachine) {
  const QarneClient client = serve({});
  const auto use = client.call(kGetSysDiskUseInfo, named<SysDiskUseInput>("/"));
  EXPECT_EQ(ResultCode{use->value4}, ResultCode::done);
  EXPECT_EQ(use->value1, std::filesystem::space("/").capacity);
  EXPECT_LE(use->value3, 100U);

  std::vector<std::ifstream> files(100);
  for (std::ifstream& file : files) {
    file.open("/proc/self/exe");
  }
  const auto processes = client.call(kFdProcInfoQuery, {100, 4000});
  const std::span entries(processes->entries, processes->entryCount);
  const auto found =
      std::ranges::find(entries, static_cast<uint32_t>(getpid()), &FdProcEntry::value1);
  ASSERT_NE(found, entries.end());
  EXPECT_GE(found->sub3.value16, 100U);
  EXPECT_GE(found->value2, found->sub3.value16 + found->sub3.byte1);
  EXPECT_GE(found->sub3.byte1, 2U) << "a server, a client and their connection";
  EXPECT_PRED_FORMAT2(testing::IsSubstring, "qarne_test", textOf(found->bytes256));
  EXPECT_EQ(found->sub1.value16, found->sub2.value16) << "started this year, as it was counted";
  EXPECT_TRUE(std::ranges::all_of(entries, [](const auto& entry) { return entry.value2 >= 100; }));
}

TEST_F(Qarne, HasNothingToTellOfAnEmptyMachine) {
  const QarneClient client = serve({.root = machine_.root});
  EXPECT_EQ(client.call(kBrdPartInfoQuery, {})->entryCount, 0U);
  EXPECT_EQ(client.call(kFdProcInfoQuery, {})->entryCount, 0U);
  EXPECT_EQ(client.call(kQueryStorageEraseInfo, {})->entryCount, 0U);
  EXPECT_EQ(client.call(kQueryStorageBadBlockInfo, {})->entryCount, 0U);
}

TEST_F(Qarne, TellsDisksWearAndBadBlocksAsTheKernelHasThem) {
  // A disk with two partitions, numbered out of their names' order, and one mounted.
  machine_.put("sys/block/sda/dev", "8:0");
  machine_.put("sys/block/sda/size", "2048");
  machine_.put("sys/block/sda/queue/logical_block_size", "4096");
  machine_.put("sys/block/sda/device/model", "A disk of\x1b[2J the kind   ");
  machine_.put("sys/block/sda/removable", "1");
  for (const auto& [name, number] : {std::pair{"sda10", 10}, std::pair{"sda2", 2}}) {
    const std::string partition = fmt::format("sys/block/sda/{}/", name);
    machine_.put(partition + "dev", fmt::format("8:{}", number));
    machine_.put(partition + "size", "1024");
    machine_.put(partition + "start", "64");
    machine_.put(partition + "partition", std::to_string(number));
  }
  machine_.mount("8:2", "/srv/data/hidden", "/dev/disk/by-label/data");
  machine_.mount("8:2", "/srv/data", "/dev/disk/by-label/data");
  machine_.mount("1:3", "/srv/fast", "/dev/root");
  machine_.put("sys/block/dm-0/dev", "254:0");
  machine_.put("sys/block/dm-0/size", "8");
  machine_.put("sys/block/dm-0/dm/name", "disks-home");
  machine_.put("sys/block/dm-0/ro", "1");
  machine_.put("sys/block/dm-0/device/name", "card");         // where eMMC has its model
  machine_.mount("0:33", "/home", "/dev/mapper/disks-home");  // as btrfs has it
  machine_.put("sys/block/loop0/size", "0");
  machine_.put("sys/block/nvme0c0n1/size", "2048");  // one path of several to a disk
  machine_.put("sys/block/nvme0c0n1/hidden", "1");
  // Worn memory of every kind.
  const std::pair<const char*, const char*> cards[] = {
      {"179:0", "0x01 0x02"}, {"179:1", "0x0b 0x01"}, {"179:2", "0x00 0x00"}, {"179:3", "0x0c x"}};
  for (const auto& [number, lifeTime] : cards) {
    const std::string card = fmt::format("sys/block/mmcblk{}/", number);
    machine_.put(card + "dev", number);
    machine_.put(card + "device/life_time", lifeTime);
  }
  machine_.put("sys/devices/ufs/health_descriptor/life_time_estimation_a", "0x0a");
  machine_.put("sys/devices/ufs/health_descriptor/life_time_estimation_b", "0x00");
  machine_.put("sys/devices/ufs/host0/block/sdb/dev", "8:16");
  std::filesystem::create_directory_symlink("../devices/ufs/host0/block/sdb",
                                            machine_.root / "sys/block/sdb");
  // Bad blocks of every kind, and of a sound device.
  machine_.put("sys/class/mtd/mtd0/bad_blocks", "3");
  machine_.put("sys/class/mtd/mtd0ro/size", "4096");
  machine_.put("sys/block/pmem0/badblocks", "8 2\n100 30");
  machine_.put("sys/block/pmem1/badblocks", "");
  machine_.put("sys/block/md0/md/dev-sda1/bad_blocks", "7 5");
  machine_.put("sys/block/md0/md/dev-cciss!c0/bad_blocks", "");
  machine_.put("proc/partitions",
               "major minor  #blocks  name\n\n   8        0       1024 sda\n   9        9 "
               "      4 old\n   1        3          8 ram3\n   1        1          0 none");

  const QarneClient client = serve({.root = machine_.root});
  EXPECT_EQ(tell(*client.call(kBrdPartInfoQuery, {}), kAllRows),
            "  device      kind                  size     start    block  mounted at  model\n"
            "  /dev/dm-0   disk, read-only    4.0 KiB       0 B      0 B  /home       card\n"
            "  /dev/sda    disk, removable    1.0 MiB       0 B  4.0 KiB  -           "
            "A disk of?[2J the kind\n"
            "  /dev/sda2   partition        512.0 KiB  32.0 KiB  4.0 KiB  /srv/data   "
            "A disk of?[2J the kind\n"
            "  /dev/sda10  partition        512.0 KiB  32.0 KiB  4.0 KiB  -           "
            "A disk of?[2J the kind\n"
            "  /dev/old    block device       4.0 KiB       0 B      0 B  -           -\n"
            "  /dev/ram3   block device       8.0 KiB       0 B      0 B  /srv/fast   -\n");
  EXPECT_EQ(tell(*client.call(kQueryStorageEraseInfo, {}), kAllRows),
            "  device  life used\n"
            "  179:0        20 %\n"
            "  179:1       101 %\n"
            "  8:16        100 %\n");
  EXPECT_EQ(tell(*client.call(kQueryStorageEraseInfo, {(8U << 20U) + 16U}), kAllRows),
            "  device  life used\n"
            "  8:16        100 %\n");
  EXPECT_EQ(client.call(kQueryStorageEraseInfo, {1})->entryCount, 0U);
  EXPECT_EQ(tell(*client.call(kQueryStorageBadBlockInfo, {}), 4),
            "  device        bad blocks\n"
            "  mtd0                   3\n"
            "  md0/cciss/c0           0\n"
            "  md0/sda1               5\n"
            "  pmem0                 32\n"
            "  and 1 more\n");
  for (const auto& [asked, expected] :
       {std::pair{"md0", 2U}, std::pair{"md0/sda1", 1U}, std::pair{"md", 0U},
        std::pair{"pmem1", 1U}, std::pair{"mtd0ro", 0U}}) {
    EXPECT_EQ(client.call(kQueryStorageBadBlockInfo, badBlocksOf(asked))->entryCount, expected)
        << asked;
  }
}

TEST_F(Qarne, TellsWhatProcessesHaveOpen) {
  setenv("TZ", "UTC", 1);
  std::ofstream(folder / "file").put('x');
  machine_.put("proc/stat", "cpu 1 2 3\nbtime 1700000000");
  machine_.addProcess(7, {"socket:[1]", "socket:[2]", "pipe:[3]", "anon_inode:[eventfd]",
                          "/dev/null", folder / "file", folder, folder / "gone"});
  machine_.put("proc/7/limits",
               "Limit  Soft Limit Hard Limit Units\nMax open files            16     32     files");
  machine_.put("proc/7/cmdline", std::string("run\0fast", 8));
  // The 22nd word, behind a name that looks like more words.
  machine_.put("proc/7/stat", "7 (a) b) S 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 250 20");
  machine_.addProcess(8, {"pipe:[1]"});
  std::filesystem::create_symlink("/dev/zero", machine_.root / "proc/8/cmdline");  // has no end
  machine_.put("proc/8/limits", "Max open files            unlimited     unlimited     files");
  machine_.addProcess(9, std::vector<std::string>(300, "socket:[1]"));
  machine_.put("proc/9/limits", "Max open files            100     100     files");
  std::filesystem::create_directories(machine_.root / "proc/10");  // may not be looked into
  machine_.addProcess(11, std::vector<std::string>(400, "socket:[1]"));
  std::filesystem::remove(machine_.root / "proc/11/comm");  // as if it had ended meanwhile
  machine_.put("proc/0x8/fd/0", "");
  machine_.put("proc/sys/fd/0", "");

  const QarneClient client = serve({.root = machine_.root});
  const auto reply = client.call(kFdProcInfoQuery, {});
  EXPECT_EQ(
      tell(*reply, kAllRows),
      "  process  open  files  sockets  pipes  anon  devices  others  limit         started   "
      "           command\n"
      "        9   300      0      255      0     0        0       0  255 % of 100  -         "
      "           [p9]\n"
      "        7     8      2        2      1     1        1       1  50 % of 16    "
      "2023-11-14 22:13:22  run fast\n"
      "        8     1      0        0      1     0        0       0  -             -         "
      "           [p8]\n");
  ASSERT_EQ(reply->entryCount, 3U);
  EXPECT_EQ(reply->entries[1].sub1.value32, 500'000U) << "half a second";

  EXPECT_EQ(client.call(kFdProcInfoQuery, {8, 0})->entryCount, 2U);
  EXPECT_EQ(client.call(kFdProcInfoQuery, {0, 1})->entryCount, 1U) << "of those that are there";
  EXPECT_EQ(client.call(kFdProcInfoQuery, {301, UINT32_MAX})->entryCount, 0U);
}

TEST_F(Qarne, ComparesUseWithThresholdsAndAlarmsOncePerPassing) {
  machine_.mount("1:1", "/data", "/dev/a");
  machine_.mount("1:2", "/with\r space", "/dev/b");
  machine_.put("proc/self/mountinfo",
               "20 1 1:1 / /data rw - ext4 /dev/below rw\n21 1 1:2 / /with\r\\040space rw - ext4  "
               "rw\n22 20 1:3 / /data rw - xfs /dev/above rw\nnonsense\n1 2 3 4 5 6 - x");
  std::vector<Overload> overloads;
  const QarneClient client =
      serve({.root = machine_.root,
             .onOverload = [&](const Overload& overload) { overloads.push_back(overload); }});
  const auto set = [&](std::string_view mountPoint, uint32_t percent) {
    return ResultCode{
        client.call(kSysOvLoadDiskThresholdSet, threshold(mountPoint, percent))->result};
  };
  const auto use = [&](std::string_view mountPoint) {
    return client.call(kGetSysDiskUseInfo, named<SysDiskUseInput>(mountPoint));
  };
  const auto report = use("/data");
  const uint32_t used = report->value3;
  EXPECT_EQ(textOf(report->bytes50a), "/data");
  EXPECT_EQ(textOf(report->bytes50b), "/dev/above");
  EXPECT_EQ(textOf(report->bytes32), "xfs");
  EXPECT_EQ(report->value5, 0U);
  if (used == 0 || used == 100) {
    GTEST_SKIP() << "this disk is too empty or too full to have thresholds on both sides";
  }

  EXPECT_EQ(set("/data", used + 1), ResultCode::done);
  EXPECT_EQ(use("/data")->value5, used + 1);
  EXPECT_TRUE(overloads.empty());
  EXPECT_EQ(set("/data", used), ResultCode::done);
  EXPECT_EQ(use("/data")->value5, used);
  EXPECT_EQ(use("/data")->value5, used);
  ASSERT_EQ(overloads.size(), 1U);
  EXPECT_EQ(overloads[0].mount.mountPoint, "/data");
  EXPECT_EQ(overloads[0].threshold, used);
  EXPECT_EQ(set("/data", used), ResultCode::done);
  use("/data");
  ASSERT_EQ(overloads.size(), 2U) << "set anew, it is passed anew";
  EXPECT_GT(overloads[1].number, overloads[0].number);
  EXPECT_EQ(set("/data", 0), ResultCode::done);
  EXPECT_EQ(use("/data")->value5, 0U);
  EXPECT_EQ(use("/with\r space")->value5, 0U);
  EXPECT_EQ(set("/with\r space", 100), ResultCode::done);

  struct Case {
    std::string mountPoint;
    uint32_t percent;
    ResultCode ofSet;
    ResultCode ofUse;
  };
  for (const Case& asked :
       {Case{"/data", 101, ResultCode::badArgument, ResultCode::done},
        Case{"/data", 0, ResultCode::notFound, ResultCode::done},
        Case{"", 50, ResultCode::badArgument, ResultCode::badArgument},
        Case{"data", 50, ResultCode::badArgument, ResultCode::badArgument},
        Case{"/data/", 50, ResultCode::notFound, ResultCode::notFound},
        Case{"/data/..", 50, ResultCode::notFound, ResultCode::notFound},
        Case{"/" + std::string(49, 'x'), 50, ResultCode::notFound, ResultCode::notFound}}) {
    EXPECT_EQ(set(asked.mountPoint, asked.percent), asked.ofSet) << asked.mountPoint;
    const auto answer = use(asked.mountPoint);
    EXPECT_EQ(ResultCode{answer->value4}, asked.ofUse) << asked.mountPoint;
    EXPECT_EQ(textOf(answer->bytes50a), asked.mountPoint);
  }
}

std::string mountPointOf(uint32_t caller) { return fmt::format("/m{}", caller); }

// Slow methods do not wait for each other: all of these are only done once all have begun.
TEST_F(Qarne, ServesSlowCallsAtTheSameTime) {
  constexpr uint32_t kCallers = 12;
  for (uint32_t i = 0; i < kCallers; ++i) {
    machine_.mount(fmt::format("2:{}", i), mountPointOf(i), "/dev/b");
  }
  std::barrier together(kCallers);
  const QarneClient client = serve(
      {.root = machine_.root, .onOverload = [&](const Overload&) { together.arrive_and_wait(); }});
  onThreads(kCallers, [&](uint32_t caller) {
    client.call(kSysOvLoadDiskThresholdSet, threshold(mountPointOf(caller), 1));
    const auto use = client.call(kGetSysDiskUseInfo, named<SysDiskUseInput>(mountPointOf(caller)));
    EXPECT_EQ(outcome(use.result()), outcome(kOk));
  });
}

constexpr uint32_t kProcesses = 8;

// What a caller is told when it asks, by all methods in turn, for what is its own.
std::string answersTo(const QarneClient& client, uint32_t caller) {
  const auto use = [&] {
    const auto reply =
        client.call(kGetSysDiskUseInfo, named<SysDiskUseInput>(mountPointOf(caller)));
    return fmt::format("{} {} {}\n", textOf(reply->bytes50a), textOf(reply->bytes50b),
                       reply->value5);
  };
  std::string all;
  for (const std::string& answer :
       {tell(*client.call(kBrdPartInfoQuery, {}), kAllRows),
        tell(*client.call(kFdProcInfoQuery, {1, 1 + caller % kProcesses}), kAllRows),
        tell(*client.call(kSysOvLoadDiskThresholdSet, threshold(mountPointOf(caller), 1 + caller))),
        use(), tell(*client.call(kResetDiskMakeFS, named<ResetDiskCondition>("x"))),
        tell(*client.call(kMountDisk, named<MountDiskInput>("x"))),
        tell(*client.call(kQueryStorageEraseInfo, {(179U << 20U) + caller}), kAllRows),
        tell(*client.call(kQueryStorageBadBlockInfo, badBlocksOf(fmt::format("mtd{}", caller))),
             kAllRows)}) {
    all += answer;
  }
  return all;
}

TEST_F(Qarne, MatchesEveryReplyToItsRequestUnderLoadInBothForms) {
  constexpr uint32_t kCallers = 64;
  constexpr uint32_t kRounds = 3;
  machine_.put("sys/block/sda/size", "8");
  for (uint32_t i = 0; i < kCallers; ++i) {
    machine_.mount(fmt::format("7:{}", i), mountPointOf(i), fmt::format("/dev/d{}", i));
    machine_.put(fmt::format("sys/block/card{}/dev", i), fmt::format("179:{}", i));
    machine_.put(fmt::format("sys/block/card{}/device/life_time", i),
                 fmt::format("0x0{:x}", 1 + i % 10));
    machine_.put(fmt::format("sys/class/mtd/mtd{}/bad_blocks", i), std::to_string(i));
  }
  for (uint32_t i = 1; i <= kProcesses; ++i) {
    machine_.addProcess(i, std::vector<std::string>(i, "pipe:[1]"));
  }
  std::vector<std::string> alone(kCallers);
  for (const Form form : {Form::fixedWherePossible, Form::compact}) {
    const QarneClient client = serve({.root = machine_.root}, form);
    for (uint32_t i = 0; i < kCallers && form == Form::fixedWherePossible; ++i) {
      alone[i] = answersTo(client, i);
      EXPECT_PRED_FORMAT2(testing::IsNotSubstring, "  no ", alone[i]);
      EXPECT_EQ(std::ranges::count(alone, alone[i]), 1) << "of " << i;
    }
    onThreads(kCallers, [&](uint32_t caller) {
      for (uint32_t round = 0; round < kRounds; ++round) {
        EXPECT_EQ(answersTo(client, caller), alone[caller]);
      }
    });
  }
  EXPECT_GT(allocatorUse().served, kCallers * kRounds);
}

}  // namespace
}  // namespace kel::host::test
