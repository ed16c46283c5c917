// The rounds.
#include "bench/contest.hpp"

#include <algorithm>
#include <chrono>

namespace kel::bench {
namespace {

using Clock = std::chrono::steady_clock;

constexpr double kSliceNanoseconds = 150'000;
constexpr size_t kFewestRounds = 7;

double nanosecondsSince(Clock::time_point begin) {
  return std::chrono::duration<double, std::nano>(Clock::now() - begin).count();
}

uint32_t doNothing(const Message&, const Item& item, uint8_t*) { return item.length; }

// Waits until everything before it is done. Without it a processor runs the next operations while
// the last one is still under way, a short copy hides behind the loop's own work, and a ratio to it
// means nothing.
inline void drain() {
#if defined(__x86_64__)
  asm volatile("lfence" : : : "memory");
#else
  asm volatile("isb" : : : "memory");
#endif
}

// Visits items in an order that is new for every seed and the same for every entrant. Made on the
// way, since a branch predictor learns any order that repeats.
void run(const Message& message, const Entrant& entrant, size_t count, uint64_t seed,
         uint8_t* out) {
  const Item* const items = entrant.items->data();
  const uint64_t size = entrant.items->size();
  for (size_t i = 0; i < count; ++i) {
    seed = seed * 6364136223846793005 + 1442695040888963407;
    entrant.operation(message, items[((seed >> 32) * size) >> 32], out);
    drain();
  }
}

double slice(const Message& message, const Entrant& entrant, size_t count, uint64_t seed,
             uint8_t* out) {
  run(message, entrant, count / 4, ~seed,
      out);  // brings caches and predictors back to this entrant
  const Clock::time_point begin = Clock::now();
  run(message, entrant, count, seed, out);
  return nanosecondsSince(begin) / static_cast<double>(count);
}

size_t countForASlice(const Message& message, const Entrant& entrant, uint8_t* out) {
  for (size_t count = 1;; count *= 2) {
    const double each = slice(message, entrant, count, 1, out);
    if (each * static_cast<double>(count) < kSliceNanoseconds / 2) continue;
    return std::max<size_t>(1, static_cast<size_t>(kSliceNanoseconds / each));
  }
}

double median(std::vector<double>& values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

}  // namespace

std::vector<Outcome> compete(const Message& message, const std::vector<Entrant>& entrants,
                             uint8_t* out, double seconds) {
  const Entrant empty{"", doNothing, entrants.front().items};
  const size_t emptyCount = countForASlice(message, empty, out);
  std::vector<size_t> counts;
  for (const Entrant& entrant : entrants) counts.push_back(countForASlice(message, entrant, out));

  std::vector<std::vector<double>> times(entrants.size());
  std::vector<std::vector<double>> ratios(entrants.size());
  const Clock::time_point begin = Clock::now();
  for (uint64_t round = 1; round <= kFewestRounds || nanosecondsSince(begin) < seconds * 1e9;
       ++round) {
    const double nothing = slice(message, empty, emptyCount, round, out);
    for (size_t i = 0; i < entrants.size(); ++i) {
      times[i].push_back(slice(message, entrants[i], counts[i], round, out) - nothing);
      ratios[i].push_back(times[0].back() / times[i].back());
    }
  }

  std::vector<Outcome> outcomes;
  for (size_t i = 0; i < entrants.size(); ++i) {
    outcomes.push_back({median(times[i]), median(ratios[i])});
  }
  return outcomes;
}

}  // namespace kel::bench
