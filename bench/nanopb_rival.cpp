// Nanopb as its documentation has it fastest: arrays of fixed length in place, texts and entries by
// callbacks that read and write the record itself. For the codec benchmark.
#include <pb_decode.h>
#include <pb_encode.h>

#include <cstring>

#include "bench/candidate.hpp"
#include "bench/fields.hpp"
#include "messages.nano.h"

namespace kel::bench {
namespace {

template <class Record>
struct ObjectOf;
template <class Record>
using Object = typename ObjectOf<Record>::Type;

#define KEL_DECLARE(Record)                                                      \
  template <>                                                                    \
  struct ObjectOf<Record> {                                                      \
    using Type = kel_bench_pb_##Record;                                          \
    static constexpr const pb_msgdesc_t* kFields = &kel_bench_pb_##Record##_msg; \
  };                                                                             \
  void fill(const Record& record, Object<Record>& object);                       \
  void take(const Object<Record>& object, Record& record);                       \
  void receive(Object<Record>& object, Record& record);
KEL_FOR_EACH_RECORD(KEL_DECLARE)

bool encodeText(pb_ostream_t* stream, const pb_field_t* field, void* const* argument) {
  const auto* const text = static_cast<const char*>(*argument);
  return pb_encode_tag_for_field(stream, field) &&
         pb_encode_string(stream, reinterpret_cast<const pb_byte_t*>(text), std::strlen(text));
}

bool decodeText(pb_istream_t* stream, const pb_field_t*, void** argument) {
  const size_t length = stream->bytes_left;
  char* const text = allocateArray<char>(length + 1);
  *static_cast<char**>(*argument) = text;
  text[length] = '\0';
  return pb_read(stream, reinterpret_cast<pb_byte_t*>(text), length);
}

template <class Entry>
constexpr uint64_t kEncodedSize = 0;
template <>
constexpr uint64_t kEncodedSize<BrdPartEntry> = kel_bench_pb_BrdPartEntry_size;
template <>
constexpr uint64_t kEncodedSize<FdProcEntry> = kel_bench_pb_FdProcEntry_size;
template <>
constexpr uint64_t kEncodedSize<StorageEraseEntry> = kel_bench_pb_StorageEraseEntry_size;
template <>
constexpr uint64_t kEncodedSize<StorageBadBlockEntry> = kel_bench_pb_StorageBadBlockEntry_size;

// An entry with all fields has the size that the generator names as the largest, so that there is
// no need to encode it twice.
template <class Record>
bool encodeEntries(pb_ostream_t* stream, const pb_field_t* field, void* const* argument) {
  const auto& record = *static_cast<const Record*>(*argument);
  using Entry = std::remove_pointer_t<decltype(record.entries)>;
  Object<Entry> object;
  for (uint32_t i = 0; i < record.entryCount; ++i) {
    fill(record.entries[i], object);
    if (!pb_encode_tag_for_field(stream, field) || !pb_encode_varint(stream, kEncodedSize<Entry>) ||
        !pb_encode(stream, ObjectOf<Entry>::kFields, &object)) {
      return false;
    }
  }
  return true;
}

// How many there will be is not known, so the array doubles whenever the count is a power of two.
template <class Record>
bool decodeEntry(pb_istream_t* stream, const pb_field_t*, void** argument) {
  auto& record = *static_cast<Record*>(*argument);
  using Entry = std::remove_pointer_t<decltype(record.entries)>;
  const uint32_t count = record.entryCount++;
  if ((count & (count - 1)) == 0) {
    record.entries = static_cast<Entry*>(
        std::realloc(record.entries, (count == 0 ? 1 : size_t{count} * 2) * sizeof(Entry)));
  }
  Object<Entry> object{};  // so that nanopb need not look for every field's default
  if (!pb_decode_ex(stream, ObjectOf<Entry>::kFields, &object, PB_DECODE_NOINIT)) return false;
  take(object, record.entries[count]);
  return true;
}

#define KEL_NOTHING(name, Name)

#define KEL_FILL_SCALAR(name, Name) \
  object.has_##name = true;         \
  object.name = record.name;
#define KEL_FILL_BYTES(name, Name) \
  object.has_##name = true;        \
  std::memcpy(object.name, record.name, sizeof record.name);
#define KEL_FILL_TEXT(name, Name)        \
  object.name.funcs.encode = encodeText; \
  object.name.arg = const_cast<char*>(record.name);
#define KEL_FILL_TABLE(name, Name) \
  object.has_##name = true;        \
  fill(record.name, object.name);
#define KEL_FILL_ENTRIES(name, Name)                                               \
  object.name.funcs.encode = encodeEntries<std::remove_cvref_t<decltype(record)>>; \
  object.name.arg = const_cast<void*>(static_cast<const void*>(&record));

#define KEL_TAKE_SCALAR(name, Name) record.name = static_cast<decltype(record.name)>(object.name);
#define KEL_TAKE_BYTES(name, Name) std::memcpy(record.name, object.name, sizeof record.name);
#define KEL_TAKE_TABLE(name, Name) take(object.name, record.name);

#define KEL_RECEIVE_TEXT(name, Name)     \
  record.name = nullptr;                 \
  object.name.funcs.decode = decodeText; \
  object.name.arg = &record.name;
#define KEL_RECEIVE_ENTRIES(name, Name)                                              \
  record.entryCount = 0;                                                             \
  record.name = nullptr;                                                             \
  object.name.funcs.decode = decodeEntry<std::remove_reference_t<decltype(record)>>; \
  object.name.arg = &record;

#define KEL_DEFINE(Record)                                                                         \
  inline void fill([[maybe_unused]] const Record& record,                                          \
                   [[maybe_unused]] Object<Record>& object) {                                      \
    KEL_FIELDS_##Record(KEL_FILL_SCALAR, KEL_FILL_BYTES, KEL_FILL_TEXT, KEL_FILL_TABLE,            \
                        KEL_FILL_ENTRIES)                                                          \
  }                                                                                                \
  inline void take([[maybe_unused]] const Object<Record>& object,                                  \
                   [[maybe_unused]] Record& record) {                                              \
    KEL_FIELDS_##Record(KEL_TAKE_SCALAR, KEL_TAKE_BYTES, KEL_NOTHING, KEL_TAKE_TABLE, KEL_NOTHING) \
  }                                                                                                \
  inline void receive([[maybe_unused]] Object<Record>& object, [[maybe_unused]] Record& record) {  \
    KEL_FIELDS_##Record(KEL_NOTHING, KEL_NOTHING, KEL_RECEIVE_TEXT, KEL_NOTHING,                   \
                        KEL_RECEIVE_ENTRIES)                                                       \
  }
