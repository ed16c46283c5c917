// Strings at the format's limits, through the entry points that ship: a file of 64 MiB, mapped many
// times over, makes a string of more than 4 GiB.
#include <gtest/gtest.h>
#include <kel_sys_diag/client.h>
#include <kel_sys_diag/peer.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "tests/support/codec_ops.hpp"

namespace {

const IdlCodecOps alarmOps = kel::test::opsOf(KelSysdiagMaster_KelSendAlarmSetIdl);

TEST(Strings, OfAnyLengthArriveWhole) {
  for (const size_t length :
       {size_t{0}, size_t{1}, size_t{65535}, size_t{65536}, size_t{1 << 24}}) {
    const std::string text(length, 'k');
    const AlarmInput record{1, 0, text.c_str(), 0, 0, {7}, 5};
    const uint32_t size = alarmOps.packFn(nullptr, &record);
    ASSERT_EQ(size, 66 + 8 + 9 + length);
    std::string buffer(size, '\0');
    const PackTarget target{reinterpret_cast<uint8_t*>(buffer.data()), &size};
    ASSERT_EQ(alarmOps.packFn(&target, &record), size);
    uint16_t tableLength = 0;
    std::memcpy(&tableLength, buffer.data() + 6, sizeof tableLength);
    EXPECT_EQ(tableLength, (size - 22) % 65536);
    AlarmInput unpacked;
    ASSERT_NE(Kel_sys_diag_AlarmInput_unpack(buffer.data(), size, &unpacked), 0U);
    EXPECT_EQ(unpacked.text, text);
    EXPECT_EQ(unpacked.value5, 5U);
    EXPECT_EQ(unpacked.bytes32[0], 7);
    Kel_sys_diag_AlarmInput_free_unpacked(&unpacked);
  }
}

// One character over and over past 4 GiB: a file mapped in many places, of which a page becomes
// memory of its own when something is put there. Null if there is no room.
constexpr size_t kPiece = size_t{1} << 26;
constexpr size_t kEndless = (size_t{1} << 32) + kPiece;
char* mapEndlessText() {
  const std::string piece(kPiece, 'k');
  const int file = memfd_create("piece", 0);
  const bool written = write(file, piece.data(), kPiece) == ssize_t{kPiece};
  void* const reserved =
      mmap(nullptr, kEndless, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (!written || reserved == MAP_FAILED) return nullptr;
  auto* const text = static_cast<char*>(reserved);
  for (size_t at = 0; at < kEndless; at += kPiece) {
    if (mmap(text + at, kPiece, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_FIXED | MAP_NORESERVE,
             file, 0) == MAP_FAILED) {
      return nullptr;
    }
  }
  close(file);
  return text;
}

TEST(Strings, PastThirtyTwoBitsHaveNoSize) {
  char* const text = mapEndlessText();
  if (text == nullptr) GTEST_SKIP() << "no room for 4 GiB of address space";
  const AlarmInput record{0, 0, text, 0, 0, {}, 0};
  const auto endAt = [text](size_t length, auto pass) {
    text[length] = '\0';
    const uint32_t size = pass();
    text[length] = 'k';
    return size;
  };
  const auto sizePass = [&] { return alarmOps.packFn(nullptr, &record); };
  uint8_t byte = 0xEE;
  const uint32_t capacity = UINT32_MAX;
  const auto packPass = [&] {
    const PackTarget target{&byte, &capacity};
    return alarmOps.packFn(&target, &record);
  };
  constexpr size_t kLongest = 0xFFFFFFFF - (66 + 9);
  EXPECT_EQ(endAt(kLongest, sizePass), UINT32_MAX);
  EXPECT_EQ(endAt(kLongest + 2, sizePass), 0U);  // one more comes to 0 if it wraps
  EXPECT_EQ(endAt((size_t{1} << 32) + 5, packPass), 0U);
  EXPECT_EQ(byte, 0xEE);
  munmap(text, kEndless);
}

}  // namespace
