// Counts what one encoding and one decoding ask of the heap, for every message and candidate, once
// each has what it keeps. Prints JSON. A program of its own, since counting takes time.
#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>

#include "bench/trial.hpp"

namespace {

uint64_t allocations = 0;

}  // namespace

extern "C" {

// The C library's own, by the names under which it keeps them for those who stand in for it.
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);
void* __libc_memalign(size_t alignment, size_t size);

[[gnu::visibility("default")]] void* malloc(size_t size) {
  ++allocations;
  return __libc_malloc(size);
}
[[gnu::visibility("default")]] void* calloc(size_t count, size_t size) {
  ++allocations;
  return __libc_calloc(count, size);
}
[[gnu::visibility("default")]] void* realloc(void* block, size_t size) {
  ++allocations;
  return __libc_realloc(block, size);
}
[[gnu::visibility("default")]] void* aligned_alloc(size_t alignment, size_t size) {
  ++allocations;
  return __libc_memalign(alignment, size);
}

}  // extern "C"

namespace kel::bench {
namespace {

constexpr uint32_t kEntries = 100;

uint64_t countOf(const Message& message, const Item& item, Operation operation, uint8_t* out) {
  operation(message, item, out);  // whatever is kept for the next time is there now
  const uint64_t before = allocations;
  operation(message, item, out);
  return allocations - before;
}

void count(const Message& message, nlohmann::json& counts) {
  const RecordPool pool(*message.shape, Filling::allSet, kEntries, 1);
  const ScatteredBytes out(roomForAny(pool));
  auto candidates = rivalEncodings(message, pool);
  candidates.push_back(std::make_unique<Encodings>(message, ours(message), pool));
  for (const auto& encodings : candidates) {
    const Candidate& candidate = encodings->candidate();
    if (candidate.decode == nullptr) continue;
    const Item& item = encodings->items().front();
    counts[message.name][candidate.name] = {
        {"encode", countOf(message, item, candidate.encode, out.data())},
        {"decode", countOf(message, item, candidate.decode, out.data())}};
  }
}

}  // namespace
}  // namespace kel::bench

int main() {
  nlohmann::json counts;
  for (const kel::bench::Message& message : kel::fuzz::allMessages()) {
    if (!kel::bench::isTwin(message)) kel::bench::count(message, counts);
  }
  std::puts(counts.dump(1).c_str());
}
