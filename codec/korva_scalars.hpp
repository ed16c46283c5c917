// The scalars of a record, up to sixteen bytes of them at a time: which are zero, how many bytes
// that saves, and how the others are moved together. Nothing here branches on a value, since which
// scalars are zero is as good as random. For the compact packer.
#pragma once

#include <algorithm>
#include <array>

#include "codec/korva_format.hpp"
#include "codec/korva_schema.hpp"
#include "codec/korva_vector.hpp"

namespace korva::scalars {

struct Scalar {
  uint32_t slot;
  uint32_t offset;  // within the record
  uint32_t width;
};

// Scalars that one vector holds: neighbours in the record, each aligned to its width in the vector.
struct Window {
  uint32_t first;  // into the list of scalars
  uint32_t count;
  uint32_t offset;  // of the vector's first byte within the record
  uint32_t size;    // bytes that may be loaded
};

template <size_t Capacity, class Item>
struct List {
  std::array<Item, Capacity == 0 ? 1 : Capacity> items{};
  uint32_t count = 0;

  constexpr void add(const Item& item) { items[count++] = item; }
};

constexpr uint32_t alignUp(uint32_t offset, size_t alignment) {
  return static_cast<uint32_t>((offset + alignment - 1) / alignment * alignment);
}

// Not constant, so that calling it ends the compilation.
void slotsAreNotTheMembersInTheirOrder();

// Calls visit.operator()<Slot, Index>(offset) with where each member lies. Slots stand in the order
// of their members, which lie as closely as their alignment lets them.
template <class Record, class Visit>
consteval void forEachMember(Visit visit) {
  uint32_t offset = 0;
  forEachSlot<Record>([&]<class Slot, size_t Index>() {
    using Type = typename Slot::Type;
    if constexpr (Slot::kind == SlotKind::vector) {
      offset += kCountWidth;
    }
    offset = alignUp(offset, alignof(Type));
    visit.template operator()<Slot, Index>(offset);
    offset += sizeof(Type);
  });
  if (alignUp(offset, alignof(Record)) != kRecordSize<Record>) {
    slotsAreNotTheMembersInTheirOrder();
  }
}

enum class Depth : uint8_t { ownTable, withNested };

template <class Record, Depth Which>
consteval size_t countScalars() {
  size_t count = countSlots<Record>(SlotKind::scalar);
  if constexpr (Which == Depth::withNested) {
    forEachSlot<Record>([&]<class Slot, size_t>() {
      if constexpr (Slot::kind == SlotKind::table) {
        count += countScalars<typename Slot::Type, Which>();
      }
    });
  }
  return count;
}

template <class Record, Depth Which>
consteval auto listScalars() {
  List<countScalars<Record, Which>(), Scalar> list;
  forEachMember<Record>([&]<class Slot, size_t Index>(uint32_t offset) {
    if constexpr (Slot::kind == SlotKind::scalar) {
      list.add({Index, offset, Slot::width});
    } else if constexpr (Slot::kind == SlotKind::table && Which == Depth::withNested) {
      const auto nested = listScalars<typename Slot::Type, Which>();
      for (uint32_t i = 0; i < nested.count; ++i) {
        const Scalar& scalar = nested.items[i];
        list.add({scalar.slot, offset + scalar.offset, scalar.width});
      }
    }
  });
  return list;
}

template <class Record, Depth Which>
inline constexpr auto kScalars = listScalars<Record, Which>();

// How many scalars a window of a table may hold: its table of rows has 2 to that power.
inline constexpr uint32_t kMaximumScalars = 8;

// Whether scalar can join the window that begins with first. In a table, a window's slots must also
// be neighbours, so that their vtable entries are.
constexpr bool fits(const Scalar& first, const Scalar& scalar, uint32_t count, Depth which) {
  const uint32_t distance = scalar.offset - first.offset;
  const bool inVector = distance + scalar.width <= kVectorWidth && distance % scalar.width == 0;
  const bool inRow = count < kMaximumScalars && scalar.slot == first.slot + count;
  return inVector && (which == Depth::withNested || inRow);
}

// A window never reaches past the record's end: near it, it begins earlier, or is a shorter one.
template <class Record>
consteval Window place(Window window, uint32_t begin, uint32_t end) {
  if (begin + kVectorWidth <= sizeof(Record)) {
    window.offset = begin;
    window.size = kVectorWidth;
  } else if (sizeof(Record) >= kVectorWidth) {
    window.offset = sizeof(Record) - kVectorWidth;
    window.size = kVectorWidth;
  } else {
    window.offset = begin;
    window.size = end - begin;
  }
  return window;
}

template <class Record, Depth Which>
consteval auto planWindows() {
  constexpr auto& kList = kScalars<Record, Which>;
  List<countScalars<Record, Which>(), Window> windows;
  for (uint32_t first = 0; first < kList.count;) {
    const Scalar& begin = kList.items[first];
    uint32_t count = 1;
    while (first + count < kList.count && fits(begin, kList.items[first + count], count, Which)) {
      ++count;
    }
    const Scalar& last = kList.items[first + count - 1];
    windows.add(place<Record>({first, count, 0, 0}, begin.offset, last.offset + last.width));
    first += count;
  }
  return windows;
}

template <class Record, Depth Which>
inline constexpr auto kWindows = planWindows<Record, Which>();

template <class Record, Depth Which, uint32_t Index>
[[gnu::always_inline]] inline ByteVector loadWindow(const Record& record) {
  constexpr Window kWindow = kWindows<Record, Which>.items[Index];
  return loadVector<kWindow.size>(reinterpret_cast<const uint8_t*>(&record) + kWindow.offset);
}

using Bytes = std::array<uint8_t, kVectorWidth>;

// All ones where the scalars of one width lie in a window.
template <class Record, Depth Which, uint32_t Index, uint32_t Width>
inline constexpr Bytes kMask = [] {
  constexpr Window kWindow = kWindows<Record, Which>.items[Index];
  Bytes mask{};
  for (uint32_t i = 0; i < kWindow.count; ++i) {
    const Scalar& scalar = kScalars<Record, Which>.items[kWindow.first + i];
    for (uint32_t byte = 0; byte < scalar.width && scalar.width == Width; ++byte) {
      mask[scalar.offset - kWindow.offset + byte] = 0xFF;
    }
  }
  return mask;
}();

template <class Record, Depth Which, uint32_t Index, class Lane>
[[gnu::always_inline]] inline ByteVector zerosOfWidth(ByteVector window) {
  constexpr auto& kLanesOfWidth = kMask<Record, Which, Index, sizeof(Lane)>;
  if constexpr (kLanesOfWidth == Bytes{}) {
    return ByteVector{};
  } else {
    const auto equal = std::bit_cast<Vector<Lane>>(window) == Vector<Lane>{};
    return std::bit_cast<ByteVector>(equal) & loadVector<kVectorWidth>(kLanesOfWidth.data());
  }
}

// All ones where a scalar of the window is zero.
template <class Record, Depth Which, uint32_t Index>
[[gnu::always_inline]] inline ByteVector zeros(ByteVector window) {
  return zerosOfWidth<Record, Which, Index, uint8_t>(window) |
         zerosOfWidth<Record, Which, Index, uint16_t>(window) |
         zerosOfWidth<Record, Which, Index, uint32_t>(window) |
         zerosOfWidth<Record, Which, Index, uint64_t>(window);
}

template <class Record, Depth Which, class Visit>
[[gnu::always_inline]] inline void forEachWindow(Visit&& visit) {
  [&]<size_t... Index>(std::index_sequence<Index...>) __attribute__((always_inline)) {
    (visit.template operator()<Index>(), ...);
  }
  (std::make_index_sequence<kWindows<Record, Which>.count>());
}

// Counts the bytes of absent scalars, nested tables' included, over many records: each lane of the
// sum takes in at most one for a window.
template <class Record>
class AbsentBytes {
 public:
  // How many records may be added before the sum is taken.
  static constexpr uint32_t kCapacity =
      255 / std::max(uint32_t{1}, kWindows<Record, Depth::withNested>.count);

