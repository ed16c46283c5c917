// The codecs' dealings with the host's OS layer: what is looked up and when, which allocator
// serves, what is logged and in which order. Each scenario has a process of its own, since a unit
// chooses its hooks once. The program holds the client and the peer unit's objects, where all
// routines that allocate are. It stands in for dlsym, malloc and free, so that it decides which
// platform functions exist and sees every look-up and every block.
#include <gtest/gtest.h>
#include <kel_sys_diag/osal.h>
#include <kel_sys_diag/peer.h>

#include <algorithm>
#include <barrier>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "schema/client_routines.hpp"
#include "tests/support/bytes.hpp"
#include "tests/support/own_process.hpp"

extern "C" void* __real_malloc(size_t size);
extern "C" void __real_free(void* block);
extern "C" void* __real_dlsym(void* handle, const char* name);

namespace {

using namespace kel::test;
using Events = std::vector<std::string>;

const std::string kLog = "QSV_OsalLogWrite";
const std::string kFlag = "QSV_OsalMemUseFlagGet";
const std::string kAlloc = "QSV_OsalMemCacheAlloc";
const std::string kFree = "QSV_OsalMemFree";

// The platform of the process: which functions it offers, and all that happened, in order.
struct Platform {
  std::set<std::string> offered;
  uint32_t flag = 0;
  bool allocFails = false;
  bool isWatched = false;  // else what is called is none of its business
  std::chrono::milliseconds lookUpTakes{0};
  std::function<void()> next;  // done by the hook that is called next

