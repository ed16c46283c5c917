// What to write for a table, looked up by which of its scalars are zero: how those that are not are
// moved together, and what the vtable holds. For the compact packer.
//
// Every window of scalars has one row for each combination of its scalars being zero. A table's
// head, which is its vtable and displacement, starts from all slots being there; what is absent
// takes away from the positions of what lies behind it, and everything from its own.
#pragma once

#include <array>
#include <bit>
#include <limits>

#include "codec/korva_format.hpp"
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

// A table's head in one vector, since loading rows is what packing waits for: in lanes of a vtable
// entry's width if it fits, else in bytes, which are widened when they are stored.
template <class Record>
using HeadLane = std::conditional_t<kHeadLength<Record> <= kVectorWidth, uint16_t, uint8_t>;
template <class Record>
using Head = std::array<HeadLane<Record>, kVectorWidth / sizeof(HeadLane<Record>)>;

inline constexpr uint32_t kTableLengthLane = 1;
inline constexpr uint32_t kFirstSlotLane = kVtableHeaderWidth / kSlotEntryWidth;

// What an absent slot takes away from its own entry.
template <class Record>
inline constexpr auto kEverything = std::numeric_limits<HeadLane<Record>>::max();

constexpr bool isOptional(SlotKind kind) {
  return kind == SlotKind::string || kind == SlotKind::vector;
}

// A table's bytes up to its arrays, and those of its arrays, which are there in full.
template <class Record>
inline constexpr uint32_t kInlineLength =
    kDisplacementWidth + scalars::allBytes<Record, Depth::ownTable>() +
    (Schema<Record>::count - kScalars<Record>.count) * kOffsetFieldWidth;
template <class Record>
inline constexpr uint32_t kArraysLength = [] {
  uint32_t length = 0;
  forEachSlot<Record>([&]<class Slot, size_t>() {
    if constexpr (Slot::kind == SlotKind::byteArray) {
      length += kCountWidth + Slot::width;
    }
  });
  return length;
}();

// Whether the head has the table's whole length. A lane of a byte may have no room for arrays, and
// how long strings and vectors are is not known to it.
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

template <class Record>
constexpr void takeAway(Head<Record>& head, const Head<Record>& what) {
  for (size_t lane = 0; lane < head.size(); ++lane) {
    head[lane] = static_cast<HeadLane<Record>>(head[lane] - std::min(head[lane], what[lane]));
  }
}

// Where in a vector a row's scalars are moved: to its front, behind room for a displacement, or so
// that they end where it ends.
enum class Place : uint8_t { front, behindDisplacement, end };

template <class Record>
inline constexpr Place kUsualPlace = ScalarTable<Record> ? Place::end : Place::front;

template <class Record>
struct alignas(kVectorWidth) Row {
  Bytes move{};         // the permutation
  Head<Record> head{};  // the full head for the first window; what to take away for any other

  // Scalars that are absent have their bits set in row.
  consteval Row(const Window& window, uint32_t row, Place place) {
    const auto scalar = [&](uint32_t i) { return kScalars<Record>.items[window.first + i]; };
    const auto isPresent = [&](uint32_t i) { return (row >> i & 1) == 0; };
    Head<Record> less{};
    uint32_t size = 0;  // of the scalars that are there
    uint32_t absent = 0;
    for (uint32_t i = 0; i < window.count; ++i) {
      less[kFirstSlotLane + scalar(i).slot] =
          static_cast<HeadLane<Record>>(isPresent(i) ? absent : kEverything<Record>);
      (isPresent(i) ? size : absent) += scalar(i).width;
    }
    takeFromAllBehind(less, window, absent);
    head = window.first == 0 ? kFullHead<Record> : less;
    if (window.first == 0) {
      takeAway<Record>(head, less);
    }
    move.fill(kTakesZero);
    uint32_t to = place == Place::end ? kVectorWidth - size : 0;
    to += place == Place::behindDisplacement ? kDisplacementWidth : 0;
    for (uint32_t i = 0; i < window.count; ++i) {
      for (uint32_t byte = 0; byte < scalar(i).width && isPresent(i); ++byte) {
        move[to++] = static_cast<uint8_t>(scalar(i).offset - window.offset + byte);
      }
    }
  }

 private:
  static consteval void takeFromAllBehind(Head<Record>& less, const Window& window,
                                          uint32_t absent) {
    const auto bytes = static_cast<HeadLane<Record>>(absent);
    for (uint32_t i = window.first + window.count; i < kScalars<Record>.count; ++i) {
      less[kFirstSlotLane + kScalars<Record>.items[i].slot] = bytes;
    }
    forEachSlot<Record>([&]<class Slot, size_t Index>() {
      if constexpr (Slot::kind != SlotKind::scalar) {
        less[kFirstSlotLane + Index] = bytes;
      }
    });
    less[kTableLengthLane] = bytes;
  }
};

template <class Record, uint32_t Index, Place To>
inline constexpr auto kRows = []<size_t... Number>(std::index_sequence<Number...>) {
  return std::array{Row<Record>(kWindows<Record>.items[Index], Number, To)...};
}(std::make_index_sequence<size_t{1} << kWindows<Record>.items[Index].count>());

// What a string or vector takes away, by whether it is there. In a table without scalars it brings
// the full head along.
template <class Record>
struct alignas(kVectorWidth) OptionalRow {
  Head<Record> head{};

