#include "tests/host/host_fixture.hpp"

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <thread>

namespace kel::host::test {

Bytes okReply() {
  return {0x0A, 0,    0, 0, 0x06, 0,    0x0F, 0, 0x04, 0,   0x06, 0, 0,
          0,    0x04, 0, 0, 0,    0x02, 0,    0, 0,    'o', 'k',  0};
}

Answer answerOk(const std::string& /*path*/, std::span<const uint8_t> /*request*/) {
  return {AnswerStatus::ok, {}, okReply()};
}

AlarmInput sampleAlarm(uint32_t number) {
  AlarmInput alarm{};
  alarm.value1 = number;
  alarm.value2 = 1;
  alarm.text = "sample";
  return alarm;
}

int32_t sendAlarm(const AlarmInput& alarm, std::string& reply, uintptr_t deadlineMs) {
  IdlCodecOps ops{};
  KelSysdiagMaster_KelSendAlarmSetIdl(&ops);
  AlarmOutput output{};
  const int32_t result = KelSysdiagMaster_KelSendAlarm(&alarm, &output, deadlineMs);
  if (result == kOk) {
    reply = output.text == nullptr ? "" : output.text;
    ops.releaseFn(&output);
  } else {
    EXPECT_EQ(output.text, nullptr) << "a failed call left something to release";
  }
  return result;
}

std::string outcome(int32_t result) { return std::to_string(result) + ": " + describe(result); }

void Completions::onAlarmOutput(int32_t result, void* output, uintptr_t context) {
  auto& self = *reinterpret_cast<Completions*>(context);
  const auto* const reply = static_cast<const AlarmOutput*>(output);
  const char* const text = reply == nullptr ? nullptr : reply->text;
  const std::scoped_lock lock(self.mutex_);
  self.completed_.push_back({result, reply != nullptr, text == nullptr ? "" : text});
  self.arrived_.notify_all();
}

int32_t Completions::start(const AlarmInput* alarm, uintptr_t deadlineMs, Completion completion) {
  return KelSysdiagMaster_KelSendAlarm_async(alarm, reinterpret_cast<uintptr_t>(completion),
                                             reinterpret_cast<uintptr_t>(this), deadlineMs);
}

std::vector<Completions::Completed> Completions::wait(size_t count) {
  constexpr std::chrono::milliseconds kPatience(kCallMs + kCallMs / 2);
  constexpr std::chrono::milliseconds kMore(20);
  std::unique_lock lock(mutex_);
  arrived_.wait_for(lock, kPatience, [&] { return completed_.size() >= count; });
  arrived_.wait_for(lock, kMore, [&] { return completed_.size() > count; });
  return completed_;
}

bool eventually(const std::function<bool()>& holds) {
  const Clock::time_point end = Clock::now() + std::chrono::seconds(20);
  while (!holds()) {
    if (Clock::now() > end) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

void onThreads(uint32_t threads, const std::function<void(uint32_t)>& body) {
  std::vector<std::jthread> running;
  for (uint32_t i = 0; i < threads; ++i) {
    running.emplace_back(body, i);
  }
}

std::filesystem::path beside(const std::string& name) {
  return std::filesystem::read_symlink("/proc/self/exe").replace_filename(name);
}

void addImage(const std::filesystem::path& file) {
  std::ofstream(file).put('x');
  std::filesystem::resize_file(file, uintmax_t{8} << 20U);
}

std::string contentOf(const std::filesystem::path& file) {
  std::ifstream stream(file);
  return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

std::string complaintOf(const std::function<void()>& action) {
  try {
    action();
    return "no complaint";
  } catch (const std::runtime_error& error) {
    return error.what();
  }
}

FolderFixture::FolderFixture() {
  std::string name = std::filesystem::temp_directory_path() / "kel_host_test.XXXXXX";
  if (mkdtemp(name.data()) == nullptr) {
    std::abort();
  }
  folder = name;
}

FolderFixture::~FolderFixture() { std::filesystem::remove_all(folder); }

HostFixture::HostFixture() {
  aimAt(target);
  // Here and not at a test's end: with its server just gone gRPC may be connecting anew, and never
  // frees a connection whose channel is given up meanwhile.
  setCompactAlways(false);
  configureCalls({});
}

void HostFixture::aimAt(const std::string& where) {
  auto& endpoint = g_stServerAddr_KelSysdiagMaster.endpoint;
  std::memset(endpoint, 0, sizeof(endpoint));
  std::memcpy(endpoint, where.data(), std::min(where.size(), sizeof(endpoint)));
}

std::string HostFixture::call(uintptr_t deadlineMs) {
  std::string reply;
  return outcome(sendAlarm(sampleAlarm(), reply, deadlineMs));
}

bool HostFixture::recovers() {
  for (int atOnce = 0; atOnce < 2;) {
    const Clock::time_point began = Clock::now();
    if (call() == outcome(kOk)) {
      return true;
    }
    constexpr std::chrono::seconds kSlow(2);  // as on a machine too busy to connect in time
    atOnce += Clock::now() - began < kSlow ? 1 : 0;
  }
  return false;
}

}  // namespace kel::host::test
