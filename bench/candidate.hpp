// A way to encode and decode one message, ours or a rival's, as the rounds call it. For bench/.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <span>
#include <string_view>

#include "fuzz/messages.hpp"

namespace kel::bench {

using fuzz::Message;

// More than any encoding measured here takes, for those that check a buffer's size themselves.
inline constexpr size_t kCapacity = size_t{1} << 30;

// What one operation works on: a record, its encoding by the candidate in question, and the
// candidate's own message object where it has one.
struct Item {
  const void* record;
  const uint8_t* bytes;
  uint32_t length;
  const void* object;
};

// Returns the number of bytes that an encoding took, or whether a decoding succeeded. out is room
// for either result. A pointer, so that every operation costs the same call, the empty one too.
using Operation = uint32_t (*)(const Message& message, const Item& item, uint8_t* out);

struct Candidate {
  std::string_view name;
  Operation encode;  // from the record
  Operation decode;  // into a record, and what that allocated released again; null if not measured
  Operation unpack;  // the same without the release
  void (*release)(const Message& message, void* record);
  // Where the last encoding lies; null if that is out.
  const uint8_t* (*encoded)() = nullptr;
  // Null where the candidate fills no message object of its own.
  Operation encodeAlone = nullptr;
  const void* (*makeObject)(const void* record) = nullptr;
  void (*dropObject)(const void* object) = nullptr;
};

// Whether it shares its record and its schema with an earlier message, and so has the same code
// under another name. Measured once is enough.
bool isTwin(const Message& message);

// What our encoding takes before it does anything: the two calls that a framework makes, to a
// routine that does nothing.
uint32_t callTwice(const Message& message, const Item& item, uint8_t* out);

Candidate ours(const Message& message);
Candidate oursInFixedLayout(const Message& message);  // of a message that has one

namespace rival {
Candidate protobuf(std::string_view message);
Candidate protobufArena(std::string_view message);
Candidate nanopb(std::string_view message);
Candidate capnProto(std::string_view message);
Candidate msgpack(std::string_view message);
Candidate msgpackForced(std::string_view message);
}  // namespace rival

// Room for an array of a rival's making, as releaseRecord gives it back.
template <class Element>
Element* allocateArray(size_t count) {
  return static_cast<Element*>(std::malloc(count * sizeof(Element)));
}

inline char* copyText(const void* characters, size_t length) {
  char* const text = allocateArray<char>(length + 1);
  std::memcpy(text, characters, length);
  text[length] = '\0';
  return text;
}

template <class Record>
void releaseRecord(Record& record) {
  if constexpr (requires { record.text; }) std::free(const_cast<char*>(record.text));
  if constexpr (requires { record.entries; }) std::free(record.entries);
}

// Codec gives encode(record, out), which returns a size, and unpack(message, bytes, record), which
// returns whether it succeeded.
template <class Codec, class Record>
constexpr Candidate rivalOf(std::string_view name) {
  constexpr Operation unpack = [](const Message& message, const Item& item,
                                  uint8_t* out) -> uint32_t {
    const std::span<const uint8_t> bytes(item.bytes, item.length);
    return Codec::unpack(message, bytes, *reinterpret_cast<Record*>(out));
  };
  return {name,
          [](const Message&, const Item& item, uint8_t* out) -> uint32_t {
            return Codec::encode(*static_cast<const Record*>(item.record), out);
          },
          [](const Message& message, const Item& item, uint8_t* out) -> uint32_t {
            const uint32_t done = unpack(message, item, out);
            releaseRecord(*reinterpret_cast<Record*>(out));
            return done;
          },
          unpack,
          [](const Message&, void* record) { releaseRecord(*static_cast<Record*>(record)); }};
}

// The same candidate with a message object of its own.
template <class Record, class Object, void Fill(const Record&, Object&),
          uint32_t Serialize(const Object&, uint8_t*)>
Candidate withObjects(Candidate candidate) {
  candidate.encodeAlone = [](const Message&, const Item& item, uint8_t* out) {
    return Serialize(*static_cast<const Object*>(item.object), out);
  };
  candidate.makeObject = [](const void* record) -> const void* {
    auto* const object = new Object;
    Fill(*static_cast<const Record*>(record), *object);
    return object;
  };
  candidate.dropObject = [](const void* object) { delete static_cast<const Object*>(object); };
  return candidate;
}

}  // namespace kel::bench