  consteval OptionalRow(uint32_t slot, bool isThere) {
    Head<Record> less{};
    if (!isThere) {
      less[kFirstSlotLane + slot] = kEverything<Record>;
      less[kTableLengthLane] = kOffsetFieldWidth;
      forEachSlot<Record>([&]<class Behind, size_t Index>() {
        if (Index > slot && Behind::kind != SlotKind::scalar) {
          less[kFirstSlotLane + Index] = kOffsetFieldWidth;
        }
      });
    }
    head = kScalars<Record>.count == 0 ? kFullHead<Record> : less;
    if (kScalars<Record>.count == 0) {
      takeAway<Record>(head, less);
    }
  }
};

template <class Record, uint32_t Slot>
inline constexpr std::array<OptionalRow<Record>, 2> kOptionalRows{OptionalRow<Record>(Slot, false),
                                                                  OptionalRow<Record>(Slot, true)};

// Where one byte of every scalar lies in a window.
template <class Record, uint32_t Index>
inline constexpr auto kFirstBytes = [] {
  constexpr Window kWindow = kWindows<Record>.items[Index];
  std::array<uint8_t, kWindow.count> positions{};
  for (uint32_t i = 0; i < kWindow.count; ++i) {
    positions[i] =
        static_cast<uint8_t>(kScalars<Record>.items[kWindow.first + i].offset - kWindow.offset);
  }
  return positions;
}();

// How many bytes of a window's scalars are there. Its row has that in the table's length; where all
// are equally wide, the row's offset tells it without a load.
template <class Record, uint32_t Index>
[[gnu::always_inline]] inline size_t presentBytes(size_t offset, const Row<Record>& row) {
  constexpr uint32_t kCount = kWindows<Record>.items[Index].count;
  constexpr size_t kWidth = scalars::kWidest<Record, Depth::ownTable, Index>;
  constexpr size_t kAll = scalars::kWindowBytes<Record, Depth::ownTable, Index>;
  static_assert(std::has_single_bit(sizeof(Row<Record>)) && sizeof(Row<Record>) >= kWidth);
  if constexpr (kCount == 1) {
    return kAll - offset / (sizeof(Row<Record>) / kWidth);
  } else if constexpr (kAll == kCount * kWidth && kCountsBitsAtOnce) {
    return kAll - kWidth * static_cast<size_t>(std::popcount(offset));
  } else {
    const size_t length = row.head[kTableLengthLane];
    return Index == 0 ? length + kAll - kFullHead<Record>[kTableLengthLane] : kAll - length;
  }
}

// A window's scalars that are there, moved together, and how many bytes they are.
struct WindowState {
  ByteVector scalars;
  size_t size;
};

// A window of one scalar at its front needs no permutation: what follows overwrites it if it is
// absent.
template <class Record, uint32_t Index>
consteval bool startsWithItsOnlyScalar() {
  constexpr Window kWindow = kWindows<Record>.items[Index];
  return kWindow.count == 1 && kScalars<Record>.items[kWindow.first].offset == kWindow.offset;
}

// The row that begins so many bytes behind the first.
template <class Record, uint32_t Index, Place To>
[[gnu::always_inline]] inline const Row<Record>* rowAt(size_t offset) {
  const auto* const rows = reinterpret_cast<const uint8_t*>(kRows<Record, Index, To>.data());
  return reinterpret_cast<const Row<Record>*>(rows + offset);
}

template <class Record>
struct TableState;

// Of a slot's own table, if it is one.
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

  // How many bytes of scalars are there.
  [[nodiscard, gnu::always_inline]] size_t presentBytes() const {
    size_t bytes = 0;
    scalars::forEachWindow<Record, Depth::ownTable>([&]<size_t Index>() __attribute__((
        always_inline)) { bytes += windows[Index].size; });
    forEachSlot<Record>([&]<class Slot, size_t Index>() __attribute__((always_inline)) {
      if constexpr (Slot::kind == SlotKind::table) {
        bytes += std::get<Index>(this->bySlot).presentBytes();
      }
    });
    return bytes;
  }
};

// Room is as for a window.
template <Place To, uint32_t Room, class Record>
[[gnu::always_inline]] inline void lookAtTable(const uint8_t* bytes, TableState<Record>& state) {
  scalars::forEachWindow<Record, Depth::ownTable>([&]<size_t Index>() __attribute__((
      always_inline)) {
    const ByteVector content =
        loadedOnce(scalars::loadWindow<Record, Depth::ownTable, Index, Room>(bytes));
    const size_t offset =
        numberOfLanes<kFirstBytes<Record, Index>,
                      scalars::kComparedWidth<Record, Depth::ownTable, Index>, sizeof(Row<Record>)>(
            scalars::zeros<Record, Depth::ownTable, Index>(content));
    const Row<Record>& row = *rowAt<Record, Index, To>(offset);
    constexpr bool kIsTogether = To == Place::front && startsWithItsOnlyScalar<Record, Index>();
    state.windows[Index] = {kIsTogether ? content : permute(content, loadAligned(row.move.data())),
                            presentBytes<Record, Index>(offset, row)};
    const ByteVector head = loadAligned(row.head.data());
    state.head = Index == 0 ? head : subtractDownToZero<HeadLane<Record>>(state.head, head);
  });
  forEachSlot<Record>([&]<class Slot, size_t Index>() __attribute__((always_inline)) {
    if constexpr (Slot::kind == SlotKind::table) {
      using Nested = typename Slot::Type;
      constexpr uint32_t kOffset = kMemberOffset<Record, Index>;
      lookAtTable<kUsualPlace<Nested>, Room - kOffset>(
          bytes + kOffset, static_cast<TableState<Nested>&>(std::get<Index>(state.bySlot)));
    }
  });
}

template <Place To, class Record>
[[gnu::always_inline]] inline void lookAtTable(const Record& record, TableState<Record>& state) {
  lookAtTable<To, sizeof(Record)>(reinterpret_cast<const uint8_t*>(&record), state);
}

}  // namespace korva::rows
