// Runs every operation of ours between two calls of one marked function, so that count_instructions
// finds them in a trace, and prints what each was, in the same order.
#include <array>
#include <cstdio>

#include "bench/candidate.hpp"
#include "bench/record_pool.hpp"

extern "C" [[gnu::noinline]] void kel_bench_mark() { asm volatile(""); }

namespace kel::bench {
namespace {

constexpr size_t kRecords = 8;
constexpr uint32_t kEntries = 100;

alignas(16) std::array<uint8_t, 65536> out;
alignas(16) std::array<uint8_t, 65536> encoded;

uint32_t doNothing(const Message&, const Item& item, uint8_t*) { return item.length; }

void run(const char* direction, const Message& message, Filling filling, Operation operation,
         const Item& item) {
  std::printf("%s/%s/%s\n", direction, message.name.c_str(), nameOf(filling).data());
  kel_bench_mark();
  operation(message, item, out.data());
  kel_bench_mark();
}

void runAll(const Message& message, Filling filling) {
  const bool isList = message.shape->owns(fuzz::Kind::vector);
  const RecordPool pool(*message.shape, filling, kEntries, isList ? 1 : kRecords);
  const Candidate candidate = ours(message);
  for (size_t i = 0; i < pool.size(); ++i) {
    Item item{pool.record(i), encoded.data(), 0, nullptr};
    item.length = candidate.encode(message, item, encoded.data());
    candidate.decode(message, item, out.data());  // everything is bound and set up now
    run("nothing", message, filling, doNothing, item);
    run("encode", message, filling, candidate.encode, item);
    run("decode", message, filling, candidate.decode, item);
    if (message.fixedPack == nullptr) continue;
    const Candidate fixed = oursInFixedLayout(message);
    item.length = fixed.encode(message, item, encoded.data());
    run("encode fixed", message, filling, fixed.encode, item);
    run("decode fixed", message, filling, fixed.decode, item);
  }
}

}  // namespace
}  // namespace kel::bench

int main() {
  using namespace kel::bench;
  for (const Message& message : kel::fuzz::allMessages()) {
    if (isTwin(message)) continue;
    for (const Filling filling : {Filling::allSet, Filling::random}) runAll(message, filling);
  }
}
