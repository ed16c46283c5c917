// Msgpack-c as its documentation has it fastest: records as arrays into one buffer used again,
// parsed by a visitor without objects in between. For the codec benchmark.
#include <array>
#include <cstring>

#include "bench/candidate.hpp"
#include "bench/fields.hpp"
#include "bench/msgpack_packing.hpp"

namespace kel::bench {
namespace {

class Packer : public msgpack::packer<msgpack::sbuffer> {
 public:
  using packer::packer;
  void packScalar(uint8_t value) { pack_uint8(value); }
  void packScalar(uint16_t value) { pack_uint16(value); }
  void packScalar(uint32_t value) { pack_uint32(value); }
  void packScalar(uint64_t value) { pack_uint64(value); }
};

// Puts what the parser meets where the shape has it. Arrays are records or lists of them, so that
// they nest three deep at most: a list, an element, its nested record.
class RecordVisitor : public msgpack::null_visitor {
 public:
  RecordVisitor(const fuzz::Shape& shape, void* record) {
    root_ = {&shape, nullptr, static_cast<uint8_t*>(record)};
  }

  bool visit_positive_integer(uint64_t value) {
    const fuzz::Field* const field = next(fuzz::Kind::scalar);
    if (field == nullptr) return false;
    uint8_t* const member = level().base + field->at;
    switch (field->width) {  // a copy of a width that is not known calls the C library
      case 1:
        return put<uint8_t>(member, value);
      case 2:
        return put<uint16_t>(member, value);
      case 4:
        return put<uint32_t>(member, value);
      default:
        return put<uint64_t>(member, value);
    }
  }
  bool visit_bin(const char* bytes, uint32_t size) {
    const fuzz::Field* const field = next(fuzz::Kind::bytes);
    if (field == nullptr || field->width != size) return false;
    std::memcpy(level().base + field->at, bytes, size);
    return true;
  }
  bool visit_str(const char* characters, uint32_t size) {
    const fuzz::Field* const field = next(fuzz::Kind::string);
    if (field == nullptr) return false;
    const char* const text = copyText(characters, size);
    std::memcpy(level().base + field->at, &text, sizeof text);
    return true;
  }
  bool start_array(uint32_t count) {
    if (depth_ == 0) return enter(root_);
    if (level().field == nullptr) return enterElement();
    const fuzz::Field& field = *level().field++;
    if (field.nested == nullptr) return false;
    return field.kind == fuzz::Kind::vector
               ? enterList(field, count)
               : enter({field.nested, nullptr, level().base + field.at});
  }
  bool end_array() {
    --depth_;
    return true;
  }

 private:
  struct Level {
    const fuzz::Shape* shape;
    const fuzz::Field* field;  // the next; null within a list
    uint8_t* base;             // of the record, or of a list's next element
  };

  Level& level() { return levels_[depth_ - 1]; }

  template <class Scalar>
  static bool put(uint8_t* member, uint64_t value) {
    const auto scalar = static_cast<Scalar>(value);
    std::memcpy(member, &scalar, sizeof scalar);
    return true;
  }

  const fuzz::Field* next(fuzz::Kind kind) {
    const fuzz::Field* const field = level().field++;
    return field->kind == kind ? field : nullptr;
  }
  bool enter(const Level& level) {
    levels_[depth_] = level;
    levels_[depth_++].field = level.shape->fields.data();
    return true;
  }
  bool enterElement() {
    Level& list = level();
    uint8_t* const element = list.base;
    list.base += list.shape->recordSize;
    return enter({list.shape, nullptr, element});
  }
  bool enterList(const fuzz::Field& field, uint32_t count) {
    auto* const elements = allocateArray<uint8_t>(count * field.nested->recordSize);
    std::memcpy(level().base + field.at, &elements, sizeof elements);
    std::memcpy(level().base + field.countAt, &count, sizeof count);
    levels_[depth_++] = {field.nested, nullptr, elements};
    return true;
  }

  Level root_{};
  std::array<Level, 4> levels_;
  size_t depth_ = 0;
};

struct Msgpack {
  // Used again for every message, so that it grows to the largest and allocates no more.
  static msgpack::sbuffer buffer;

  // The library is made to be inlined, which the compiler gives up among all messages' instances in
  // one file unless it is told, but not with a message or two in a file.
  template <class Record>
  [[gnu::flatten]] static uint32_t encode(const Record& record, uint8_t*) {
    buffer.clear();
    Packer packer(buffer);
    packRecord(packer, record);
    return static_cast<uint32_t>(buffer.size());
  }
  template <class Record>
  [[gnu::flatten]] static bool unpack(const Message& message, std::span<const uint8_t> bytes,
                                      Record& record) {
    RecordVisitor visitor(*message.shape, &record);
    return msgpack::parse(reinterpret_cast<const char*>(bytes.data()), bytes.size(), visitor);
  }
};
msgpack::sbuffer Msgpack::buffer;

template <class Record>
Candidate msgpackOf() {
  Candidate candidate = rivalOf<Msgpack, Record>("msgpack-c");
  candidate.encoded = [] { return reinterpret_cast<const uint8_t*>(Msgpack::buffer.data()); };
  return candidate;
}

}  // namespace

#define KEL_MSGPACK(Record) \
  if (message == #Record) return msgpackOf<Record>();
Candidate rival::msgpack(std::string_view message) {
  KEL_FOR_EACH_MESSAGE_RECORD(KEL_MSGPACK)
  std::abort();
}

}  // namespace kel::bench
