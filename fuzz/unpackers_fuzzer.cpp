// Decodes anything as any message that one side receives, and holds the outcome against the naive
// decoder's. An input is a byte that chooses the message, then the message. Built once for each of
// the two libraries.
#include <cstring>
#include <string>

#include "fuzz/checks.hpp"
#include "fuzz/host_hooks.hpp"
#include "fuzz/messages.hpp"
#include "fuzz/naive_decoder.hpp"
#include "fuzz/records.hpp"
#include "fuzz/unpacker_inputs.hpp"

namespace kel::fuzz {
namespace {

// What the longest message can decode to packs to no more: an element takes less than 512 bytes.
constexpr size_t kLargestPacked = kLongestMessage / 4 * 512;

constexpr uint8_t kUntouched = 0xDD;

class Case {
 public:
  Case(const Message& message, std::span<const uint8_t> input, bool refuseAllocations)
      : message_(message),
        shape_(*message.shape),
        owner_(shape_.owner()),
        refuses_(refuseAllocations) {
    bytes_ = {copy(input), input.size()};
  }

  void run() {
    RecordRoom expectedRecord;
    std::memset(&expectedRecord, kUntouched, sizeof expectedRecord);
    Verdict expected;
    if (bytes_.size() >= 4) expected = naiveDecode(shape_, bytes_, &expectedRecord);
    if (expected.allocates && refuses_) expected.accepted = false;

    RecordRoom record;
    std::memset(&record, kUntouched, sizeof record);
    host.startCase();
    host.refuseAllocations = refuses_;
    const bool accepted = unpack(bytes_, record);
    host.refuseAllocations = false;
    require(accepted == expected.accepted, "the naive decoder disagrees about the verdict");
    checkLog(expected);
    checkAllocation(expected);
    checkBytes(expected, expectedRecord, record);
    if (accepted) {
      checkDecodesAgain(record);
      release(record);
    }
    require(host.blocks == 0, "memory was left allocated");
    if (owner_ == nullptr || bytes_.size() < 4) return;
    require(get<const void*>(&record, owner_->at) == nullptr, "a pointer is left");
  }

 private:
  static uint8_t* copy(std::span<const uint8_t> input) {
    static FencedBuffer<kLongestMessage> buffer;
    uint8_t* const bytes = buffer.open(input.size());
    if (!input.empty()) std::memcpy(bytes, input.data(), input.size());
    return bytes;
  }

  void require(bool condition, const char* what) const {
    if (!condition) fail(message_.name, what);
  }

  bool unpack(std::span<const uint8_t> bytes, RecordRoom& record) const {
    const uintptr_t result =
        message_.unpack(bytes.data(), static_cast<uint32_t>(bytes.size()), &record);
    require(result == 0 || result == reinterpret_cast<uintptr_t>(&record), "a strange result");
    return result != 0;
  }

  void release(RecordRoom& record) const {
    if (message_.release != nullptr) message_.release(&record);
  }

  // One line for a refused argument, a root header that fails, an allocation that fails; else none.
  void checkLog(const Verdict& expected) const {
    const char* format = nullptr;
    uint32_t code = 22;
    uint32_t numbers[2] = {expected.faultNumbers[0], expected.faultNumbers[1]};
    std::string function = "Kel_sys_diag_" + message_.name + "_unpack";
    if (bytes_.size() < 4) {
      format = "[KORVA]:Param invalid(%s, %d, %s)";
    } else {
      if (owner_ != nullptr) function += "_non_root";
      format = expected.fault;
      if (expected.allocates && refuses_) {
        format = "[KORVA]:Malloc unpack data unsuccess,                size(%u)";
        code = 12;
        numbers[0] = static_cast<uint32_t>(expected.allocation);
      }
    }
    require(host.logLines == (format == nullptr ? 0 : 1), "log lines");
    if (format == nullptr) return;
    require(host.logCode == code && function == host.logFunction &&
                std::strcmp(host.logFormat, format) == 0,
            "the log line");
    if (bytes_.size() < 4) return;
    require(host.logNumbers[0] == numbers[0] && (code == 12 || host.logNumbers[1] == numbers[1]),
            "the log line's numbers");
  }

  // What decoding costs: a string at most the message's length, a vector at most an element for
  // every four bytes; and exactly what the naive decoder needs.
  void checkAllocation(const Verdict& expected) const {
    require(host.requests == (expected.allocates ? 1 : 0), "allocations");
    require(host.requested == expected.allocation, "allocated bytes");
    if (owner_ == nullptr) return;
    const size_t bound = owner_->kind == Kind::string
                             ? bytes_.size()
                             : bytes_.size() / 4 * owner_->nested->recordSize;
    require(host.requested <= bound, "more memory than the documented bound");
  }

  // What a record and its block hold is the message's alone, padding included. After a failure, a
  // record that points at nothing holds what comes before the bad slot; or what it held, if the
  // header is refused.
  void checkBytes(const Verdict& expected, RecordRoom& expectedRecord,
                  const RecordRoom& record) const {
    if (expected.fault != nullptr) std::memset(&expectedRecord, kUntouched, shape_.recordSize);
    if (owner_ != nullptr && !expected.accepted) return;
    require(identical(shape_, expectedRecord, record, expected.allocation), "the record's bytes");
  }

  void checkDecodesAgain(const RecordRoom& record) const {
    static FencedBuffer<kLargestPacked> buffer;
    const uint32_t size = message_.pack(nullptr, &record);
    uint8_t* const packed = buffer.open(size);
    const PackTarget target{packed, &size};
    require(size != 0 && message_.pack(&target, &record) == size, "does not pack");
    RecordRoom again;
    require(unpack({packed, size}, again), "does not decode again");
    require(sameRecord(shape_, &record, &again), "decodes to another record");
    release(again);
  }

  const Message& message_;
  const Shape& shape_;
  const Field* owner_;
  bool refuses_;
  std::span<const uint8_t> bytes_;
};

}  // namespace
}  // namespace kel::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace kel::fuzz;
  if (size == 0 || size > 1 + kLongestMessage) return -1;
  Case(chosenMessage(data[0]), {data + 1, size - 1}, refusesAllocations(data[0])).run();
  return 0;
}
