// Records of any schema: made at random, compared, and freed. For tests.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <random>
#include <span>

#include "codec/korva_schema.hpp"

namespace kel::test {

using Random = std::mt19937_64;

// Fills a record: scalars zero half of the time, now and then at their limits or of a single bit,
// to show up code that looks at a part of a scalar only; strings absent, empty or up to 40
// characters, vectors up to maximumEntries. Strings and arrays come from malloc.
class RecordMaker {
 public:
  RecordMaker(Random& random, uint32_t maximumEntries)
      : random_(random), maximumEntries_(maximumEntries) {}

  template <class Record>
  void fill(Record& record) {
    std::memset(static_cast<void*>(&record), 0xEE, sizeof(Record));  // padding must not matter
    korva::forEachSlot<Record>([&]<class Slot, size_t>() { fillSlot<Slot>(record); });
  }

 private:
  uint64_t below(uint64_t limit) { return random_() % limit; }

  template <class Slot, class Record>
  void fillSlot(Record& record) {
    auto& field = Slot::get(record);
    using enum korva::SlotKind;
    if constexpr (Slot::kind == scalar) {
      field = static_cast<typename Slot::Type>(scalarBits());
    } else if constexpr (Slot::kind == byteArray) {
      for (size_t i = 0; i < sizeof(field); i += sizeof(uint64_t)) {
        const uint64_t bits = random_();
        std::memcpy(&field[i], &bits, std::min(sizeof(bits), sizeof(field) - i));
      }
    } else if constexpr (Slot::kind == table) {
      fill(field);
    } else if constexpr (Slot::kind == string) {
      field = below(4) != 0 ? makeString() : nullptr;
    } else {
      Slot::count(record) = static_cast<uint32_t>(below(maximumEntries_ + 1));
      field = nullptr;
      if (below(8) == 0) return;  // a count without an array
      field = static_cast<typename Slot::Element*>(
          std::malloc(std::max(Slot::count(record), 1U) * sizeof(*field)));
      for (uint32_t i = 0; i < Slot::count(record); ++i) fill(field[i]);
    }
  }

  uint64_t scalarBits() {
    const uint64_t values[] = {UINT64_MAX, uint64_t{1} << below(64), random_(), random_(), 0, 0, 0,
                               0};
    return values[below(std::size(values))];
  }

  char* makeString() {
    const size_t length = below(41);
    auto* const text = static_cast<char*>(std::malloc(length + 1));
    std::generate_n(text, length, [&] { return static_cast<char>('!' + below(90)); });
    text[length] = '\0';
    return text;
  }

  Random& random_;
  uint32_t maximumEntries_;
};

// Frees what a RecordMaker made.
template <class Record>
void discard(Record& record) {
  korva::forEachSlot<Record>([&]<class Slot, size_t>() {
    if constexpr (Slot::kind == korva::SlotKind::string || Slot::kind == korva::SlotKind::vector) {
      std::free(const_cast<void*>(static_cast<const void*>(Slot::get(record))));
      Slot::get(record) = nullptr;
    }
  });
}

template <class Record>
testing::AssertionResult sameRecord(const Record& left, const Record& right);

template <class Slot, class Record>
bool sameSlot(const Record& left, const Record& right) {
  const auto& a = Slot::get(left);
  const auto& b = Slot::get(right);
  using enum korva::SlotKind;
  if constexpr (Slot::kind == scalar) {
    return a == b;
  } else if constexpr (Slot::kind == byteArray) {
    return std::memcmp(a, b, sizeof(a)) == 0;
  } else if constexpr (Slot::kind == table) {
    return bool{sameRecord(a, b)};
  } else if constexpr (Slot::kind == string) {
    return a == nullptr || b == nullptr ? a == b : std::strcmp(a, b) == 0;
  } else {
    const std::span one(a, a == nullptr ? 0 : Slot::count(left));
    const std::span other(b, b == nullptr ? 0 : Slot::count(right));
    return std::ranges::equal(one, other, [](auto& x, auto& y) { return bool{sameRecord(x, y)}; });
  }
}

// Equal as messages: padding does not count, and a vector without an array is an empty one. Names
// the first slot that differs.
template <class Record>
testing::AssertionResult sameRecord(const Record& left, const Record& right) {
  testing::AssertionResult result = testing::AssertionSuccess();
  korva::forEachSlot<Record>([&]<class Slot, size_t Index>() {
    if (result && !sameSlot<Slot>(left, right)) {
      result = testing::AssertionFailure() << "slot " << Index << " differs";
    }
  });
  return result;
}

}  // namespace kel::test
