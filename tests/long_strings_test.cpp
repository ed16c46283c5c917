// Strings at the format's limits, through the entry points that ship: a file mapped many times over
// makes a string of more than 4 GiB out of a few MiB.
#include <gtest/gtest.h>
#include <kel_sys_diag/client.h>
#include <kel_sys_diag/peer.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <string>

namespace {

IdlCodecOps alarmOps() {
  IdlCodecOps ops;
  KelSysdiagMaster_KelSendAlarmSetIdl(&ops);
  return ops;
}

TEST(Strings, OfAnyLengthArriveWhole) {
  for (const size_t length :
       {size_t{0}, size_t{1}, size_t{65535}, size_t{65536}, size_t{3 << 20}}) {
    const std::string text(length, 'k');
    const AlarmInput record{1, 0, text.c_str(), 0, 0, {7}, 5};
    const uint32_t size = alarmOps().packFn(nullptr, &record);
    ASSERT_EQ(size, 66 + 8 + 9 + length);
    std::string buffer(size, '\0');
    const PackTarget target{reinterpret_cast<uint8_t*>(buffer.data()), &size};
    ASSERT_EQ(alarmOps().packFn(&target, &record), size);
    AlarmInput unpacked;
    ASSERT_NE(Kel_sys_diag_AlarmInput_unpack(buffer.data(), size, &unpacked), 0U);
    EXPECT_EQ(unpacked.text, text);
    EXPECT_EQ(unpacked.value5, 5U);
    EXPECT_EQ(unpacked.bytes32[0], 7);
    Kel_sys_diag_AlarmInput_free_unpacked(&unpacked);
  }
}

// One character over and over past 4 GiB; only around that border is it memory of its own, so that
// a NUL can be put there.
class EndlessString {
 public:
  EndlessString() {
    void* const reserved = mmap(nullptr, kBorder + kTail, PROT_NONE,
                                MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (reserved == MAP_FAILED) return;
    text_ = static_cast<char*>(reserved);
    usable_ = mapPieces() && mmap(text_ + kBorder - kTail, 2 * kTail, PROT_READ | PROT_WRITE,
                                  MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0) != MAP_FAILED;
  }
  ~EndlessString() {
    if (text_ != nullptr) munmap(text_, kBorder + kTail);
  }
  EndlessString(const EndlessString&) = delete;
  EndlessString& operator=(const EndlessString&) = delete;

  [[nodiscard]] bool usable() const { return usable_; }

  // Valid until the next call; length must be within kTail of the border.
  const char* ofLength(size_t length) {
    std::memset(text_ + kBorder - kTail, 'k', 2 * kTail);
    text_[length] = '\0';
    return text_;
  }

 private:
  static constexpr size_t kBorder = size_t{1} << 32;
  static constexpr size_t kTail = size_t{1} << 16;
  static constexpr size_t kPiece = size_t{1} << 26;

  bool mapPieces() {
    const int file = memfd_create("piece", 0);
    bool mapped = file >= 0 && ftruncate(file, kPiece) == 0;
    for (size_t at = 0; at < kBorder && mapped; at += kPiece) {
      mapped = mmap(text_ + at, kPiece, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, file, 0) !=
               MAP_FAILED;
    }
    if (mapped) std::memset(text_, 'k', kPiece);
    if (file >= 0) close(file);
    return mapped;
  }

  char* text_ = nullptr;
  bool usable_ = false;
};

TEST(Strings, PastThirtyTwoBitsHaveNoSize) {
  EndlessString endless;
#if defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "one thread, and minutes of checking each byte of 4 GiB";
#endif
  if (!endless.usable()) GTEST_SKIP() << "no room for 4 GiB of address space";
  constexpr size_t kLongest = 0xFFFFFFFF - (66 + 9);
  uint8_t byte = 0xEE;
  const uint32_t capacity = UINT32_MAX;
  const PackTarget target{&byte, &capacity};
  for (const size_t length : {kLongest, kLongest + 1, (size_t{1} << 32) + 5}) {
    const AlarmInput record{0, 0, endless.ofLength(length), 0, 0, {}, 0};
    const bool fits = length == kLongest;
    EXPECT_EQ(alarmOps().packFn(nullptr, &record), fits ? UINT32_MAX : 0);
    if (length == kLongest + 1) {
      EXPECT_EQ(alarmOps().packFn(&target, &record), 0U);
    }
  }
  EXPECT_EQ(byte, 0xEE);
}

}  // namespace
