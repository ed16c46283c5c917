// The codecs' dealings with the host's OS layer: what is looked up and when, which allocator
// serves, what is logged and in which order. Each scenario has a process of its own, since a unit
// chooses its hooks once. The program holds the client and the peer unit's objects and stands in
// for dlsym, so that it decides which platform functions exist and sees every look-up.
#include <gtest/gtest.h>
#include <kel_sys_diag/osal.h>
#include <kel_sys_diag/peer.h>

#include <atomic>
#include <barrier>
#include <cstdarg>
#include <cstdio>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "schema/client_routines.hpp"
#include "support/bytes.hpp"
#include "support/own_process.hpp"

namespace {

using kel::test::Bytes;
using kel::test::inAProcessOfItsOwn;
using Events = std::vector<std::string>;

// The platform of the process: which functions it offers, and all that happened, in order.
struct Platform {
  bool hasLogger = false;
  bool hasFlag = false;
  bool hasAlloc = false;
  bool hasFree = false;
  uint32_t flag = 0;
  bool allocFails = false;

  void record(std::string event) {
    const std::lock_guard lock(mutex);
    events.push_back(std::move(event));
  }
  Events take() {
    const std::lock_guard lock(mutex);
    return std::exchange(events, {});
  }

 private:
  std::mutex mutex;
  Events events;
};
Platform platform;

std::string block(const void* pointer) { return pointer == nullptr ? "null" : "block"; }

int32_t logWrite(const KorvaLogDescriptor* descriptor, uint32_t level, uint32_t code,
                 const char* file, uint32_t, const char* function, const char* format, ...) {
  char text[256];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  char line[512];
  std::snprintf(line, sizeof line, "log %s %s %x level %u code %u file \"%s\" %s: %s",
                descriptor->module, descriptor->subModule, descriptor->moduleId, level, code, file,
                function, text);
  platform.record(line);
  return -1;  // ignored
}

uint32_t flagGet(uint32_t module) {
  platform.record("flag " + std::to_string(module));
  return platform.flag;
}

void* cacheAlloc(uint32_t size, uint32_t module, const char* caller) {
  platform.record("alloc " + std::to_string(size) + " " + std::to_string(module) + " " + caller);
  return platform.allocFails ? nullptr : std::malloc(size);
}

int32_t cacheFree(void* pointer, uint32_t module, const char* caller) {
  platform.record("free " + block(pointer) + " " + std::to_string(module) + " " + caller);
  std::free(pointer);
  return -1;  // ignored
}

}  // namespace

// What the objects under test call in place of dlsym.
extern "C" void* __wrap_dlsym(void* handle, const char* name) {
  const std::string symbol = name;
  platform.record("dlsym " + symbol + (handle == nullptr ? "" : " by a handle"));
  const auto offer = [](bool has, auto* function) {
    return has ? reinterpret_cast<void*>(function) : nullptr;
  };
  if (symbol == "QSV_OsalLogWrite") return offer(platform.hasLogger, logWrite);
  if (symbol == "QSV_OsalMemUseFlagGet") return offer(platform.hasFlag, flagGet);
  if (symbol == "QSV_OsalMemCacheAlloc") return offer(platform.hasAlloc, cacheAlloc);
  if (symbol == "QSV_OsalMemFree") return offer(platform.hasFree, cacheFree);
  return nullptr;
}

