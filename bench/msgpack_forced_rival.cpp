// How far msgpack-c's packer can be forced: every integer at its full width, against the format's
// rule that it takes the least room, all of it inlined, straight into the caller's buffer. Its
// documentation has the parts but advises none of this; it is the nearest to a plain copy that the
// packer can do. For the codec benchmark.
#include <stdexcept>

#include "bench/candidate.hpp"
#include "bench/fields.hpp"
#include "bench/msgpack_packing.hpp"

namespace kel::bench {
namespace {

// The caller's buffer. What lies behind its end is never written to.
class Room {
 public:
  Room(uint8_t* begin, size_t size) : at_(begin), end_(begin + size) {}
  void write(const char* bytes, size_t count) {
    if (count > static_cast<size_t>(end_ - at_)) throw std::length_error("no room");
    std::memcpy(at_, bytes, count);
    at_ += count;
  }
  [[nodiscard]] const uint8_t* end() const { return at_; }

 private:
  uint8_t* at_;
  uint8_t* end_;
};

class FixedWidthPacker : public msgpack::packer<Room> {
 public:
  using packer::packer;
  void packScalar(uint8_t value) { pack_fix_uint8(value); }
  void packScalar(uint16_t value) { pack_fix_uint16(value); }
  void packScalar(uint32_t value) { pack_fix_uint32(value); }
  void packScalar(uint64_t value) { pack_fix_uint64(value); }
};

struct Forced {
  template <class Record>
  [[gnu::flatten]] static uint32_t encode(const Record& record, uint8_t* out) {
    size_t capacity = kCapacity;
    asm volatile("" : "+r"(capacity));  // known to callers only when they run
    Room room(out, capacity);
    FixedWidthPacker packer(room);
    packRecord(packer, record);
    return static_cast<uint32_t>(room.end() - out);
  }
};

template <class Record>
Candidate forcedOf(Candidate candidate) {
  candidate.name = "msgpack-c, forced";
  candidate.encode = [](const Message&, const Item& item, uint8_t* out) {
    return Forced::encode(*static_cast<const Record*>(item.record), out);
  };
  candidate.encoded = nullptr;
  candidate.decode = nullptr;
  return candidate;
}

}  // namespace

// Decoding is the other one's.
#define KEL_FORCED(Record) \
  if (message == #Record) return forcedOf<Record>(rival::msgpack(message));
Candidate rival::msgpackForced(std::string_view message) {
  KEL_FOR_EACH_MESSAGE_RECORD(KEL_FORCED)
  std::abort();
}

}  // namespace kel::bench
