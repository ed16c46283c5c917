// Every message's encoding and decoding, ours against its limits and its rivals, as benchmarks
// whose counters are the medians of a contest at either pace. "<pace>/ns/<entrant>" is an
// operation's time, the empty one subtracted; "<pace>/ratio/<entrant>" is what ours takes, divided
// by that; "bytes" the mean encoded size.
#include <benchmark/benchmark.h>

#include <cstring>
#include <optional>

#include "bench/contest.hpp"
#include "bench/trial.hpp"

namespace kel::bench {
namespace {

constexpr double kSecondsForEach = 0.15;
constexpr uint32_t kMillion = 1'000'000;

enum class Direction : uint8_t { encode, encodeFixed, decode, decodeFixed };

std::string nameOf(Direction direction) {
  constexpr const char* kNames[] = {"encode", "encode fixed", "decode", "decode fixed"};
  return kNames[static_cast<size_t>(direction)];
}

bool isFixed(Direction direction) {
  return direction == Direction::encodeFixed || direction == Direction::decodeFixed;
}
bool decodes(Direction direction) { return direction >= Direction::decode; }

uint32_t copyBytes(const Message&, const Item& item, uint8_t* out) {
  std::memcpy(out, item.bytes, item.length);
  return item.length;
}

uint32_t copyRecord(const Message& message, const Item& item, uint8_t* out) {
  std::memcpy(out, item.record, message.shape->recordSize);
  return 1;
}

// As much as a text, from a message's end, where AlarmOutput has it.
uint32_t copyTextToTheHeap(const Message&, const Item& item, uint8_t*) {
  size_t length = kTextLength;
  asm volatile("" : "+r"(length));  // no compile-time constant to a decoder
  char* text = copyText(item.bytes + item.length - length - 1, length);
  asm volatile("" : "+r"(text) : : "memory");
  std::free(text);
  return 1;
}

// One row of the tables: a contest over one message with one filling.
class Row {
 public:
  Row(const Message& message, Direction direction, Filling filling, uint32_t entries)
      : message_(message),
        direction_(direction),
        pool_(*message.shape, filling, entries),
        ours_(message, us(), pool_),
        out_(roomForAny(pool_)) {
    enter("ours", ours_, operationOf(ours_.candidate()));
    enter("memcpy", ours_, copyBytes);
    const fuzz::Shape& shape = *message.shape;
    if (!shape.owns(fuzz::Kind::vector)) enter("memcpy of the record", ours_, copyRecord);
    if (shape.owns(fuzz::Kind::string)) enter("malloc, copy, free", ours_, copyTextToTheHeap);
    if (!decodes(direction)) enter("two empty calls", ours_, callTwice);
    if (entries != kMillion) enterRivals();
    if (filling == Filling::random) enterOursAllSet(entries);
  }

  void compete(benchmark::State& state) {
    for (const Pace pace : {Pace::backToBack, Pace::isolated}) compete(pace, state);
    state.counters["bytes"] = ours_.meanLength();
    if (oursAllSet_) state.counters["bytes all set"] = oursAllSet_->meanLength();
  }

 private:
  [[nodiscard]] Candidate us() const {
    return isFixed(direction_) ? oursInFixedLayout(message_) : ours(message_);
  }
  [[nodiscard]] Operation operationOf(const Candidate& candidate) const {
    return decodes(direction_) ? candidate.decode : candidate.encode;
  }
  void compete(Pace pace, benchmark::State& state) {
    const std::vector<Outcome> outcomes =
        kel::bench::compete(message_, entrants_, pace, out_.data(), kSecondsForEach);
    const std::string prefix = std::string(nameOf(pace)) + "/";
    for (size_t i = 0; i < entrants_.size(); ++i) {
      state.counters[prefix + "ns/" + entrants_[i].name] = outcomes[i].nanoseconds;
      state.counters[prefix + "ratio/" + entrants_[i].name] = outcomes[i].ratio;
    }
    state.SetIterationTime(outcomes.front().nanoseconds * 1e-9);
  }
  void enter(std::string name, const Encodings& encodings, Operation operation) {
    entrants_.push_back({std::move(name), operation, &encodings.items()});
  }
  void enterRivals() {
    rivals_ = rivalEncodings(message_, pool_);
    for (const auto& rival : rivals_) {
      const Candidate& candidate = rival->candidate();
      if (operationOf(candidate) == nullptr) continue;
      enter(std::string(candidate.name), *rival, operationOf(candidate));
      if (!decodes(direction_) && candidate.encodeAlone != nullptr) {
        enter(std::string(candidate.name) + ", encoding alone", *rival, candidate.encodeAlone);
      }
    }
  }
  void enterOursAllSet(uint32_t entries) {
    allSet_.emplace(*message_.shape, Filling::allSet, entries);
    oursAllSet_.emplace(message_, us(), *allSet_);
    enter("ours, all set", *oursAllSet_, operationOf(oursAllSet_->candidate()));
  }

  const Message& message_;
  Direction direction_;
  RecordPool pool_;
  Encodings ours_;
  ScatteredBytes out_;
  std::vector<std::unique_ptr<Encodings>> rivals_;
  std::optional<RecordPool> allSet_;
  std::optional<Encodings> oursAllSet_;
  std::vector<Entrant> entrants_;
};

void add(const Message& message, Direction direction, Filling filling, uint32_t entries) {
  const std::string name = nameOf(direction) + "/" + message.name + "/" + std::to_string(entries) +
                           "/" + std::string(nameOf(filling));
  benchmark::RegisterBenchmark(name.c_str(),
                               [&message, direction, filling, entries](benchmark::State& state) {
                                 Row row(message, direction, filling, entries);
                                 for ([[maybe_unused]] auto iteration : state) row.compete(state);
                               })
      ->Iterations(1)
      ->UseManualTime();
}

void addSizes(const Message& message, Direction direction, Filling filling) {
  if (!message.shape->owns(fuzz::Kind::vector)) return add(message, direction, filling, 0);
  for (const uint32_t entries : {1, 100, 10'000}) add(message, direction, filling, entries);
}

void addAll() {
  for (const Message& message : fuzz::allMessages()) {
    if (isTwin(message)) continue;
    for (const Filling filling : {Filling::allSet, Filling::random, Filling::half}) {
      addSizes(message, Direction::encode, filling);
      addSizes(message, Direction::decode, filling);
      if (message.fixedPack == nullptr) continue;
      add(message, Direction::encodeFixed, filling, 0);
      add(message, Direction::decodeFixed, filling, 0);
    }
    if (message.name == "StorageEraseInfo") {
      add(message, Direction::encode, Filling::random, kMillion);
    }
  }
}

}  // namespace
}  // namespace kel::bench

int main(int argc, char** argv) {
  kel::bench::addAll();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
