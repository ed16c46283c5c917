// Protobuf as its documentation has it fastest: fixed-width integers, message objects used again,
// or an arena with a first block of its own. For the codec benchmark.
#include <cstring>

#include "bench/candidate.hpp"
#include "bench/fields.hpp"
#include "messages.pb.h"

namespace kel::bench {
namespace {

template <class Record>
struct ObjectOf;
template <class Record>
using Object = typename ObjectOf<Record>::Type;

// A string that is used again has its size already.
inline void putBytes(std::string& string, const void* bytes, size_t size) {
  if (string.size() != size) string.resize(size);
  std::memcpy(string.data(), bytes, size);
}

template <class Field>
bool takeBytes(const std::string& bytes, Field& field) {
  if (bytes.size() != sizeof field) return false;
  std::memcpy(field, bytes.data(), sizeof field);
  return true;
}

#define KEL_DECLARE(Record)                            \
  template <>                                          \
  struct ObjectOf<Record> {                            \
    using Type = pb::Record;                           \
  };                                                   \
  void fill(const Record& record, pb::Record& object); \
  bool take(const pb::Record& object, Record& record);
KEL_FOR_EACH_RECORD(KEL_DECLARE)

// Objects that are there already are filled again: clearing them first would only cost time.
template <class Entry, class Objects>
void fillEntries(const Entry* entries, uint32_t count, Objects& objects) {
  const auto wanted = static_cast<int>(count);
  while (objects.size() > wanted) objects.RemoveLast();
  objects.Reserve(wanted);
  for (int i = 0; i < wanted; ++i) {
    fill(entries[i], i < objects.size() ? *objects.Mutable(i) : *objects.Add());
  }
}

template <class Record, class Objects>
bool takeEntries(const Objects& objects, Record& record) {
  using Entry = std::remove_pointer_t<decltype(record.entries)>;
  record.entries = allocateArray<Entry>(static_cast<size_t>(objects.size()));
  Entry* entry = record.entries;
  bool taken = true;
  for (const auto& object : objects) taken &= take(object, *entry++);
  record.entryCount = static_cast<uint32_t>(objects.size());
  return taken;
}

#define KEL_FILL_SCALAR(name, Name) object.set_##name(record.name);
// The setters would make a temporary string.
#define KEL_FILL_BYTES(name, Name) \
  putBytes(*object.mutable_##name(), record.name, sizeof record.name);
#define KEL_FILL_TEXT(name, Name) \
  putBytes(*object.mutable_##name(), record.name, std::strlen(record.name));
#define KEL_FILL_TABLE(name, Name) fill(record.name, *object.mutable_##name());
#define KEL_FILL_ENTRIES(name, Name) \
  fillEntries(record.name, record.entryCount, *object.mutable_##name());

#define KEL_TAKE_SCALAR(name, Name) record.name = static_cast<decltype(record.name)>(object.name());
#define KEL_TAKE_BYTES(name, Name) taken &= takeBytes(object.name(), record.name);
#define KEL_TAKE_TEXT(name, Name) \
  record.name = copyText(object.name().data(), object.name().size());
#define KEL_TAKE_TABLE(name, Name) taken &= take(object.name(), record.name);
#define KEL_TAKE_ENTRIES(name, Name) taken &= takeEntries(object.name(), record);

#define KEL_DEFINE(Record)                                                                       \
  inline void fill([[maybe_unused]] const Record& record, [[maybe_unused]] pb::Record& object) { \
    KEL_FIELDS_##Record(KEL_FILL_SCALAR, KEL_FILL_BYTES, KEL_FILL_TEXT, KEL_FILL_TABLE,          \
                        KEL_FILL_ENTRIES)                                                        \
  }                                                                                              \
  inline bool take([[maybe_unused]] const pb::Record& object, [[maybe_unused]] Record& record) { \
    bool taken = true;                                                                           \
    KEL_FIELDS_##Record(KEL_TAKE_SCALAR, KEL_TAKE_BYTES, KEL_TAKE_TEXT, KEL_TAKE_TABLE,          \
                        KEL_TAKE_ENTRIES) return taken;                                          \
  }
KEL_FOR_EACH_RECORD(KEL_DEFINE)

template <class Message>
uint32_t serialize(const Message& object, uint8_t* out) {
  const size_t size = object.ByteSizeLong();
  object.SerializeWithCachedSizesToArray(out);
  return static_cast<uint32_t>(size);
}

// No field is required, so that there is nothing to look for when all has been read.
template <class Record>
bool parse(std::span<const uint8_t> bytes, Object<Record>& object, Record& record) {
  return object.ParsePartialFromArray(bytes.data(), static_cast<int>(bytes.size())) &&
         take(object, record);
}

template <class Record>
Object<Record> reused;

struct Reused {
  // With the arena below the filling has two users, which would keep it from being inlined.
  template <class Record>
  [[gnu::flatten]] static uint32_t encode(const Record& record, uint8_t* out) {
    fill(record, reused<Record>);
    return serialize(reused<Record>, out);
  }
  template <class Record>
  [[gnu::flatten]] static bool unpack(const Message&, std::span<const uint8_t> bytes,
                                      Record& record) {
    return parse(bytes, reused<Record>, record);
  }
};

class Arena {
 public:
  template <class Record>
  static uint32_t encode(const Record& record, uint8_t* out) {
    auto* const object = google::protobuf::Arena::CreateMessage<Object<Record>>(&arena_);
    fill(record, *object);
    const uint32_t size = serialize(*object, out);
    arena_.Reset();
    return size;
  }
  template <class Record>
  static bool unpack(const Message&, std::span<const uint8_t> bytes, Record& record) {
    auto* const object = google::protobuf::Arena::CreateMessage<Object<Record>>(&arena_);
    const bool done = parse(bytes, *object, record);
    arena_.Reset();
    return done;
  }

 private:
  static google::protobuf::ArenaOptions options() {
    alignas(16) static char firstBlock[size_t{8} << 20];  // more than long lists fill
    google::protobuf::ArenaOptions options;
    options.initial_block = firstBlock;
    options.initial_block_size = sizeof firstBlock;
    return options;
  }
  static google::protobuf::Arena arena_;
};
google::protobuf::Arena Arena::arena_(options());

template <class Record>
Candidate reusedOf() {
  return withObjects<Record, Object<Record>, fill, serialize<Object<Record>>>(
      rivalOf<Reused, Record>("protobuf"));
}

}  // namespace

namespace rival {

#define KEL_REUSED(Record) \
  if (message == #Record) return reusedOf<Record>();
Candidate protobuf(std::string_view message) {
  KEL_FOR_EACH_MESSAGE_RECORD(KEL_REUSED)
  std::abort();
}

#define KEL_ARENA(Record) \
  if (message == #Record) return rivalOf<Arena, Record>("protobuf, arena");
Candidate protobufArena(std::string_view message) {
  KEL_FOR_EACH_MESSAGE_RECORD(KEL_ARENA)
  std::abort();
}

}  // namespace rival
}  // namespace kel::bench
