// Our own routines as candidates, by the entry points that ship.
#include <algorithm>

#include "bench/candidate.hpp"

namespace kel::bench {
namespace {

[[gnu::always_inline]] inline uint32_t sizeAndPack(IdlPackFn pack, const Item& item, uint8_t* out) {
  uint32_t size = 0;
  const PackTarget target{out, &size};
  size = pack(nullptr, item.record);
  return pack(&target, item.record);
}

uint32_t encode(const Message& message, const Item& item, uint8_t* out) {
  return sizeAndPack(message.pack, item, out);
}

uint32_t packNothing(const PackTarget*, const void*) { return 1; }
// To the compiler it might be any routine, or the calls would not be made.
IdlPackFn volatile packNothingByPointer = packNothing;

uint32_t encodeFixed(const Message& message, const Item& item, uint8_t* out) {
  const uint32_t size = message.fixedSize();
  message.fixedPack(out, item.record);
  return size;
}

uint32_t unpack(const Message& message, const Item& item, uint8_t* out) {
  return message.unpack(item.bytes, item.length, out) == 0 ? 0 : 1;
}

uint32_t unpackAndRelease(const Message& message, const Item& item, uint8_t* out) {
  const uint32_t done = unpack(message, item, out);
  message.release(out);
  return done;
}

void release(const Message& message, void* record) {
  if (message.release != nullptr) message.release(record);
}

}  // namespace

uint32_t callTwice(const Message&, const Item& item, uint8_t* out) {
  return sizeAndPack(packNothingByPointer, item, out);
}

bool isTwin(const Message& message) {
  const auto first = std::ranges::find(fuzz::allMessages(), message.shape, &Message::shape);
  return first->name != message.name;
}

// A host has nothing to release where no record points at memory.
Candidate ours(const Message& message) {
  const Operation decode = message.shape->ownsMemory() ? unpackAndRelease : unpack;
  return {"ours", encode, decode, unpack, release};
}

Candidate oursInFixedLayout(const Message& message) {
  Candidate candidate = ours(message);
  candidate.encode = encodeFixed;
  return candidate;
}

}  // namespace kel::bench
