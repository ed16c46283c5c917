// The rounds.
#include "bench/contest.hpp"

#include <algorithm>
#include <chrono>

namespace kel::bench {
namespace {

using Clock = std::chrono::steady_clock;

constexpr double kSliceNanoseconds = 150'000;
constexpr size_t kFewestRounds = 15;

double nanosecondsSince(Clock::time_point begin) {
  return std::chrono::duration<double, std::nano>(Clock::now() - begin).count();
}

uint32_t doNothing(const Message&, const Item& item, uint8_t*) { return item.length; }

// Waits until everything before it is done.
inline void drain() {
#if defined(__x86_64__)
  asm volatile("lfence" : : : "memory");
#else
  asm volatile("isb" : : : "memory");
#endif
}

class Contest {
 public:
  Contest(const Message& message, Pace pace, uint8_t* out)
      : message_(message), pace_(pace), out_(out) {}

  // The time of one operation, in nanoseconds.
  double slice(const Entrant& entrant, size_t count, uint64_t seed) const {
    run(entrant, 2 * entrant.items->size(), ~seed);  // fills caches and predictors again
    const Clock::time_point begin = Clock::now();
    run(entrant, count, seed);
    return nanosecondsSince(begin) / static_cast<double>(count);
  }

  [[nodiscard]] size_t countForASlice(const Entrant& entrant) const {
    for (size_t count = 1;; count *= 2) {
      const double each = slice(entrant, count, 1);
      if (each * static_cast<double>(count) < kSliceNanoseconds / 2) continue;
      return std::max<size_t>(1, static_cast<size_t>(kSliceNanoseconds / each));
    }
  }

 private:
  void run(const Entrant& entrant, size_t count, uint64_t seed) const {
    if (pace_ == Pace::isolated) {
      visit(entrant, count, seed, drain);
    } else {
      visit(entrant, count, seed, [] {});
    }
  }

  // Visits items in an order that is new for every seed and the same for every entrant. Made on the
  // way, since a branch predictor learns any order that repeats; and no index waits for the last,
  // or a short operation would hide behind that.
  template <class After>
  [[gnu::always_inline]] void visit(const Entrant& entrant, size_t count, uint64_t seed,
                                    After after) const {
    const Item* const items = entrant.items->data();
    const uint64_t size = entrant.items->size();
    for (size_t i = 0; i < count; ++i) {
      seed += 0x9E3779B97F4A7C15;
      const uint64_t mixed = (seed ^ (seed >> 32)) * 0xBF58476D1CE4E5B9;
      entrant.operation(message_, items[((mixed >> 32) * size) >> 32], out_);
      after();
    }
  }

  const Message& message_;
  Pace pace_;
  uint8_t* out_;
};

double median(std::vector<double>& values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

}  // namespace

std::string_view nameOf(Pace pace) { return pace == Pace::isolated ? "isolated" : "back to back"; }

std::vector<Outcome> compete(const Message& message, const std::vector<Entrant>& entrants,
                             Pace pace, uint8_t* out, double seconds) {
  const Contest contest(message, pace, out);
  const Entrant empty{"", doNothing, entrants.front().items};
  const size_t emptyCount = contest.countForASlice(empty);
  std::vector<size_t> counts;
  for (const Entrant& entrant : entrants) counts.push_back(contest.countForASlice(entrant));

  std::vector<std::vector<double>> times(entrants.size());
  std::vector<std::vector<double>> ratios(entrants.size());
  const Clock::time_point begin = Clock::now();
  for (uint64_t round = 1; round <= kFewestRounds || nanosecondsSince(begin) < seconds * 1e9;
       ++round) {
    const double nothing = contest.slice(empty, emptyCount, round);
    for (size_t i = 0; i < entrants.size(); ++i) {
      times[i].push_back(contest.slice(entrants[i], counts[i], round) - nothing);
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
