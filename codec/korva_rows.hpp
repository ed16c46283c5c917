// Look-up tables of what to write for a table, by which of its scalars are zero: how the others are
// moved together, and what the vtable holds. For the compact packer and for reading what it wrote.
//
// Every window of scalars has one row for each combination of its scalars being zero. A table's
// head is its vtable and displacement. It starts as that of a table with all slots; an absent
// scalar subtracts its width from the entries of what follows it, and everything from its own.
//
// A table of three scalars of four bytes, for example, of which the second is zero:
//
//   window      7, 0, 9                  its lanes compared with zero: row 2, binary 010
//   full head   10, 16 | 4, 8, 12 | 10   lengths of vtable and table, entries, displacement
//   row 2 less   0,  4 | 0, all, 4 | 0   no difference is less than 0
//   head        10, 12 | 4, 0, 8 | 10
//   row 2 moves bytes 0 to 3 and 8 to 11 together: 7, 9
//
// The rows of a table's first window hold the full head with that already subtracted.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <limits>

#include "codec/korva_format.hpp"
#include "codec/korva_inlined.hpp"
#include "codec/korva_scalars.hpp"
#include "codec/korva_schema.hpp"
#include "codec/korva_vector.hpp"

namespace korva::rows {

using scalars::Bytes;
using scalars::Depth;
using scalars::Scalar;
using scalars::Window;

template <class Record>
inline constexpr auto& kScalars = scalars::kScalars<Record, Depth::ownTable>;
template <class Record>
inline constexpr auto& kWindows = scalars::kWindows<Record, Depth::ownTable>;

// Tables whose scalars end them.
template <class Record>
concept ScalarTable =
    Schema<Record>::count != 0 && countSlots<Record>(SlotKind::scalar) == Schema<Record>::count;

template <class Record>
inline constexpr uint32_t kHeadLength = kVtableLength<Record> + kDisplacementWidth;

// A table's head has to be one vector, since packing waits for the loads of rows. Its lanes are as
// wide as a vtable's entries if it fits that way and a single row has all of it. Otherwise they are
// bytes, since rows are subtracted byte by byte, and are widened when the head is stored.
template <class Record>
using HeadLane =
    std::conditional_t<kHeadLength<Record> <= kVectorWidth && kWindows<Record>.count <= 1 &&
                           (PlainTable<Record> || kWindows<Record>.count == 0),
                       uint16_t, uint8_t>;
template <class Record>
using Head = std::array<HeadLane<Record>, kVectorWidth / sizeof(HeadLane<Record>)>;

inline constexpr uint32_t kTableLengthLane = kTableLengthAt / kSlotEntryWidth;
inline constexpr uint32_t kFirstSlotLane = kVtableHeaderWidth / kSlotEntryWidth;

// What an absent slot subtracts from its own entry.
template <class Record>
inline constexpr auto kEverything = std::numeric_limits<HeadLane<Record>>::max();

constexpr bool isOptional(SlotKind kind) {
  return kind == SlotKind::string || kind == SlotKind::vector;
}

// The bytes of a table before its arrays, and those of its arrays, which are always there in full.
template <class Record>
inline constexpr uint32_t kInlineLength =
    kDisplacementWidth + scalars::allBytes<Record, Depth::ownTable>() +
    (Schema<Record>::count - kScalars<Record>.count) * kOffsetFieldWidth;
template <class Record>
inline constexpr uint32_t kArraysLength = [] {
  uint32_t length = 0;
  forEachSlotOf<Record, SlotKind::byteArray>(
      [&]<class Slot, size_t>() { length += kCountWidth + Slot::width; });
  return length;
}();

// Whether the head has the table's whole length. A lane of one byte may have no room for arrays,
// and the head does not know how long strings and vectors are.
template <class Record>
inline constexpr bool kHeadHasLength =
    PlainTable<Record> && kInlineLength<Record> + kArraysLength<Record> < kEverything<Record>;

// The head of a table with all slots.
template <class Record>
alignas(kVectorWidth) inline constexpr Head<Record> kFullHead = [] {
  using Lane = HeadLane<Record>;
  static_assert(kHeadLength<Record> / kSlotEntryWidth <= std::tuple_size_v<Head<Record>> &&
                    kInlineLength<Record> < kEverything<Record>,
                "a table has at most twelve slots, and few enough bytes before its arrays");
  Head<Record> head{};
  uint32_t field = kDisplacementWidth;
  for (uint32_t i = 0; i < kScalars<Record>.count; ++i) {
    const Scalar& scalar = kScalars<Record>.items[i];
    head[kFirstSlotLane + scalar.slot] = static_cast<Lane>(field);
    field += scalar.width;
  }
  forEachSlot<Record>([&]<class Slot, size_t Index>() {
    if constexpr (Slot::kind != SlotKind::scalar) {
      head[kFirstSlotLane + Index] = static_cast<Lane>(field);
      field += kOffsetFieldWidth;
    }
  });
  head[0] = head[kVtableLength<Record> / kSlotEntryWidth] = kVtableLength<Record>;
  head[kTableLengthLane] = static_cast<Lane>(kInlineLength<Record> +
                                             (kHeadHasLength<Record> ? kArraysLength<Record> : 0));
  return head;
}();

// The full head minus something; what would be less than 0 is 0.
template <class Record>
constexpr Head<Record> fullHeadLess(const Head<Record>& what) {
  Head<Record> head = kFullHead<Record>;
  for (size_t lane = 0; lane < head.size(); ++lane) {
    head[lane] = static_cast<HeadLane<Record>>(head[lane] - std::min(head[lane], what[lane]));
  }
  return head;
}

// Where in a vector a row's scalars are moved: to its front, or so that they end where it ends.
enum class Place : uint8_t { front, end };

template <class Record>
inline constexpr Place kPlace = ScalarTable<Record> ? Place::end : Place::front;

// Bit i of a row's number is set if the window's scalar i is absent.
constexpr bool isPresent(uint32_t row, uint32_t scalar) { return (row >> scalar & 1) == 0; }

constexpr uint32_t rowCount(const Window& window) { return 1U << window.count; }

// A row's permutation.
template <class Record>
constexpr Bytes moveOf(const Window& window, uint32_t row, Place place) {
  const Scalar* const scalars = &kScalars<Record>.items[window.first];
  uint32_t size = 0;  // of the scalars that are there
  for (uint32_t i = 0; i < window.count; ++i) {
    size += isPresent(row, i) ? scalars[i].width : 0;
  }
  Bytes move{};
  move.fill(kTakesZero);
  uint32_t to = place == Place::end ? kVectorWidth - size : 0;
  for (uint32_t i = 0; i < window.count; ++i) {
    for (uint32_t byte = 0; byte < scalars[i].width && isPresent(row, i); ++byte) {
      move[to++] = static_cast<uint8_t>(scalars[i].offset - window.offset + byte);
    }
  }
  return move;
}

// What a row's absent scalars subtract from a table's head.
template <class Record>
constexpr Head<Record> absentOf(const Window& window, uint32_t row) {
  using Lane = HeadLane<Record>;
  Head<Record> less{};
  uint32_t absent = 0;
  for (uint32_t i = 0; i < kScalars<Record>.count; ++i) {
    const Scalar& scalar = kScalars<Record>.items[i];
    const bool isInWindow = i >= window.first && i < window.first + window.count;
    const bool isAbsent = isInWindow && !isPresent(row, i - window.first);
    less[kFirstSlotLane + scalar.slot] = isAbsent ? kEverything<Record> : static_cast<Lane>(absent);
    absent += isAbsent ? scalar.width : 0;
  }
  forEachSlot<Record>([&]<class Slot, size_t Index>() {
    if constexpr (Slot::kind != SlotKind::scalar) {
      less[kFirstSlotLane + Index] = static_cast<Lane>(absent);
    }
  });
  less[kTableLengthLane] = static_cast<Lane>(absent);
  return less;
}

// A row's head: for the first window what is left of the full one, for any other what to subtract.
template <class Record>
constexpr Head<Record> headOf(const Window& window, uint32_t row) {
  const Head<Record> less = absentOf<Record>(window, row);
  return window.first == 0 ? fullHeadLess<Record>(less) : less;
}

// Where in the table of a record's rows a window's permutations and heads begin.
template <class Record, uint32_t Index>
inline constexpr size_t kMovesAt = [] {
  size_t rows = 0;
  for (uint32_t i = 0; i < Index; ++i) {
    rows += rowCount(kWindows<Record>.items[i]);
  }
  return rows * 2 * kVectorWidth;
}();
template <class Record, uint32_t Index>
inline constexpr size_t kHeadsAt =
    kMovesAt<Record, Index> + size_t{rowCount(kWindows<Record>.items[Index])} * kVectorWidth;

// All rows of a record: for each window first the permutations, then the heads. One address and a
// row's offset lead to both, and to those of every window, so it is one array of bytes.
template <class Record>
alignas(kVectorWidth) inline constexpr auto kRows = [] {
  std::array<uint8_t, kMovesAt<Record, kWindows<Record>.count>> rows{};
  auto at = rows.begin();
  const auto add = [&at](const Bytes& bytes) { at = std::ranges::copy(bytes, at).out; };
  for (uint32_t i = 0; i < kWindows<Record>.count; ++i) {
    const Window& window = kWindows<Record>.items[i];
    for (uint32_t row = 0; row < rowCount(window); ++row) {
      add(moveOf<Record>(window, row, kPlace<Record>));
    }
    for (uint32_t row = 0; row < rowCount(window); ++row) {
      add(std::bit_cast<Bytes>(headOf<Record>(window, row)));
    }
  }
  return rows;
}();

template <class Record>
[[gnu::always_inline]] inline const uint8_t* rowsOf() {
  return computedOnce(kRows<Record>.data());
}

// What to subtract from the head, by whether a string or vector is there. Without scalars no row
// brings a head: then this is the full one with that already subtracted.
template <class Record>
consteval Head<Record> optionalHead(uint32_t slot, bool isThere) {
  Head<Record> less{};
  if (!isThere) {
    less[kFirstSlotLane + slot] = kEverything<Record>;
    forEachSlot<Record>([&]<class Later, size_t Index>() {
      if (Index > slot && Later::kind != SlotKind::scalar) {
        less[kFirstSlotLane + Index] = kOffsetFieldWidth;
      }
    });
  }
  return kScalars<Record>.count == 0 ? fullHeadLess<Record>(less) : less;
}

// By whether the slot is there.
template <class Record, uint32_t Slot>
alignas(kVectorWidth) inline constexpr std::array<Head<Record>, 2> kOptionalHeads{
    optionalHead<Record>(Slot, false), optionalHead<Record>(Slot, true)};

// Where one byte of every scalar lies in a window. If each byte of a scalar tells whether the
// scalar is zero, the first scalar's last one is taken: it is next to those of narrow scalars that
// follow, and adjacent bytes are gathered without a permutation.
template <class Record, uint32_t Index>
inline constexpr auto kOneByteEach = [] {
  constexpr Window kWindow = kWindows<Record>.items[Index];
  std::array<uint8_t, kWindow.count> positions{};
  for (uint32_t i = 0; i < kWindow.count; ++i) {
    positions[i] =
        static_cast<uint8_t>(kScalars<Record>.items[kWindow.first + i].offset - kWindow.offset);
  }
  if (scalars::kComparedWidth<Record, Depth::ownTable, Index> == 1) {
    positions[0] += static_cast<uint8_t>(kScalars<Record>.items[kWindow.first].width - 1);
  }
  return positions;
}();

// A window's row number times this is how many bytes its absent scalars take; 0 if no factor does
// that. There is one if each scalar is twice as wide as the one before, as its bit in the number
// weighs twice as much.
template <class Record, uint32_t Index>
inline constexpr size_t kAbsentBytesFactor = [] {
  constexpr Window kWindow = kWindows<Record>.items[Index];
  const uint32_t bytes = kScalars<Record>.items[kWindow.first].width;
  for (uint32_t i = 1; i < kWindow.count; ++i) {
    if (kScalars<Record>.items[kWindow.first + i].width != bytes << i) {
      return uint32_t{0};
    }
  }
  return bytes;
}();

template <class Record, uint32_t Index>
inline constexpr bool kAreEquallyWide =
    scalars::kWindowBytes<Record, Depth::ownTable, Index> ==
    kWindows<Record>.items[Index].count * scalars::kWidest<Record, Depth::ownTable, Index>;

// How many bytes of a window's scalars are absent. If all are equally wide, the row's offset tells
// without a load; otherwise the table's length in the row's head does.
template <class Record, uint32_t Index>
[[gnu::always_inline]] inline size_t absentBytes(const uint8_t* rows, size_t offset) {
  constexpr size_t kWidth = scalars::kWidest<Record, Depth::ownTable, Index>;
  if constexpr (kAreEquallyWide<Record, Index> && kHasPopcount) {
    return kWidth * static_cast<size_t>(std::popcount(offset));
  } else {
    HeadLane<Record> length;
    std::memcpy(&length, rows + kHeadsAt<Record, Index> + kTableLengthLane * sizeof length + offset,
                sizeof length);
    return Index == 0 ? size_t{kFullHead<Record>[kTableLengthLane]} - length : length;
  }
}

// A row: how far after its window's first one it lies, and how many bytes of scalars are absent.
struct FoundRow {
  size_t offset;
  size_t absent;
};

// The row of a window whose absent scalars have all ones in the lanes of Width bytes at Positions.
template <class Record, uint32_t Index, auto Positions, uint32_t Width>
[[gnu::always_inline]] inline FoundRow findRow(const uint8_t* rows, ByteVector lanes) {
  if constexpr (constexpr size_t kBytes = kAbsentBytesFactor<Record, Index>; kBytes != 0) {
    const size_t absent = computedOnce(scaledLaneMask<Positions, Width, kBytes>(lanes));
    return {absent * (kVectorWidth / kBytes), absent};
  } else {
    const size_t offset = scaledLaneMask<Positions, Width, kVectorWidth>(lanes);
    return {offset, absentBytes<Record, Index>(rows, offset)};
  }
}

// A window's scalars that are there, moved together, and how many bytes the others are.
struct WindowState {
  ByteVector scalars;
  size_t absent;
};

template <class Record>
struct TableState;

// The state of the table that a slot nests; nothing for a slot of another kind.
template <class Slot, SlotKind Kind = Slot::kind>
struct NestedState {};
template <class Slot>
struct NestedState<Slot, SlotKind::table> : TableState<typename Slot::Type> {};

template <class Slots>
struct NestedStates;
template <class... Slot>
struct NestedStates<std::tuple<Slot...>> {
  std::tuple<NestedState<Slot>...> bySlot;
};

// All that packing has to know of a table's scalars and of its nested tables'.
template <class Record>
struct TableState : NestedStates<typename Schema<Record>::List> {
  std::array<WindowState, kWindows<Record>.count> windows;
  ByteVector head;  // not set if no slot is a scalar

