// What to write for a table, looked up by which of its scalars are zero: how those that are not are
// moved together, and what the vtable holds. For the compact packer.
//
// Every window of scalars has one row for each combination of its scalars being zero. A table's
// head, which is its vtable and displacement, starts from all slots being there; what is absent
// takes away from the positions of what lies behind it, and everything from its own.
#pragma once

#include <array>
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

// A table's head in lanes of a vtable entry's width, filled up to whole vectors where it is summed
// up in vectors.
template <class Record>
using Head = std::array<uint16_t, alignUp(kHeadLength<Record>,
                                          ScalarTable<Record> ? kSlotEntryWidth : kVectorWidth) /
                                      kSlotEntryWidth>;

inline constexpr uint32_t kTableLengthLane = 1;
inline constexpr uint32_t kFirstSlotLane = kVtableHeaderWidth / kSlotEntryWidth;

// What an absent slot takes away from its own entry.
inline constexpr uint16_t kEverything = std::numeric_limits<uint16_t>::max();

constexpr bool isOptional(SlotKind kind) {
  return kind == SlotKind::string || kind == SlotKind::vector;
}

// The head of a table with all slots. What strings and vectors add to the table's length is not in
// it.
template <class Record>
alignas(kVectorWidth) inline constexpr Head<Record> kFullHead = [] {
  Head<Record> head{};
  uint32_t scalarBytes = 0;
  for (uint32_t i = 0; i < kScalars<Record>.count; ++i) {
    const Scalar& scalar = kScalars<Record>.items[i];
    head[kFirstSlotLane + scalar.slot] = static_cast<uint16_t>(kDisplacementWidth + scalarBytes);
    scalarBytes += scalar.width;
  }
  uint32_t offsetField = kDisplacementWidth + scalarBytes;
  uint32_t outOfLine = 0;
  forEachSlot<Record>([&]<class Slot, size_t Index>() {
    if constexpr (Slot::kind != SlotKind::scalar) {
      head[kFirstSlotLane + Index] = static_cast<uint16_t>(offsetField);
      offsetField += kOffsetFieldWidth;
    }
    if constexpr (Slot::kind == SlotKind::byteArray) {
      outOfLine += kCountWidth + Slot::width;
    }
  });
  head[0] = head[kVtableLength<Record> / kSlotEntryWidth] = kVtableLength<Record>;
  head[kTableLengthLane] = static_cast<uint16_t>(offsetField + outOfLine);
  return head;
}();

template <class Record>
constexpr void takeAway(Head<Record>& head, const Head<Record>& what) {
  for (size_t lane = 0; lane < head.size(); ++lane) {
    head[lane] = static_cast<uint16_t>(head[lane] - std::min(head[lane], what[lane]));
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
  uint32_t size = 0;    // of the scalars that are there

  // Scalars that are absent have their bits set in row.
  consteval Row(const Window& window, uint32_t row, Place place) {
    const auto scalar = [&](uint32_t i) { return kScalars<Record>.items[window.first + i]; };
    const auto isPresent = [&](uint32_t i) { return (row >> i & 1) == 0; };
    Head<Record> less{};
    uint32_t absent = 0;
    for (uint32_t i = 0; i < window.count; ++i) {
      less[kFirstSlotLane + scalar(i).slot] =
          static_cast<uint16_t>(isPresent(i) ? absent : kEverything);
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
    const auto bytes = static_cast<uint16_t>(absent);
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
      less[kFirstSlotLane + slot] = kEverything;
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

// A window's content, and its row.
template <class Record>
struct WindowState {
  ByteVector content;
  const Row<Record>* row;

  [[nodiscard, gnu::always_inline]] ByteVector movedTogether() const {
    return permute(content, loadAligned(row->move.data()));
  }
};

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
  std::array<WindowState<Record>, kWindows<Record>.count> windows;

  // How many bytes of scalars are there.
  [[nodiscard, gnu::always_inline]] uint32_t presentBytes() const {
    uint32_t bytes = 0;
    scalars::forEachWindow<Record, Depth::ownTable>([&]<size_t Index>() __attribute__((
        always_inline)) { bytes += windows[Index].row->size; });
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
    const ByteVector content = scalars::loadWindow<Record, Depth::ownTable, Index, Room>(bytes);
    const size_t offset = numberOfBytes<kFirstBytes<Record, Index>, sizeof(Row<Record>)>(
        scalars::zeros<Record, Depth::ownTable, Index>(content));
    state.windows[Index] = {content, rowAt<Record, Index, To>(offset)};
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
