// Operations timed against each other: in turn, in short slices, within one process, so that what
// disturbs the machine disturbs all of them. For bench/.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "bench/candidate.hpp"

namespace kel::bench {

// An operation with what it works on. The items stay the caller's.
struct Entrant {
  std::string name;
  Operation operation;
  const std::vector<Item>* items;
};

// Back to back, a processor runs the next operations while the last one is still under way: what a
// busy server pays. A short copy then hides behind the loop's own work, and a ratio to it tells
// little. Isolated, each operation ends before the next begins: what a single message pays.
enum class Pace : uint8_t { backToBack, isolated };

std::string_view nameOf(Pace pace);

struct Outcome {
  double nanoseconds;  // one operation, the empty one subtracted
  double ratio;        // what the first entrant takes, divided by what this one takes
};

// Runs rounds until the time is up and enough have run, and returns the medians over the rounds, in
// the order of the entrants. Both figures of an outcome are formed within each round. out is room
// for any result.
std::vector<Outcome> compete(const Message& message, const std::vector<Entrant>& entrants,
                             Pace pace, uint8_t* out, double seconds);

}  // namespace kel::bench
