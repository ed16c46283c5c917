// Candidates' encodings of a pool of records.
#include "bench/trial.hpp"

#include <cstdio>
#include <cstring>
#include <random>

namespace kel::bench {
namespace {

constexpr size_t kPage = 4096;
constexpr size_t kFarthest = kPage / 2;  // so that a message without a list stays within the page

}  // namespace

ScatteredBytes::ScatteredBytes(size_t size) : memory_(size + 2 * kPage) {
  void* page = memory_.data();
  size_t room = memory_.size();
  std::align(kPage, size, page, room);
  begin_ =
      static_cast<uint8_t*>(page) + std::random_device{}() % (kFarthest / kAlignment) * kAlignment;
}

// The most wasteful encoding takes less than five times the room of what it encodes: a byte in a
// field of its own, with a key and four bytes of value.
size_t roomForAny(const RecordPool& pool) { return 5 * pool.bytesEach() + kPage; }

Encodings::Encodings(const Message& message, const Candidate& candidate, const RecordPool& pool)
    : candidate_(candidate), bytes_(pool.size() * roomForAny(pool)) {
  uint8_t* at = bytes_.data();
  for (size_t i = 0; i < pool.size(); ++i) {
    Item item{pool.record(i), at, 0, nullptr};
    item.length = candidate.encode(message, item, at);
    if (candidate.encoded != nullptr) std::memcpy(at, candidate.encoded(), item.length);
    if (candidate.makeObject != nullptr) item.object = candidate.makeObject(item.record);
    requireSameRecord(message, item);
    items_.push_back(item);
    at += aligned(item.length);
  }
}

Encodings::~Encodings() {
  for (const Item& item : items_) {
    if (item.object != nullptr) candidate_.dropObject(item.object);
  }
}

double Encodings::meanLength() const {
  double sum = 0;
  for (const Item& item : items_) sum += item.length;
  return sum / static_cast<double>(items_.size());
}

void Encodings::requireSameRecord(const Message& message, const Item& item) const {
  fuzz::RecordRoom record{};
  if (candidate_.unpack(message, item, record.bytes) == 0 ||
      !fuzz::sameRecord(*message.shape, item.record, record.bytes)) {
    std::fprintf(stderr, "%s: %s does not decode what it has encoded\n", message.name.c_str(),
                 candidate_.name.data());
    std::abort();
  }
  candidate_.release(message, record.bytes);
}

std::vector<std::unique_ptr<Encodings>> rivalEncodings(const Message& message,
                                                       const RecordPool& pool) {
  std::vector<std::unique_ptr<Encodings>> encodings;
  for (const auto rival : {rival::protobuf, rival::protobufArena, rival::nanopb, rival::capnProto,
                           rival::msgpack, rival::msgpackForced}) {
    encodings.push_back(std::make_unique<Encodings>(message, rival(message.name), pool));
  }
  return encodings;
}

}  // namespace kel::bench
