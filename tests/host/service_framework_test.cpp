// The framework's serving side against services of every kind: made-up ones whose parts fail one by
// one, and the library's own tables, damaged one by one.
#include "host/service_framework.hpp"

#include <kel_sys_diag/service.h>

#include <array>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <vector>

#include "host/method_convention.hpp"
#include "host/module_table.hpp"
#include "tests/host/host_fixture.hpp"

namespace kel::host::test {
namespace {

// The library's tables, copied to be damaged.
struct Tables {
  std::array<IdlIntfEntry, 9> methods = std::to_array(intf_tbl_KelSysdiagQarne);
  std::array<IdlMsgDesc, 17> messages = std::to_array(msgdesc_tbl_KelSysdiagQarne);
  IdlModuleSpec module = __module_spec_KelSysdiagQarne;

  std::string verdict() {
    module.intfTable = module.intfTable == nullptr ? nullptr : methods.data();
    module.msgDescTable = module.msgDescTable == nullptr ? nullptr : messages.data();
    return complaintOf([this] { EXPECT_EQ(readModule(module, "KelSysdiagQarne").size(), 8U); });
  }
};

TEST(ModuleTable, AcceptsTheLibrarysAndRefusesEveryDamage) {
  EXPECT_EQ(Tables{}.verdict(), "no complaint");
  const std::pair<const char*, std::function<void(Tables&)>> cases[] = {
      {"they are those of KelSysdiagQarn", [](Tables& t) { t.module.name[14] = '\0'; }},
      {"the service has no end", [](Tables& t) { std::memset(t.module.name, 'x', 32); }},
      {"the service is not padded", [](Tables& t) { t.module.name[31] = 'x'; }},
      {"the service has no name", [](Tables& t) { t.module.name[0] = '\0'; }},
      {"a table is missing", [](Tables& t) { t.module.intfTable = nullptr; }},
      {"a table is missing", [](Tables& t) { t.module.msgDescTable = nullptr; }},
      {"0 interface entries", [](Tables& t) { t.module.intfCount = 0; }},
      {"1 interface entries", [](Tables& t) { t.module.intfCount = 1; }},
      {"17 message descriptors for 8", [](Tables& t) { t.module.intfCount = 8; }},
      {"16 message descriptors for 9", [](Tables& t) { t.module.msgDescCount = 16; }},
      {"4294967295 interface entries",
       [](Tables& t) {
         t.module.intfCount = UINT32_MAX;
         t.module.msgDescCount = UINT32_MAX * 2U - 1U;
       }},
      {"entry 0 of the interface table", [](Tables& t) { t.methods[0] = t.methods[1]; }},
      {"entry 0 of the interface table", [](Tables& t) { t.methods[0].marker = 0; }},
      {"entry 0 of the message descriptor", [](Tables& t) { t.messages[0].msgId = 1; }},
      {"FdProcInfoQuery is marked", [](Tables& t) { t.methods[2].marker = 1; }},
      {"KelMountDisk has no wrapper", [](Tables& t) { t.methods[6].wrapper = nullptr; }},
      {"KelMountDisk takes a message", [](Tables& t) { ++t.methods[6].inputMsgId; }},
      {"KelBrdPartInfoQuery takes", [](Tables& t) { std::swap(t.messages[1], t.messages[2]); }},
      {"message 16 has no id of its own", [](Tables& t) { t.messages[16] = t.messages[1]; }},
      {"message 4 has no id of its own", [](Tables& t) { t.messages[4].msgId = 0; }},
      {"method 8 has no end", [](Tables& t) { std::memset(t.methods[8].methodName, 'x', 64); }},
      {"method 8 has no name", [](Tables& t) { t.methods[8].methodName[0] = '\0'; }},
      {"method 1 is not padded", [](Tables& t) { t.methods[1].methodName[63] = 'x'; }},
      {"KelMountDisk occurs twice",
       [](Tables& t) { std::memcpy(t.methods[7].methodName, t.methods[6].methodName, 64); }},
  };
  for (const auto& [complaint, damage] : cases) {
    Tables tables;
    damage(tables);
    EXPECT_PRED_FORMAT2(testing::IsSubstring, complaint, tables.verdict());
  }
}

TEST(ModuleTable, IsFoundByNameInALibrary) {
  const std::string library = beside("libkel_sys_diag.so");
  EXPECT_EQ(readModule(loadModule(library, "KelSysdiagQarne"), "KelSysdiagQarne").size(), 8U);
  EXPECT_THROW(loadModule(library, "KelSysdiagMaster"), std::runtime_error);
  EXPECT_THROW(loadModule(library + ".none", "KelSysdiagQarne"), std::runtime_error);
}

// A service of one method, "Probe", whose parts do what the test says and are counted. Its messages
// are one byte long.
struct Probe {
  uint32_t replySize = 1;
  bool packs = true;
  bool throws = false;
  bool hasFree = true;
  bool hasFixed = false;
  int32_t result = kServed;

