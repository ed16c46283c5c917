// Packs any record of any message into any capacity around its size or far above, in both layouts,
// and reads the result with the naive decoder. An input is a byte that chooses the message, then
// what the record is made of.
#include <cstring>

#include "fuzz/checks.hpp"
#include "fuzz/host_hooks.hpp"
#include "fuzz/messages.hpp"
#include "fuzz/naive_decoder.hpp"
#include "fuzz/records.hpp"

namespace kel::fuzz {
namespace {

constexpr size_t kLargestPacked = size_t{24} * 512;
constexpr uint8_t kUntouched = 0xEE;

class Case {
 public:
  Case(const Message& message, Entropy& entropy)
      : message_(message), entropy_(entropy), record_(openRecord(message.shape->recordSize)) {
    fillRecord(*message.shape, entropy, record_);
  }

  void run() {
    host.startCase();
    checkCompact();
    if (message_.fixedPack != nullptr) checkFixed();
    require(host.requests == 0, "a packer allocated");
  }

 private:
  void require(bool condition, const char* what) const {
    if (!condition) fail(message_.name, what);
  }

  // Nothing behind a record may even be read.
  static void* openRecord(size_t size) {
    static FencedBuffer<sizeof(RecordRoom)> room;
    return room.open(size);
  }

  // The buffer ends with the capacity.
  uint8_t* open(size_t capacity) {
    static FencedBuffer<kLargestPacked> buffer;
    bytes_ = buffer.open(capacity);
    std::memset(bytes_, kUntouched, capacity);
    return bytes_;
  }

  void requireUntouched(size_t from, size_t to) const {
    for (size_t i = from; i < to; ++i) require(bytes_[i] == kUntouched, "writes past its size");
  }

  RecordRoom requireDecodes(size_t size, bool isCompact) const {
    RecordRoom decoded;
    const Verdict verdict = naiveDecode(*message_.shape, {bytes_, size}, &decoded);
    require(verdict.accepted, "does not decode");
    require(!isCompact || verdict.tablesAreTight, "a table of another length than its fields take");
    require(sameRecord(*message_.shape, record_, &decoded), "decodes to another record");
    return decoded;
  }

  void checkCompact() {
    const uint32_t size = message_.pack(nullptr, record_);
    require(size >= 12, "no size");
    const auto room = static_cast<uint32_t>(entropy_.below(2) == 0 ? size + entropy_.below(65)
                                                                   : entropy_.below(size + 9));
    const uint32_t capacity = room >= size && entropy_.below(8) == 0 ? UINT32_MAX : room;
    const PackTarget target{open(room), &capacity};
    const uint32_t written = message_.pack(&target, record_);
    require(written == (capacity < size ? 0 : size), "the result");
    requireUntouched(written, room);
    require(host.logLines == (capacity < size ? 1 : 0), "log lines");
    if (capacity < size) {
      require(host.logCode == 22 && host.logFunction == "Kel_sys_diag_" + message_.name + "_pack" &&
                  std::strcmp(host.logFormat, "[KORVA]:Param invalid(%s, %u, %s)") == 0,
              "the log line");
    } else {
      requirePacksAlike(requireDecodes(size, true), size);
    }
  }

  // Neither what lies in a record's padding matters nor what the buffer held.
  void requirePacksAlike(const RecordRoom& record, uint32_t size) const {
    static uint8_t bytes[kLargestPacked];
    std::memset(bytes, kUntouched + 1, size);
    const PackTarget target{bytes, &size};
    require(message_.pack(&target, &record) == size && std::memcmp(bytes, bytes_, size) == 0,
            "the same record gives other bytes");
  }

  void checkFixed() {
    const uint32_t size = message_.fixedSize();
    require(message_.fixedPack(open(size), record_) == 0, "the fixed layout's result");
    requireDecodes(size, false);
  }

  const Message& message_;
  Entropy& entropy_;
  void* record_;
  uint8_t* bytes_ = nullptr;
};

}  // namespace
}  // namespace kel::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace kel::fuzz;
  if (size == 0) return -1;
  Entropy entropy(size, {data + 1, size - 1});
  const auto messages = allMessages();
  Case(messages[data[0] % messages.size()], entropy).run();
  return 0;
}