  [[gnu::always_inline]] void add(const Record& record) {
    forEachWindow<Record, Depth::withNested>([&]<size_t Index>() __attribute__((always_inline)) {
      lanes_ -= zeros<Record, Depth::withNested, Index>(
          loadWindow<Record, Depth::withNested, Index>(record));
    });
  }

  [[nodiscard, gnu::always_inline]] uint32_t sum() const { return sumOfBytes(lanes_); }

 private:
  ByteVector lanes_{};
};

// The bytes of all scalars, nested tables' included.
template <class Record>
consteval uint32_t allBytes() {
  uint32_t bytes = 0;
  for (uint32_t i = 0; i < kScalars<Record, Depth::withNested>.count; ++i) {
    bytes += kScalars<Record, Depth::withNested>.items[i].width;
  }
  return bytes;
}

// The scalars of one window, as the rows below depend on them; windows alike share their rows.
struct Pattern {
  uint32_t count;
  std::array<uint8_t, kMaximumScalars> position;  // within the window
  std::array<uint8_t, kMaximumScalars> width;
};

template <class Record, uint32_t Index>
consteval Pattern patternOf() {
  constexpr Window kWindow = kWindows<Record, Depth::ownTable>.items[Index];
  Pattern pattern{kWindow.count, {}, {}};
  for (uint32_t i = 0; i < kWindow.count; ++i) {
    const Scalar& scalar = kScalars<Record, Depth::ownTable>.items[kWindow.first + i];
    pattern.position[i] = static_cast<uint8_t>(scalar.offset - kWindow.offset);
    pattern.width[i] = static_cast<uint8_t>(scalar.width);
  }
  return pattern;
}

constexpr uint32_t totalWidth(const Pattern& pattern) {
  uint32_t total = 0;
  for (const uint8_t width : pattern.width) total += width;
  return total;
}

// Whether the present scalars are moved to a vector's front or to its end.
enum class Side : uint8_t { front, end };

inline constexpr uint32_t kLanes = sizeof(uint64_t) / kSlotEntryWidth;

// What to do with a window, for each combination of scalars that are zero. Vtable entries stand
// four to a word. A table's first window begins where every table's scalars begin; the entries of
// any other count from its own beginning, and hold a 1 for every present scalar in presence, so
// that the beginning can be added to all of them by one multiplication.
template <Pattern Which, Side To, bool First>
struct Rows {
  static constexpr uint32_t kRows = 1U << Which.count;
  static constexpr uint32_t kWords = (Which.count + kLanes - 1) / kLanes;
  using Words = std::array<uint64_t, kWords>;

