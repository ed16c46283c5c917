// Cap'n Proto as it is fastest when a message's size is known: built in place in the caller's
// buffer, read where it lies. For the codec benchmark.
#include <capnp/message.h>

#include <cstring>

#include "bench/candidate.hpp"
#include "bench/fields.hpp"
#include "messages.capnp.h"

namespace kel::bench {
namespace {

using Words = kj::ArrayPtr<const capnp::word>;

constexpr size_t kWord = sizeof(capnp::word);

constexpr size_t wordsOfBytes(size_t count) { return (count + kWord - 1) / kWord; }

template <class Object>
constexpr size_t wordsOfStruct() {
  return capnp::_::structSize<Object>().total() / (1 * capnp::WORDS);
}

template <class Record>
struct ObjectOf;
template <class Record>
using Object = typename ObjectOf<Record>::Type;

#define KEL_DECLARE(Record)                                    \
  template <>                                                  \
  struct ObjectOf<Record> {                                    \
    using Type = cp::Record;                                   \
  };                                                           \
  void fill(const Record& record, cp::Record::Builder object); \
  bool take(cp::Record::Reader object, Record& record);        \
  size_t wordsOf(const Record& record);
KEL_FOR_EACH_RECORD(KEL_DECLARE)

template <class Entry, class Objects>
void fillEntries(const Entry* entries, Objects objects) {
  for (uint32_t i = 0; i < objects.size(); ++i) fill(entries[i], objects[i]);
}

template <class Record, class Objects>
bool takeEntries(Objects objects, Record& record) {
  using Entry = std::remove_pointer_t<decltype(record.entries)>;
  record.entries = allocateArray<Entry>(objects.size());
  record.entryCount = objects.size();
  bool taken = true;
  for (uint32_t i = 0; i < objects.size(); ++i) taken &= take(objects[i], record.entries[i]);
  return taken;
}

// The elements of one list are all of the same size, whatever they hold.
template <class Record>
size_t wordsOfEntries(const Record& record) {
  return 1 + (record.entryCount == 0 ? 0 : record.entryCount * wordsOf(record.entries[0]));
}

template <class Field>
bool takeBytes(capnp::Data::Reader bytes, Field& field) {
  if (bytes.size() != sizeof field) return false;
  std::memcpy(field, bytes.begin(), sizeof field);
  return true;
}

#define KEL_FILL_SCALAR(name, Name) object.set##Name(record.name);
// Where there is room, a copy of a size that the compiler knows is shorter than the setter's.
#define KEL_FILL_BYTES(name, Name) \
  std::memcpy(object.init##Name(sizeof record.name).begin(), record.name, sizeof record.name);
#define KEL_FILL_TEXT(name, Name) object.set##Name(record.name);
#define KEL_FILL_TABLE(name, Name) fill(record.name, object.init##Name());
#define KEL_FILL_ENTRIES(name, Name) fillEntries(record.name, object.init##Name(record.entryCount));

#define KEL_TAKE_SCALAR(name, Name) record.name = object.get##Name();
#define KEL_TAKE_BYTES(name, Name) taken &= takeBytes(object.get##Name(), record.name);
#define KEL_TAKE_TEXT(name, Name)                      \
  const capnp::Text::Reader name = object.get##Name(); \
  record.name = copyText(name.begin(), name.size());
#define KEL_TAKE_TABLE(name, Name) taken &= take(object.get##Name(), record.name);
#define KEL_TAKE_ENTRIES(name, Name) taken &= takeEntries(object.get##Name(), record);

#define KEL_SIZE_SCALAR(name, Name)
#define KEL_SIZE_BYTES(name, Name) +wordsOfBytes(sizeof record.name)
#define KEL_SIZE_TEXT(name, Name) +wordsOfBytes(std::strlen(record.name) + 1)
#define KEL_SIZE_TABLE(name, Name) +wordsOf(record.name)
#define KEL_SIZE_ENTRIES(name, Name) +wordsOfEntries(record)

#define KEL_DEFINE(Record)                                                                        \
  inline void fill([[maybe_unused]] const Record& record,                                         \
                   [[maybe_unused]] cp::Record::Builder object) {                                 \
    KEL_FIELDS_##Record(KEL_FILL_SCALAR, KEL_FILL_BYTES, KEL_FILL_TEXT, KEL_FILL_TABLE,           \
                        KEL_FILL_ENTRIES)                                                         \
  }                                                                                               \
  inline bool take([[maybe_unused]] cp::Record::Reader object, [[maybe_unused]] Record& record) { \
    bool taken = true;                                                                            \
    KEL_FIELDS_##Record(KEL_TAKE_SCALAR, KEL_TAKE_BYTES, KEL_TAKE_TEXT, KEL_TAKE_TABLE,           \
                        KEL_TAKE_ENTRIES) return taken;                                           \
  }                                                                                               \
  inline size_t wordsOf([[maybe_unused]] const Record& record) {                                  \
    return wordsOfStruct<cp::Record>() KEL_FIELDS_##Record(                                       \
        KEL_SIZE_SCALAR, KEL_SIZE_BYTES, KEL_SIZE_TEXT, KEL_SIZE_TABLE, KEL_SIZE_ENTRIES);        \
  }
KEL_FOR_EACH_RECORD(KEL_DEFINE)

struct CapnProto {
  // The builder wants zeroed memory, of exactly the size that the message takes.
  template <class Record>
  static uint32_t encode(const Record& record, uint8_t* out) {
    const size_t words = 1 + wordsOf(record);  // 1: the pointer to the root
    std::memset(out, 0, words * kWord);
    capnp::FlatMessageBuilder builder(kj::arrayPtr(reinterpret_cast<capnp::word*>(out), words));
    fill(record, builder.initRoot<Object<Record>>());
    return static_cast<uint32_t>(words * kWord);
  }
  template <class Record>
  static bool unpack(const Message&, std::span<const uint8_t> bytes, Record& record) {
    const Words segment[] = {
        {reinterpret_cast<const capnp::word*>(bytes.data()), bytes.size() / kWord}};
    capnp::ReaderOptions options;
    options.traversalLimitInWords = UINT64_MAX;
    capnp::SegmentArrayMessageReader reader(segment, options);
    return take(reader.getRoot<Object<Record>>(), record);
  }
};

}  // namespace

#define KEL_CAPN_PROTO(Record) \
  if (message == #Record) return rivalOf<CapnProto, Record>("Cap'n Proto");
Candidate rival::capnProto(std::string_view message) {
  KEL_FOR_EACH_MESSAGE_RECORD(KEL_CAPN_PROTO)
  std::abort();
}

}  // namespace kel::bench