  void* allocate(size_t size, const std::string& how, const std::string& forWhom = "") {
    record(how + std::to_string(size) + forWhom);
    doNext();
    return allocFails ? nullptr : __real_malloc(size);
  }
  void free(void* block, const std::string& forWhom = "") {
    record((block == nullptr ? "free null" : "free block") + forWhom);
    doNext();
    __real_free(block);
  }
  void record(std::string event) {
    const std::lock_guard lock(mutex);
    events.push_back(std::move(event));
  }
  void doNext() {
    if (const auto action = std::exchange(next, nullptr)) action();
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
  platform.doNext();
  return -1;  // ignored
}

uint32_t flagGet(uint32_t module) {
  platform.record("flag " + std::to_string(module));
  return platform.flag;
}

std::string forWhom(uint32_t module, const char* caller) {
  return std::string(" ") + std::to_string(module) + " " + caller;
}
void* cacheAlloc(uint32_t size, uint32_t module, const char* caller) {
  return platform.allocate(size, "alloc ", forWhom(module, caller));
}
int32_t cacheFree(void* block, uint32_t module, const char* caller) {
  platform.free(block, forWhom(module, caller));
  return -1;  // ignored
}

void* lookUp(void* handle, const char* name) {
  const std::string symbol = name;
  platform.record("dlsym " + symbol + (handle == nullptr ? "" : " by a handle"));
  std::this_thread::sleep_for(platform.lookUpTakes);
  if (!platform.offered.contains(symbol)) return nullptr;
  if (symbol == kLog) return reinterpret_cast<void*>(logWrite);
  if (symbol == kFlag) return reinterpret_cast<void*>(flagGet);
  if (symbol == kAlloc) return reinterpret_cast<void*>(cacheAlloc);
  return reinterpret_cast<void*>(cacheFree);
}

}  // namespace

// What the objects under test call in place of malloc, free and dlsym.
extern "C" void* __wrap_malloc(size_t size) {
  return platform.isWatched ? platform.allocate(size, "malloc ") : __real_malloc(size);
}
extern "C" void __wrap_free(void* block) {
  platform.isWatched ? platform.free(block) : __real_free(block);
}
// AddressSanitizer calls this one before it can check anything.
extern "C" [[gnu::no_sanitize_address]] void* __wrap_dlsym(void* handle, const char* name) {
  return platform.isWatched ? lookUp(handle, name) : __real_dlsym(handle, name);
}

namespace {

// Returns what happened meanwhile.
Events during(const std::function<void()>& action) {
  platform.take();
  platform.isWatched = true;
  action();
  platform.isWatched = false;
  return platform.take();
}

const Buffer kReply =  // 25 bytes
    layout(u32(10), u16(6, 15, 4), u32(6, 4, 2), chars("ok"), u8(0));

// A call for later. Returns 0 when it failed.
using Action = std::function<uint64_t()>;

template <auto Pack>
Action packs(uint8_t* to, uint32_t capacity, const void* record) {
  return [=] {
    const PackTarget target{to, &capacity};
    return Pack(&target, record);
  };
}
template <auto Unpack, class Record>
Action unpacks(Buffer bytes, uint32_t length) {
  return [bytes = std::move(bytes), length] {
    Record record;
    std::memset(&record, 0xDD, sizeof record);
    const uintptr_t result = Unpack(bytes.data(), length, &record);
    if (length < 4 || length > INT32_MAX) {
      EXPECT_EQ(bytesOf(record), Buffer(sizeof record, 0xDD)) << "not left as it was";
    }
    return result;
  };
}
const auto packsAlarm = packs<Kel_sys_diag_AlarmInput_pack>;
const auto packsConfig = packs<Kel_sys_diag_OvLoadDiskCtlInput_pack>;
const auto unpacksAlarm = unpacks<Kel_sys_diag_AlarmOutput_unpack, AlarmOutput>;
const auto unpacksRequest = unpacks<Kel_sys_diag_AlarmInput_unpack, AlarmInput>;
const auto unpacksConfig = unpacks<Kel_sys_diag_OvLoadDiskCtlOutput_unpack, OvLoadDiskCtlOutput>;

uintptr_t unpackReply(AlarmOutput& record) {
  return Kel_sys_diag_AlarmOutput_unpack(kReply.data(), 25, &record);
}

const std::string kReader = "Kel_sys_diag_AlarmOutput_unpack_non_root";
const std::string kReleaser = "Kel_sys_diag_AlarmOutput_free_unpacked";
const std::string kFlagLookUp = "dlsym " + kFlag;
const Events kPairLookUp = {kFlagLookUp, "flag 12", "dlsym " + kAlloc, "dlsym " + kFree};

bool isSetUp(const std::string& event) {
  return event == "dlsym " + kLog || std::ranges::count(kPairLookUp, event) != 0;
}

void usePlatformAllocator() {
  platform.offered = {kFlag, kAlloc, kFree};
  platform.flag = 1;
}

TEST(MemorySetUp, ChoosesAPairOnce) {
  struct Case {
    const char* what;
    std::set<std::string> offered;
    uint32_t flag;
    Events setUp;
  };
  const Events unasked = {kFlagLookUp};
  const Events asked = {kFlagLookUp, "flag 12"};
  const Case cases[] = {
      {"nothing there", {}, 0, unasked},
      {"no flag function", {kAlloc, kFree}, 1, unasked},
      {"flag 0", {kFlag, kAlloc, kFree}, 0, asked},
      {"flag 2", {kFlag, kAlloc, kFree}, 2, asked},
      {"flag 0x10001", {kFlag, kAlloc, kFree}, 0x10001, asked},
      {"no release", {kFlag, kAlloc}, 1, kPairLookUp},
      {"no allocator", {kFlag, kFree}, 1, kPairLookUp},
      {"both", {kFlag, kAlloc, kFree}, 1, kPairLookUp},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    inAProcessOfItsOwn([&] {
      const bool platformServes = c.offered.size() == 3 && c.flag == 1;
      platform.offered = c.offered;
      platform.flag = c.flag;
      AlarmOutput record;
      Events expected = c.setUp;
      expected.push_back(platformServes ? "alloc 3 12 " + kReader : "malloc 3");
      EXPECT_EQ(during([&] { EXPECT_NE(unpackReply(record), 0U); }), expected);
      EXPECT_STREQ(record.text, "ok");

      // A platform that changes its mind comes too late.
      usePlatformAllocator();
      platform.flag = 1 - c.flag;
      EXPECT_EQ(during([&] { Kel_sys_diag_AlarmOutput_free_unpacked(&record); }),
                Events{platformServes ? "free block 12 " + kReleaser : "free block"});
    });
  }
}

// Every entry point that may run first, and whether it sets up memory.
TEST(MemorySetUp, RunsWhereMemoryOrABufferIsUsed) {
  static uint8_t buffer[256];
  static constexpr OverloadAlarmInput kOverload{};
  const AlarmInput alarm{};
  struct Case {
    const char* what;
    Action action;
    bool setsUp;
  };
  const auto released = [](auto release, void* record) {
    return [=] { return release(record), 0; };
  };
  const Case cases[] = {
      {"pack pass", packsAlarm(buffer, 256, &alarm), true},
      {"refused pack pass", packsAlarm(buffer, 3, &alarm), false},
      {"size pass", [&] { return Kel_sys_diag_AlarmInput_pack(nullptr, &alarm); }, false},
      {"size pass of null", [] { return Kel_sys_diag_AlarmInput_pack(nullptr, nullptr); }, false},
      {"fixed layout",
       [] { return Kel_sys_diag_OverloadAlarmInput_fixed_pack(buffer, &kOverload); }, true},
      {"fixed size", Kel_sys_diag_OverloadAlarmInput_fixed_size, false},
      {"unpack", unpacksConfig(kReply, 16), true},
      {"refused unpack", unpacksConfig(kReply, 3), false},
      {"refused header", unpacksConfig(Buffer(18), 18), false},
      {"release", released(Kel_sys_diag_AlarmOutput_free_unpacked, nullptr), true},
      {"release of what owns nothing",
       released(Kel_sys_diag_OvLoadDiskCtlOutput_free_unpacked, buffer), false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    inAProcessOfItsOwn([&] {
      Events happened = during(c.action);
      std::erase(happened, "dlsym " + kLog);
      EXPECT_EQ(happened, c.setsUp ? Events{kFlagLookUp} : Events{});
    });
  }
}

TEST(Units, ChooseApart) {
  inAProcessOfItsOwn([] {
    AlarmOutput output;
    AlarmInput input;
    EXPECT_NE(unpackReply(output), 0U);  // the client unit finds nothing
    usePlatformAllocator();
    const Buffer request = layout(u32(14), u16(10, 0, 0, 0, 4), u32(10, 4, 1), chars("x"));
    Events expected = kPairLookUp;
    expected.emplace_back("alloc 2 12 Kel_sys_diag_AlarmInput_unpack_non_root");
    EXPECT_EQ(during([&] { Kel_sys_diag_AlarmInput_unpack(request.data(), 27, &input); }),
              expected);
    EXPECT_EQ(during([&] { Kel_sys_diag_AlarmInput_free_unpacked(&input); }),
              Events{"free block 12 Kel_sys_diag_AlarmInput_free_unpacked"});
    EXPECT_EQ(during([&] { Kel_sys_diag_AlarmOutput_free_unpacked(&output); }),
              Events{"free block"});
  });
}

// Set-ups that begin in a hook would wait for good if the one that called it held their mutex.
TEST(Hooks, MayCallCodecs) {
  const auto unpackAndRelease = [] {
    AlarmOutput record;
    EXPECT_NE(unpackReply(record), 0U);
    Kel_sys_diag_AlarmOutput_free_unpacked(&record);
  };
  const auto refuse = [] { EXPECT_EQ(packsAlarm(nullptr, 66, nullptr)(), 0U); };
  const auto refuseWhenReleasing = [&] { platform.next = refuse; };
  const std::pair<std::function<void()>, std::function<void()>> cases[] = {
      {refuse, unpackAndRelease},
      {unpackAndRelease, refuse},
      {unpackAndRelease, refuseWhenReleasing}};
  for (const auto& [outer, inner] : cases) {
    inAProcessOfItsOwn([&] {
      usePlatformAllocator();
      platform.offered.insert(kLog);
      platform.next = inner;
      alarm(20);
      const Events happened = during(outer);
      EXPECT_EQ(std::ranges::count_if(happened, isSetUp), 5) << "not each set-up once";
      EXPECT_EQ(happened.size(), 5U + 3U) << "a line, a block taken and given back";
    });
  }
}

// Failures: what is logged, what is released, and that without a logger nothing else changes. What
// the set-ups look up is not among the expected events.
void failAgainAndAgain(bool hasLogger, const Action& action, Events expected) {
  const auto isLog = [](const std::string& event) { return event.starts_with("log"); };
  if (hasLogger) platform.offered.insert(kLog);
  const size_t lookUps = std::ranges::any_of(expected, isLog) ? 1 : 0;
  if (!hasLogger) std::erase_if(expected, isLog);
  Events happened = during([&] { EXPECT_EQ(action(), 0U); });
  EXPECT_EQ(std::erase(happened, "dlsym " + kLog), lookUps);
  std::erase_if(happened, isSetUp);
  EXPECT_EQ(happened, expected);

  // Again: the same, and no look-up any more; a logger that appears by now stays unused.
  platform.offered.insert(kLog);
  EXPECT_EQ(during([&] { EXPECT_EQ(action(), 0U); }), expected);

  // And once memory is set up, whatever the failure.
  Kel_sys_diag_AlarmOutput_free_unpacked(nullptr);
  EXPECT_EQ(during([&] { EXPECT_EQ(action(), 0U); }), expected);
}

void expectFailure(const std::string& what, const Action& action, const Events& expected) {
  SCOPED_TRACE(what);
  for (const bool hasLogger : {true, false}) {
    inAProcessOfItsOwn([&] {
      usePlatformAllocator();
      failAgainAndAgain(hasLogger, action, expected);
    });
  }
}

std::string logLine(int code, const std::string& function, const std::string& text) {
  return "log KORVA KORVA_TEMBRIX_SERIAL 6200 level 2 code " + std::to_string(code) +
         " file \"\" " + function + ": [KORVA]:" + text;
}

TEST(Failures, OfArguments) {
  static uint8_t buffer[256];
  static AlarmOutput output;
  const AlarmInput alarm{};
  AlarmInput unread{};
  unread.text = reinterpret_cast<const char*>(uintptr_t{16});
  const OvLoadDiskCtlInput config{};
  const struct {
    const char* function;
    const char* arguments;
    Action action;
  } cases[] = {
      {"AlarmInput_pack", "null, 66, nonNull", packsAlarm(nullptr, 66, &alarm)},
      {"AlarmInput_pack", "nonNull, 66, null", packsAlarm(buffer, 66, nullptr)},
      {"AlarmInput_pack", "nonNull, 4294967295, null", packsAlarm(buffer, UINT32_MAX, nullptr)},
      {"AlarmInput_pack", "null, 0, null", packsAlarm(nullptr, 0, nullptr)},
      {"AlarmInput_pack", "nonNull, 3, nonNull", packsAlarm(buffer, 3, &unread)},
      {"AlarmInput_pack", "nonNull, 4, nonNull", packsAlarm(buffer, 4, &alarm)},
      {"AlarmInput_pack", "nonNull, 65, nonNull", packsAlarm(buffer, 65, &alarm)},
      {"OvLoadDiskCtlInput_pack", "nonNull, 155, nonNull", packsConfig(buffer, 155, &config)},
      {"OverloadAlarmInput_pack", "nonNull, 3, nonNull",
       packs<Kel_sys_diag_OverloadAlarmInput_pack>(buffer, 3, &alarm)},
      {"OverloadDiskAlarmInput_pack", "nonNull, 3, nonNull",
       packs<Kel_sys_diag_OverloadDiskAlarmInput_pack>(buffer, 3, &alarm)},
      {"AlarmOutput_unpack", "null, 25, nonNull",
       [] { return Kel_sys_diag_AlarmOutput_unpack(nullptr, 25, &output); }},
      {"AlarmOutput_unpack", "nonNull, 25, null",
       [] { return Kel_sys_diag_AlarmOutput_unpack(buffer, 25, nullptr); }},
      {"AlarmOutput_unpack", "nonNull, 3, nonNull", unpacksAlarm(kReply, 3)},
      {"AlarmOutput_unpack", "nonNull, -1, nonNull", unpacksAlarm(kReply, 0xFFFFFFFF)},
      {"OvLoadDiskCtlOutput_unpack", "nonNull, -2147483648, nonNull",
       unpacksConfig(kReply, 0x80000000)},
  };
  for (const auto& [function, arguments, action] : cases) {
    const std::string text = "Param invalid(" + std::string(arguments) + ")";
    expectFailure(text, action, {logLine(22, "Kel_sys_diag_" + std::string(function), text)});
  }
}

// As a message that owns memory reports them, and one that does not.
TEST(Failures, OfRootHeaders) {
  const struct {
    uint32_t root;
    uint16_t vtableLength;
    uint32_t displacement;
    const char* text;
  } cases[] = {
      {3, 6, 6, "Table offset(3) is out of range(4 - 18)"},
      {0xFFFFFFFF, 6, 6, "Table offset(4294967295) is out of range(4 - 18)"},
      {15, 6, 6, "Table offset(15) is out of range(4 - 18)"},
      {10, 6, 7, "Vtable offset(3) is out of range(4 - 14)"},
      {10, 6, 10 - 15U, "Vtable offset(15) is out of range(4 - 14)"},
      {10, 6, 11, "Vtable offset(4294967295) is out of range(4 - 14)"},
      {10, 15, 6, "Vtable Len(15) is out of range(0 - 14)"},
      {10, 0xFFFF, 6, "Vtable Len(65535) is out of range(0 - 14)"},
  };
  for (const auto& [root, vtableLength, displacement, text] : cases) {
    const Buffer bytes = layout(u32(root), u16(vtableLength, 0, 0), u32(displacement, 0));
    expectFailure(text, unpacksConfig(bytes, 18),
                  {logLine(22, "Kel_sys_diag_OvLoadDiskCtlOutput_unpack", text)});
    expectFailure(text, unpacksAlarm(bytes, 18),
                  {logLine(22, kReader, text), "free null 12 " + kReleaser});
  }
}

TEST(Failures, ReleaseInOrder) {
  expectFailure("size of null", [] { return Kel_sys_diag_AlarmInput_pack(nullptr, nullptr); }, {});
  expectFailure("a string past the end", unpacksAlarm(kReply, 23), {"free null 12 " + kReleaser});
  expectFailure("a field past the end", unpacksConfig(layout(u32(10), u16(6, 0, 5), u32(6, 0)), 18),
                {});
  const std::string list = "Kel_sys_diag_StorageEraseInfo";
  expectFailure(
      "an element past the end",
      unpacks<Kel_sys_diag_StorageEraseInfo_unpack, StorageEraseInfo>(
          layout(u32(10), u16(6, 12, 4), u32(6, 4, 1, 100)), 26),
      {"alloc 16 12 " + list + "_unpack_non_root", "free block 12 " + list + "_free_unpacked"});
  expectFailure("a nested table past the end",
                unpacks<Kel_sys_diag_OverloadAlarmInput_unpack, OverloadAlarmInput>(
                    layout(u32(18), u16(14, 8, 0, 0, 0, 0, 4), u32(14, 4, 100)), 30),
                {});
  // Its text at 34; its byte array's offset field points past the end.
  const Buffer request =
      layout(u32(22), u16(18, 0, 0, 0, 4, 0, 0, 8, 0), u32(18, 8, 100, 2), chars("ab"), u8(0));
  expectFailure("a later field than the string", unpacksRequest(request, 41),
                {"alloc 3 12 Kel_sys_diag_AlarmInput_unpack_non_root",
                 "free block 12 Kel_sys_diag_AlarmInput_free_unpacked"});
}

// The routines of a message, bytes of it that take a block, and how large that one is.
struct Owner {
  std::string name;
  uintptr_t (*unpack)(const void*, uint32_t, void*);
  void (*release)(void*);
  Buffer bytes;
  size_t size;
};

#define KEL_OWNER(message, bytes, size)                                                            \
  Owner {                                                                                          \
    "Kel_sys_diag_" #message,                                                                      \
        [](const void* received, uint32_t length, void* record) {                                  \
          return Kel_sys_diag_##message##_unpack(received, length, static_cast<message*>(record)); \
        },                                                                                         \
        [](void* record) {                                                                         \
          Kel_sys_diag_##message##_free_unpacked(static_cast<message*>(record));                   \
        },                                                                                         \
        bytes, size                                                                                \
  }

// Refuses the block, then grants it. A release with nothing to do hands over a null text, but no
// null array.
void refuseThenServe(const Owner& owner, bool platformServes) {
  const std::string reader = owner.name + "_unpack_non_root";
  const std::string size = std::to_string(owner.size);
  const std::string asked = platformServes ? "alloc " + size + " 12 " + reader : "malloc " + size;
  const std::string releaser = platformServes ? " 12 " + owner.name + "_free_unpacked" : "";
  const Events givenUp = owner.size == 3 ? Events{"free null" + releaser} : Events{};
  Events refused = {
      asked,
      logLine(12, reader, "Malloc unpack data unsuccess,                size(" + size + ")")};
  refused.insert(refused.end(), givenUp.begin(), givenUp.end());
  alignas(8) uint8_t record[64];
  for (const bool refuses : {true, false}) {
    platform.allocFails = refuses;
    std::memset(record, 0xDD, sizeof record);
    uintptr_t result = 0;
    Events happened = during([&] {
      result = owner.unpack(owner.bytes.data(), static_cast<uint32_t>(owner.bytes.size()), record);
    });
    std::erase_if(happened, isSetUp);
    EXPECT_EQ(result == 0, refuses);
    EXPECT_EQ(happened, refuses ? refused : Events{asked});
    platform.next = [&record, unpacked = bytesOf(record)] {
      EXPECT_EQ(bytesOf(record), unpacked) << "cleared before the block is given back";
    };
    EXPECT_EQ(during([&] { owner.release(record); }),
              refuses ? givenUp : Events{"free block" + releaser});
    platform.next = nullptr;
    EXPECT_EQ(during([&] { owner.release(record); }), givenUp);
    EXPECT_EQ(during([&] { owner.release(nullptr); }), Events{});
  }
}

TEST(AllocationFailure, UnderEitherPair) {
  const Buffer request = layout(u32(14), u16(10, 8, 0, 0, 4), u32(10, 4, 2), chars("ok"));
  const Buffer list = layout(u32(10), u16(6, 8, 4), u32(6, 4, 1, 8), u16(4, 4), u32(4));
  for (const Owner& owner :
       {KEL_OWNER(AlarmOutput, kReply, 3), KEL_OWNER(AlarmInput, request, 3),
        KEL_OWNER(BrdPartInfo, list, 232), KEL_OWNER(FdProcInfoOutput, list, 300),
        KEL_OWNER(StorageEraseInfo, list, 16), KEL_OWNER(StorageBadBlockInfo, list, 40)}) {
    SCOPED_TRACE(owner.name);
    for (const bool platformServes : {true, false}) {
      inAProcessOfItsOwn([&] {
        if (platformServes) usePlatformAllocator();
        platform.offered.insert(kLog);
        refuseThenServe(owner, platformServes);
      });
    }
  }
}

// Sixteen threads whose first call meets: one set-up a unit, and each sees its outcome. In every
// other round the set-ups take so long that the threads wait for one another; in the rest, some
// come when all is done.
TEST(Concurrency, FirstCallsSetUpOnce) {
  for (int round = 0; round < 20; ++round) {
    inAProcessOfItsOwn([round] {
      platform.lookUpTakes = std::chrono::milliseconds(round % 2 == 0 ? 2 : 0);
      usePlatformAllocator();
      platform.offered.insert(kLog);
      constexpr int kThreads = 16;
      std::barrier start(kThreads);
      const auto firstCalls = [&start] {
        start.arrive_and_wait();
        AlarmOutput record;
        EXPECT_NE(unpackReply(record), 0U);
        Kel_sys_diag_AlarmOutput_free_unpacked(&record);
        EXPECT_EQ(Kel_sys_diag_AlarmOutput_unpack(kReply.data(), 3, &record), 0U);
        OvLoadDiskCtlInput request;
        EXPECT_EQ(Kel_sys_diag_OvLoadDiskCtlInput_unpack(kReply.data(), 25, &request), 0U);
        EXPECT_EQ(Kel_sys_diag_OvLoadDiskCtlInput_unpack(nullptr, 25, &request), 0U);
      };
      const Events happened = during([&] {
        std::vector<std::jthread> threads;
        for (int i = 0; i < kThreads; ++i) threads.emplace_back(firstCalls);
      });
      std::map<std::string, int> counts;
      for (const std::string& event : happened) ++counts[event.substr(0, event.find(' ', 6))];
      const std::map<std::string, int> expected = {
          {kFlagLookUp, 2},         {"flag 12", 2},
          {"dlsym " + kAlloc, 2},   {"dlsym " + kFree, 2},
          {"dlsym " + kLog, 2},     {"alloc 3", kThreads},
          {"free block", kThreads}, {"log KORVA", 2 * kThreads},
      };
      EXPECT_EQ(counts, expected);
    });
  }
}

}  // namespace