  // How many bytes of scalars are absent.
  [[nodiscard, gnu::always_inline]] size_t absentBytes() const {
    size_t bytes = 0;
    scalars::forEachWindow<Record, Depth::ownTable>(
        [&]<size_t Index>() KORVA_INLINED { bytes += windows[Index].absent; });
    forEachSlotOf<Record, SlotKind::table>([&]<class Slot, size_t Index>() KORVA_INLINED {
      bytes += std::get<Index>(this->bySlot).absentBytes();
    });
    return bytes;
  }
};

// The row of a window by its content in a record. Absent bytes that the row's number does not tell
// are counted in the comparison where that takes no longer than looking at the row.
template <class Record, uint32_t Index>
[[gnu::always_inline]] inline FoundRow rowFor(const uint8_t* rows, ByteVector content) {
  constexpr uint32_t kWidth = scalars::kComparedWidth<Record, Depth::ownTable, Index>;
  const ByteVector zeros = scalars::zeros<Record, Depth::ownTable, Index>(content);
  FoundRow found = findRow<Record, Index, kOneByteEach<Record, Index>, kWidth>(rows, zeros);
  if constexpr (kAbsentBytesFactor<Record, Index> == 0 && !kAreEquallyWide<Record, Index> &&
                kHasPopcount) {
    found.absent = countSetBytes<scalars::kMask<Record, Depth::ownTable, Index>>(zeros);
  }
  return found;
}

// Room is as for loadWindow: how much may be read at bytes. A single scalar needs no permutation:
// its window begins with it, and if it is absent, what follows overwrites it.
template <uint32_t Room, class Record>
[[gnu::always_inline]] inline void surveyScalars(const uint8_t* bytes, TableState<Record>& state) {
  const uint8_t* const rows = rowsOf<Record>();
  scalars::forEachWindow<Record, Depth::ownTable>([&]<size_t Index>() KORVA_INLINED {
    const ByteVector content =
        loadedOnce(scalars::loadWindow<Record, Depth::ownTable, Index, Room>(bytes));
    const auto [offset, absent] = rowFor<Record, Index>(rows, content);
    constexpr bool kIsTogether =
        kPlace<Record> == Place::front && kWindows<Record>.items[Index].count == 1;
    state.windows[Index] = {
        kIsTogether ? content
                    : permute(content, loadAligned(rows + kMovesAt<Record, Index> + offset)),
        absent};
    const ByteVector head = loadAligned(rows + kHeadsAt<Record, Index> + offset);
    state.head = Index == 0 ? head : subtractSaturating(state.head, head);
  });
}

template <uint32_t Room, class Record>
[[gnu::always_inline]] inline void surveyTable(const uint8_t* bytes, TableState<Record>& state) {
  surveyScalars<Room>(bytes, state);
  forEachSlotOf<Record, SlotKind::table>([&]<class Slot, size_t Index>() KORVA_INLINED {
    constexpr uint32_t kOffset = kMemberOffset<Record, Index>;
    surveyTable<Room - kOffset>(bytes + kOffset, std::get<Index>(state.bySlot));
  });
}

template <class Record>
[[gnu::always_inline]] inline void surveyTable(const Record& record, TableState<Record>& state) {
  surveyTable<sizeof(Record)>(reinterpret_cast<const uint8_t*>(&record), state);
}

// Tables for which one vector holds a whole row: the vtable as bytes, in the place of the table's
// displacement, then the permutation of what follows the displacement.
template <class Record>
concept SingleRowTable =
    ScalarTable<Record> && kWindows<Record>.count == 1 && kAbsentBytesFactor<Record, 0> != 0 &&
    kVtableLength<Record> == kDisplacementWidth * kSlotEntryWidth &&
    kInlineLength<Record> <= kVectorWidth;

template <SingleRowTable Record>
alignas(kVectorWidth) inline constexpr auto kSingleRows = [] {
  constexpr Window kWindow = kWindows<Record>.items[0];
  std::array<uint8_t, size_t{rowCount(kWindow)} * kVectorWidth> rows{};
  for (uint32_t row = 0; row < rowCount(kWindow); ++row) {
    const Head<Record> head = headOf<Record>(kWindow, row);
    const Bytes move = moveOf<Record>(kWindow, row, Place::front);
    for (uint32_t i = 0; i < kVectorWidth; ++i) {
      rows[row * kVectorWidth + i] =
          i < kDisplacementWidth ? static_cast<uint8_t>(head[i]) : move[i - kDisplacementWidth];
    }
  }
  return rows;
}();

// A table as it is stored: its vtable, and all that follows it, each from the front of a vector.
struct WholeTable {
  ByteVector vtable;
  ByteVector table;
  size_t absent;  // bytes of scalars
};

template <SingleRowTable Record>
[[gnu::always_inline]] inline WholeTable wholeTable(const Record& record) {
  constexpr Bytes kDisplacementBytes{0xFF, 0xFF, 0xFF, 0xFF};
  constexpr Vector<uint32_t> kDisplacement{kVtableLength<Record>};
  const uint8_t* const rows = computedOnce(kSingleRows<Record>.data());
  const ByteVector content = loadedOnce(
      scalars::loadWindow<Record, Depth::ownTable, 0>(reinterpret_cast<const uint8_t*>(&record)));
  const auto [offset, absent] = rowFor<Record, 0>(rows, content);
  const ByteVector row = loadAligned(rows + offset);
  return {widen<0>(row),
          scalars::blend<kDisplacementBytes>(permute(content, row),
                                             std::bit_cast<ByteVector>(kDisplacement)),
          absent};
}

}  // namespace korva::rows