KEL_FOR_EACH_RECORD(KEL_DEFINE)

template <class Record>
uint32_t serialize(const Object<Record>& object, uint8_t* out) {
  pb_ostream_t stream = pb_ostream_from_buffer(out, kCapacity);
  if (!pb_encode(&stream, ObjectOf<Record>::kFields, &object)) std::abort();
  return static_cast<uint32_t>(stream.bytes_written);
}

struct Nanopb {
  template <class Record>
  static uint32_t encode(const Record& record, uint8_t* out) {
    Object<Record> object;
    fill(record, object);
    return serialize<Record>(object, out);
  }
  template <class Record>
  static bool unpack(const Message&, std::span<const uint8_t> bytes, Record& record) {
    Object<Record> object{};
    receive(object, record);
    pb_istream_t stream = pb_istream_from_buffer(bytes.data(), bytes.size());
    if (!pb_decode_ex(&stream, ObjectOf<Record>::kFields, &object, PB_DECODE_NOINIT)) return false;
    take(object, record);
    return true;
  }
};

template <class Record>
Candidate nanopbOf() {
  return withObjects<Record, Object<Record>, fill, serialize<Record>>(
      rivalOf<Nanopb, Record>("nanopb"));
}

}  // namespace

#define KEL_NANOPB(Record) \
  if (message == #Record) return nanopbOf<Record>();
Candidate rival::nanopb(std::string_view message) {
  KEL_FOR_EACH_MESSAGE_RECORD(KEL_NANOPB)
  std::abort();
}

}  // namespace kel::bench