  alignas(kVectorWidth) std::array<Bytes, kRows> indices{};
  std::array<Words, kRows> entries{};
  std::array<Words, First ? 0 : kRows> presence{};
  std::array<uint8_t, kRows> size{};

  consteval Rows() {
    for (uint32_t zeros = 0; zeros < kRows; ++zeros) {
      fill(zeros);
    }
  }

  // The entries of a row whose scalars begin at a position within the table.
  [[gnu::always_inline]] uint64_t entriesAt(uint32_t row, uint32_t word, uint64_t begin) const {
    if constexpr (First) {
      return entries[row][word];
    } else {
      return entries[row][word] + begin * presence[row][word];
    }
  }

 private:
  consteval void fill(uint32_t zeros) {
    indices[zeros].fill(0x80);
    const auto present = [&](uint32_t scalar) { return (zeros >> scalar & 1) == 0; };
    for (uint32_t i = 0; i < Which.count; ++i) {
      size[zeros] = static_cast<uint8_t>(size[zeros] + (present(i) ? Which.width[i] : 0));
    }
    uint32_t to = To == Side::end ? kVectorWidth - size[zeros] : 0;
    uint64_t entry = First ? kDisplacementWidth : 0;
    for (uint32_t i = 0; i < Which.count; ++i) {
      if (!present(i)) {
        continue;
      }
      entries[zeros][i / kLanes] |= entry << (i % kLanes * 16);
      if constexpr (!First) {
        presence[zeros][i / kLanes] |= uint64_t{1} << (i % kLanes * 16);
      }
      for (uint32_t byte = 0; byte < Which.width[i]; ++byte) {
        indices[zeros][to + byte] = static_cast<uint8_t>(Which.position[i] + byte);
      }
      to += Which.width[i];
      entry += Which.width[i];
    }
  }
};

template <Pattern Which, Side To, bool First>
inline constexpr Rows<Which, To, First> kRows{};

// One byte of every scalar, brought to the front.
template <Pattern Which>
inline constexpr Bytes kFirstBytes = [] {
  Bytes indices{};
  indices.fill(0x80);
  for (uint32_t i = 0; i < Which.count; ++i) indices[i] = Which.position[i];
  return indices;
}();

template <uint32_t Width>
[[gnu::always_inline]] inline bool isZero(const uint8_t* scalar) {
  if constexpr (Width == sizeof(uint64_t)) {
    return load<uint64_t>(scalar) == 0;
  } else if constexpr (Width == sizeof(uint32_t)) {
    return load<uint32_t>(scalar) == 0;
  } else if constexpr (Width == sizeof(uint16_t)) {
    return load<uint16_t>(scalar) == 0;
  } else {
    return *scalar == 0;
  }
}

// For as few scalars as this, testing one after the other is the shorter way to a row.
inline constexpr uint32_t kFewScalars = 3;

template <class Record, Pattern Which, uint32_t Offset>
[[gnu::always_inline]] inline uint32_t rowOfFew(const Record& record) {
  const auto* const window = reinterpret_cast<const uint8_t*>(&record) + Offset;
  uint32_t row = 0;
  [&]<size_t... Bit>(std::index_sequence<Bit...>) __attribute__((always_inline)) {
    ((row |= static_cast<uint32_t>(isZero<Which.width[Bit]>(window + Which.position[Bit])) << Bit),
     ...);
  }
  (std::make_index_sequence<Which.count>());
  return row;
}

// The row of a window: bit i stands for scalar i being zero. Of the scalars' bytes, each gives one
// bit of its own, and the multiplication adds them up in the topmost byte.
template <class Record, uint32_t Index>
[[gnu::always_inline]] inline uint32_t rowOf(const Record& record, ByteVector window) {
  constexpr Pattern kPattern = patternOf<Record, Index>();
  if constexpr (kPattern.count <= kFewScalars) {
    return rowOfFew<Record, kPattern, kWindows<Record, Depth::ownTable>.items[Index].offset>(
        record);
  } else {
    const ByteVector first = permute(zeros<Record, Depth::ownTable, Index>(window),
                                     loadVector<kVectorWidth>(kFirstBytes<kPattern>.data()));
    const uint64_t bytes = std::bit_cast<Vector<uint64_t>>(first)[0];
    return static_cast<uint32_t>(((bytes & 0x8040201008040201) * 0x0101010101010101) >> 56);
  }
}

}  // namespace korva::scalars