  uint32_t served = 0;
  uint32_t freed = 0;
  uint32_t released = 0;
  bool recordsWereReady = true;
  void* output = nullptr;
};
Probe probe;

uintptr_t unpackProbe(const void* bytes, uint32_t length, void* record) {
  if (length != 1) {
    return 0;
  }
  static_cast<uint8_t*>(record)[0] = *static_cast<const uint8_t*>(bytes);
  return reinterpret_cast<uintptr_t>(record);
}

uint32_t packProbe(const PackTarget* target, const void* record) {
  if (target == nullptr) {
    return probe.replySize;
  }
  target->buffer[0] = *static_cast<const uint8_t*>(record);
  return probe.packs ? probe.replySize : 0;
}

int32_t fixedPackProbe(uint8_t* buffer, const void* record) {
  buffer[1] = *static_cast<const uint8_t*>(record);
  return 0;
}

uint32_t fixedSizeProbe() { return 3; }

void note(void* output, uint32_t& count) {
  ++count;
  EXPECT_EQ(output, probe.output) << "released another record than was filled";
}

void releaseProbe(void* output) { note(output, probe.released); }
void freeProbe(void* output) { note(output, probe.freed); }

int32_t serveProbe(const void* input, void* output) {
  ++probe.served;
  probe.output = output;
  probe.recordsWereReady = reinterpret_cast<uintptr_t>(output) % alignof(std::max_align_t) == 0 &&
                           reinterpret_cast<uintptr_t>(input) % alignof(std::max_align_t) == 0;
  const auto* const bytes = static_cast<const uint8_t*>(output);
  for (size_t i = 0; i < kLargestOutputRecord; ++i) {
    probe.recordsWereReady = probe.recordsWereReady && bytes[i] == 0;
  }
  std::memset(output, 0xEE, kLargestOutputRecord);
  static_cast<uint8_t*>(output)[0] = *static_cast<const uint8_t*>(input);
  if (probe.throws) {
    throw std::runtime_error("a fault");
  }
  return probe.result;
}

int32_t wrapProbe(uintptr_t first, uintptr_t second, IdlCodecOps* ops) {
  *ops = {unpackProbe,
          packProbe,
          releaseProbe,
          probe.hasFree ? reinterpret_cast<IdlHostFn>(freeProbe) : nullptr,
          probe.hasFixed ? fixedPackProbe : nullptr,
          probe.hasFixed ? fixedSizeProbe : nullptr};
  const ServiceMethodBinding binding{reinterpret_cast<IdlHostFn>(serveProbe), nullptr, 1};
  return RPC_IdlServiceWrapper(first, 1, second, ops, &binding);
}

// Serves nothing, and says nothing about it.
int32_t wrapNothing(uintptr_t, uintptr_t, IdlCodecOps*) { return 0; }

class ServiceFramework : public ::testing::Test {
 protected:
  ServiceFramework() { probe = {}; }

  using Form = ServedService::ReplyForm;

  ServedService service(Form form = Form::fixedWherePossible) {
    return {module_, "ProbeService", form};
  }

  std::array<IdlIntfEntry, 3> methods_ = {{{UINT32_MAX, 0, nullptr, 0, 0, {}},
                                           {0, 0, wrapProbe, 1, 0, "Probe"},
                                           {0, 0, wrapNothing, 3, 0, "Nothing"}}};
  std::array<IdlMsgDesc, 5> messages_ = {{{0, {}}, {1, {}}, {2, {}}, {3, {}}, {4, {}}}};
  IdlModuleSpec module_ = {"ProbeService", 3, 5, methods_.data(), messages_.data(), {}};
};

TEST_F(ServiceFramework, AnswersEveryFaultInItsOwnWayAndReleasesOnce) {
  struct Case {
    const char* what;
    Probe probe;
    AnswerStatus status;
    std::vector<uint8_t> request = {42};
  };
  const Case cases[] = {
      {"all is well", {}, AnswerStatus::ok},
      {"the request does not decode", {}, AnswerStatus::badRequest, {}},
      {"the method fails", {.result = kMethodUnreadable}, AnswerStatus::internal},
      {"it fails in its own way", {.result = -7}, AnswerStatus::internal},
      {"it throws", {.throws = true}, AnswerStatus::internal},
      {"the reply has no size", {.replySize = 0}, AnswerStatus::replyLost},
      {"the reply does not encode", {.packs = false}, AnswerStatus::replyLost},
  };
  for (const bool hasFree : {true, false}) {
    for (const Case& faulty : cases) {
      SCOPED_TRACE(faulty.what);
      probe = faulty.probe;
      probe.hasFree = hasFree;
      const Answer answer = service().handle("/ProbeService/Probe", faulty.request);
      const bool well = faulty.status == AnswerStatus::ok;
      EXPECT_EQ(answer.status, faulty.status);
      EXPECT_EQ(answer.detail.empty(), well) << answer.detail;
      EXPECT_EQ(answer.reply, well ? faulty.request : std::vector<uint8_t>{});
      const uint32_t served = faulty.status == AnswerStatus::badRequest ? 0 : 1;
      EXPECT_EQ(probe.served, served);
      EXPECT_EQ(probe.freed, hasFree ? served : 0);
      EXPECT_EQ(probe.released, hasFree ? 0 : served);
      EXPECT_TRUE(probe.recordsWereReady);
    }
  }
}

TEST_F(ServiceFramework, ChoosesTheFixedLayoutUnlessToldOtherwise) {
  probe.hasFixed = true;
  const uint8_t request[] = {42};
  EXPECT_EQ(service().handle("/ProbeService/Probe", request).reply,
            (std::vector<uint8_t>{0, 42, 0}));
  EXPECT_EQ(service(Form::compact).handle("/ProbeService/Probe", request).reply,
            std::vector<uint8_t>{42});
}

TEST_F(ServiceFramework, KnowsItsMethodsOnly) {
  for (const char* path : {"", "/", "Probe", "/ProbeService", "/ProbeService/", "//Probe",
                           "/ProbeService/probe", "/ProbeService/Probe/", "/Other/Probe"}) {
    EXPECT_EQ(service().handle(path, {}).status, AnswerStatus::unknownMethod) << path;
  }
  EXPECT_EQ(service().handle("/ProbeService/Nothing", {}).status, AnswerStatus::internal);
  EXPECT_EQ(probe.served, 0U);
}

}  // namespace
}  // namespace kel::host::test