namespace {

// Returns what happened meanwhile.
Events during(const std::function<void()>& action) {
  platform.take();
  action();
  return platform.take();
}

const std::vector<uint8_t>& okReply() {
  static const std::vector<uint8_t> reply =
      Bytes().u32(10).u16s({6, 15, 4}).u32s({6, 4, 2}).text("ok").u8(0);
  return reply;
}

uintptr_t unpackReply(AlarmOutput& record) {
  return Kel_sys_diag_AlarmOutput_unpack(okReply().data(), static_cast<uint32_t>(okReply().size()),
                                         &record);
}

constexpr char kReader[] = "Kel_sys_diag_AlarmOutput_unpack_non_root";
constexpr char kReleaser[] = "Kel_sys_diag_AlarmOutput_free_unpacked";

void usePlatformAllocator() {
  platform.hasFlag = platform.hasAlloc = platform.hasFree = true;
  platform.flag = 1;
}

TEST(MemorySetUp, ChoosesAPairOnce) {
  struct Case {
    const char* what;
    bool hasFlag, hasAlloc, hasFree;
    uint32_t flag;
    Events setUp;
    bool platformServes;
  };
  const std::string flagLookUp = "dlsym QSV_OsalMemUseFlagGet";
  const Events asked = {flagLookUp, "flag 12"};
  const Events askedAndTaken = {flagLookUp, "flag 12", "dlsym QSV_OsalMemCacheAlloc",
                                "dlsym QSV_OsalMemFree"};
  const Case cases[] = {
      {"nothing there", false, false, false, 0, {flagLookUp}, false},
      {"no flag function", false, true, true, 1, {flagLookUp}, false},
      {"flag 0", true, true, true, 0, asked, false},
      {"flag 2", true, true, true, 2, asked, false},
      {"flag 0x101", true, true, true, 0x101, asked, false},
      {"no release", true, true, false, 1, askedAndTaken, false},
      {"no allocator", true, false, true, 1, askedAndTaken, false},
      {"both", true, true, true, 1, askedAndTaken, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    inAProcessOfItsOwn([&] {
      platform.hasFlag = c.hasFlag;
      platform.hasAlloc = c.hasAlloc;
      platform.hasFree = c.hasFree;
      platform.flag = c.flag;
      AlarmOutput record;
      Events expected = c.setUp;
      if (c.platformServes) expected.push_back(std::string("alloc 3 12 ") + kReader);
      EXPECT_EQ(during([&] { EXPECT_NE(unpackReply(record), 0U); }), expected);
      EXPECT_STREQ(record.text, "ok");

      // A platform that changes its mind comes too late.
      platform.hasFlag = platform.hasAlloc = platform.hasFree = true;
      platform.flag = 1 - c.flag;
      const Events released =
          c.platformServes ? Events{std::string("free block 12 ") + kReleaser} : Events{};
      EXPECT_EQ(during([&] { Kel_sys_diag_AlarmOutput_free_unpacked(&record); }), released);
    });
  }
}

// Every entry point that may run first, and whether it sets up memory.
TEST(MemorySetUp, RunsWhereMemoryOrABufferIsUsed) {
  static uint8_t buffer[256];
  static const uint32_t capacity = sizeof buffer;
  static const uint32_t tooSmall = 65;
  static const PackTarget target{buffer, &capacity};
  static const PackTarget shortTarget{buffer, &tooSmall};
  static const AlarmInput alarm{};
  static const OverloadAlarmInput overload{};
  struct Case {
    const char* what;
    std::function<void()> action;
    bool setsUp;
  };
  const Case cases[] = {
      {"pack pass", [] { Kel_sys_diag_AlarmInput_pack(&target, &alarm); }, true},
      {"size pass", [] { Kel_sys_diag_AlarmInput_pack(nullptr, &alarm); }, false},
      {"size pass of null", [] { Kel_sys_diag_AlarmInput_pack(nullptr, nullptr); }, false},
      {"refused pack pass", [] { Kel_sys_diag_AlarmInput_pack(&shortTarget, &alarm); }, false},
      {"fixed layout", [] { Kel_sys_diag_OverloadAlarmInput_fixed_pack(buffer, &overload); }, true},
      {"fixed size", [] { Kel_sys_diag_OverloadAlarmInput_fixed_size(); }, false},
      {"unpack",
       [] {
         OvLoadDiskCtlOutput record;
         Kel_sys_diag_OvLoadDiskCtlOutput_unpack(okReply().data(), 16, &record);
       },
       true},
      {"refused unpack",
       [] { Kel_sys_diag_OvLoadDiskCtlOutput_unpack(okReply().data(), 16, nullptr); }, false},
      {"release", [] { Kel_sys_diag_AlarmOutput_free_unpacked(nullptr); }, true},
      {"empty release",
       [] {
         Kel_sys_diag_OvLoadDiskCtlOutput_free_unpacked(nullptr);
         Kel_sys_diag_OvLoadDiskCtlOutput_free_unpacked(buffer);
       },
       false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    inAProcessOfItsOwn([&] {
      int setUps = 0;
      for (const std::string& event : during(c.action)) {
        setUps += event == "dlsym QSV_OsalMemUseFlagGet" ? 1 : 0;
      }
      EXPECT_EQ(setUps, c.setsUp ? 1 : 0);
    });
  }
}

TEST(Units, ChooseApart) {
  inAProcessOfItsOwn([] {
    AlarmOutput output;
    AlarmInput input{};
    EXPECT_NE(unpackReply(output), 0U);  // the client unit finds nothing
    usePlatformAllocator();
    const std::vector<uint8_t> request =
        Bytes().u32(14).u16s({10, 0, 0, 0, 4}).u32s({10, 4, 1}).text("x");
    EXPECT_EQ(
        during([&] {
          EXPECT_NE(Kel_sys_diag_AlarmInput_unpack(request.data(),
                                                   static_cast<uint32_t>(request.size()), &input),
                    0U);
        }),
        (Events{"dlsym QSV_OsalMemUseFlagGet", "flag 12", "dlsym QSV_OsalMemCacheAlloc",
                "dlsym QSV_OsalMemFree", "alloc 2 12 Kel_sys_diag_AlarmInput_unpack_non_root"}));
    EXPECT_EQ(during([&] { Kel_sys_diag_AlarmInput_free_unpacked(&input); }),
              Events{"free block 12 Kel_sys_diag_AlarmInput_free_unpacked"});
    EXPECT_EQ(during([&] { Kel_sys_diag_AlarmOutput_free_unpacked(&output); }), Events{});
  });
}

TEST(Release, HandsOverNullAndClearsThePointer) {
  inAProcessOfItsOwn([] {
    usePlatformAllocator();
    AlarmOutput record;
    EXPECT_NE(unpackReply(record), 0U);
    const std::string freed = " 12 " + std::string(kReleaser);
    EXPECT_EQ(during([&] { Kel_sys_diag_AlarmOutput_free_unpacked(&record); }),
              Events{"free block" + freed});
    EXPECT_EQ(record.text, nullptr);
    EXPECT_EQ(during([&] { Kel_sys_diag_AlarmOutput_free_unpacked(&record); }),
              Events{"free null" + freed});
    EXPECT_EQ(during([&] { Kel_sys_diag_AlarmOutput_free_unpacked(nullptr); }), Events{});
  });
}

// Failures: what is logged, what is released, and that without a logger nothing else changes.
struct Failure {
  const char* what;
  std::function<uint64_t()> action;  // 0: failed
  Events expected;                   // without the set-ups' look-ups
};

template <uintptr_t (*Unpack)(const void*, uint32_t, void*)>
std::function<uint64_t()> unpacks(std::vector<uint8_t> bytes, uint32_t length) {
  return [bytes = std::move(bytes), length] {
    alignas(8) uint8_t record[256];
    return Unpack(bytes.data(), length, record);
  };
}

std::string logLine(int code, const std::string& function, const std::string& text) {
  return "log KORVA KORVA_TEMBRIX_SERIAL 6200 level 2 code " + std::to_string(code) +
         " file \"\" " + function + ": [KORVA]:" + text;
}

std::vector<uint8_t> header(uint32_t root, uint16_t vtableLength, uint32_t displacement) {
  return Bytes().u32(root).u16s({vtableLength, 0, 0}).u32(displacement).u32(0);
}

std::vector<Failure> everyFailure() {
  static uint8_t buffer[256];
  static const uint32_t capacities[] = {0, 3, 4, 65, 66, 155};
  static const AlarmInput alarm{};
  static const OvLoadDiskCtlInput config{};
  static AlarmOutput output;
  constexpr auto alarmPack = "Kel_sys_diag_AlarmInput_pack";
  constexpr auto alarmUnpack = "Kel_sys_diag_AlarmOutput_unpack";
  constexpr auto configUnpack = "Kel_sys_diag_OvLoadDiskCtlOutput_unpack";
  const std::string freedNull = std::string("free null 12 ") + kReleaser;
  const auto packs = [](uint8_t* to, const uint32_t* capacity, const AlarmInput* record) {
    return [=]() -> uint64_t {
      const PackTarget target{to, capacity};
      return Kel_sys_diag_AlarmInput_pack(&target, record);
    };
  };
  const auto unpacksAlarm = unpacks<Kel_sys_diag_AlarmOutput_unpack>;
  const auto unpacksConfig = unpacks<Kel_sys_diag_OvLoadDiskCtlOutput_unpack>;
  return {
      {"no buffer",
       packs(nullptr, &capacities[4], &alarm),
       {logLine(22, alarmPack, "Param invalid(null, 66, nonNull)")}},
      {"no record",
       packs(buffer, &capacities[4], nullptr),
       {logLine(22, alarmPack, "Param invalid(nonNull, 66, null)")}},
      {"neither, and no room",
       packs(nullptr, &capacities[0], nullptr),
       {logLine(22, alarmPack, "Param invalid(null, 0, null)")}},
      {"capacity 3",
       packs(buffer, &capacities[1], &alarm),
       {logLine(22, alarmPack, "Param invalid(nonNull, 3, nonNull)")}},
      {"capacity 4, below the size",
       packs(buffer, &capacities[2], &alarm),
       {logLine(22, alarmPack, "Param invalid(nonNull, 4, nonNull)")}},
      {"a byte short",
       packs(buffer, &capacities[3], &alarm),
       {logLine(22, alarmPack, "Param invalid(nonNull, 65, nonNull)")}},
      {"a byte short of a constant size",
       []() -> uint64_t {
         const PackTarget target{buffer, &capacities[5]};
         return Kel_sys_diag_OvLoadDiskCtlInput_pack(&target, &config);
       },
       {logLine(22, "Kel_sys_diag_OvLoadDiskCtlInput_pack",
                "Param invalid(nonNull, 155, nonNull)")}},
      {"size pass of null",
       []() -> uint64_t { return Kel_sys_diag_AlarmInput_pack(nullptr, nullptr); },
       {}},
      {"no bytes",
       [] { return Kel_sys_diag_AlarmOutput_unpack(nullptr, 25, &output); },
       {logLine(22, alarmUnpack, "Param invalid(null, 25, nonNull)")}},
      {"no record to fill",
       [] { return Kel_sys_diag_AlarmOutput_unpack(okReply().data(), 25, nullptr); },
       {logLine(22, alarmUnpack, "Param invalid(nonNull, 25, null)")}},
      {"length 3",
       unpacksAlarm(okReply(), 3),
       {logLine(22, alarmUnpack, "Param invalid(nonNull, 3, nonNull)")}},
      {"length 2^31",
       unpacksConfig(okReply(), 0x80000000),
       {logLine(22, configUnpack, "Param invalid(nonNull, -2147483648, nonNull)")}},
      {"length 2^32 - 1",
       unpacksAlarm(okReply(), 0xFFFFFFFF),
       {logLine(22, alarmUnpack, "Param invalid(nonNull, -1, nonNull)")}},
      {"a root offset of 3",
       unpacksConfig(header(3, 6, 6), 18),
       {logLine(22, configUnpack, "Table offset(3) is out of range(4 - 18)")}},
      {"a root offset too far",
       unpacksAlarm(header(15, 6, 6), 18),
       {logLine(22, kReader, "Table offset(15) is out of range(4 - 18)"), freedNull}},
      {"a vtable too early",
       unpacksConfig(header(10, 6, 7), 18),
       {logLine(22, configUnpack, "Vtable offset(3) is out of range(4 - 14)")}},
      {"a vtable too far",
       unpacksAlarm(header(10, 6, 10 - 15U), 18),
       {logLine(22, kReader, "Vtable offset(15) is out of range(4 - 14)"), freedNull}},
      {"a vtable before the message",
       unpacksAlarm(header(10, 6, 11), 18),
       {logLine(22, kReader, "Vtable offset(4294967295) is out of range(4 - 14)"), freedNull}},
      {"a vtable too long",
       unpacksConfig(header(10, 15, 6), 18),
       {logLine(22, configUnpack, "Vtable Len(15) is out of range(0 - 14)")}},
      {"the longest vtable",
       unpacksAlarm(header(10, 0xFFFF, 6), 18),
       {logLine(22, kReader, "Vtable Len(65535) is out of range(0 - 14)"), freedNull}},
      {"a string past the end", unpacksAlarm(okReply(), 23), {freedNull}},
      {"a field past the end",
       unpacksConfig(Bytes().u32(10).u16s({6, 0, 5}).u32(6).u32(0), 18),
       {}},
  };
}

bool isLookUp(const std::string& event) {
  return event.starts_with("dlsym") || event.starts_with("flag");
}

TEST(Failures, LogAndReleaseInOrder) {
  for (const Failure& failure : everyFailure()) {
    SCOPED_TRACE(failure.what);
    for (const bool hasLogger : {true, false}) {
      inAProcessOfItsOwn([&] {
        usePlatformAllocator();
        platform.hasLogger = hasLogger;
        Events expected = failure.expected;
        const bool logs = std::erase_if(expected,
                                        [&](const std::string& event) {
                                          return !hasLogger && event.starts_with("log");
                                        }) != 0 ||
                          (hasLogger && !expected.empty() && expected[0].starts_with("log"));
        Events happened = during([&] { EXPECT_EQ(failure.action(), 0U); });
        EXPECT_EQ(std::erase(happened, "dlsym QSV_OsalLogWrite"), logs ? 1U : 0U);
        std::erase_if(happened, isLookUp);
        EXPECT_EQ(happened, expected);

        // Again: the same, and no look-up any more; a logger that appears by now stays unused.
        platform.hasLogger = true;
        happened = during([&] { EXPECT_EQ(failure.action(), 0U); });
        EXPECT_EQ(happened, expected);
      });
    }
  }
}

TEST(Failures, FailedAllocation) {
  inAProcessOfItsOwn([] {
    usePlatformAllocator();
    platform.hasLogger = true;
    platform.allocFails = true;
    AlarmOutput record;
    Events happened = during([&] { EXPECT_EQ(unpackReply(record), 0U); });
    std::erase_if(happened, isLookUp);
    EXPECT_EQ(happened,
              (Events{std::string("alloc 3 12 ") + kReader,
                      logLine(12, kReader, "Malloc unpack data unsuccess,                size(3)"),
                      std::string("free null 12 ") + kReleaser}));
    EXPECT_EQ(record.text, nullptr);
  });
}

// A string that was unpacked before a later field failed goes back.
TEST(Failures, LaterFieldGivesTheStringBack) {
  inAProcessOfItsOwn([] {
    usePlatformAllocator();
    // text at 34; bytes32's offset field points past the end.
    const std::vector<uint8_t> request =
        Bytes().u32(22).u16s({18, 0, 0, 0, 4, 0, 0, 8, 0}).u32s({18, 8, 100, 2}).text("ab").u8(0);
    AlarmInput record;
    Events happened = during([&] {
      EXPECT_EQ(Kel_sys_diag_AlarmInput_unpack(request.data(),
                                               static_cast<uint32_t>(request.size()), &record),
                0U);
    });
    std::erase_if(happened, isLookUp);
    EXPECT_EQ(happened, (Events{"alloc 3 12 Kel_sys_diag_AlarmInput_unpack_non_root",
                                "free block 12 Kel_sys_diag_AlarmInput_free_unpacked"}));
    EXPECT_EQ(record.text, nullptr);
  });
}

// Sixteen threads whose first call meets: one set-up a unit, and each sees its outcome.
TEST(Concurrency, FirstCallsSetUpOnce) {
  for (int round = 0; round < 20; ++round) {
    inAProcessOfItsOwn([] {
      usePlatformAllocator();
      platform.hasLogger = true;
      constexpr int kThreads = 16;
      std::barrier start(kThreads);
      std::vector<std::thread> threads;
      for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&start] {
          start.arrive_and_wait();
          AlarmOutput record;
          EXPECT_NE(unpackReply(record), 0U);
          Kel_sys_diag_AlarmOutput_free_unpacked(&record);
          EXPECT_EQ(Kel_sys_diag_AlarmOutput_unpack(okReply().data(), 3, &record), 0U);
          OvLoadDiskCtlInput request;
          EXPECT_EQ(Kel_sys_diag_OvLoadDiskCtlInput_unpack(okReply().data(), 25, &request), 0U);
          EXPECT_EQ(Kel_sys_diag_OvLoadDiskCtlInput_unpack(nullptr, 25, &request), 0U);
        });
      }
      for (std::thread& thread : threads) thread.join();
      std::map<std::string, int> counts;
      for (const std::string& event : platform.take())
        ++counts[event.substr(0, event.find(' ', 6))];
      const std::map<std::string, int> expected = {
          {"dlsym QSV_OsalMemUseFlagGet", 2}, {"flag 12", 2},
          {"dlsym QSV_OsalMemCacheAlloc", 2}, {"dlsym QSV_OsalMemFree", 2},
          {"dlsym QSV_OsalLogWrite", 2},      {"alloc 3", kThreads},
          {"free block", kThreads},           {"log KORVA", 2 * kThreads},
      };
      EXPECT_EQ(counts, expected);
    });
  }
}

}  // namespace
