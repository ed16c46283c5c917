// What to write for a table, looked up by which of its scalars are zero: how those that are not are
// moved together, and what the vtable holds. For the compact packer.
//
// Every window of scalars has one row for each combination of its scalars being zero. A table's
// head, which is its vtable and displacement, is the sum of what its windows' rows say of it, and
// of what its strings and vectors say by being there or not.
#pragma once

#include <array>

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

template <class Record, uint32_t Index>
inline constexpr uint32_t kRowCount = 1U << kWindows<Record>.items[Index].count;

// Whether a row holds a scalar of the window, the first one being number 0.
constexpr bool isPresent(uint32_t row, uint32_t scalar) { return (row >> scalar & 1) == 0; }

// The bytes of a row's scalars.
template <class Record, uint32_t Index>
inline constexpr auto kSizes = [] {
  constexpr Window kWindow = kWindows<Record>.items[Index];
  std::array<uint32_t, kRowCount<Record, Index>> sizes{};
  for (uint32_t row = 0; row < sizes.size(); ++row) {
    for (uint32_t i = 0; i < kWindow.count; ++i) {
      const uint32_t width = kScalars<Record>.items[kWindow.first + i].width;
      sizes[row] += isPresent(row, i) ? width : 0;
    }
  }
  return sizes;
}();

// Where in a vector a row's scalars are moved: to its front, behind room for a displacement, or so
// that they end where it ends.
enum class Place : uint8_t { front, behindDisplacement, end };

// The permutation for each row.
template <class Record, uint32_t Index, Place To>
inline constexpr auto kMoves = [] {
  constexpr Window kWindow = kWindows<Record>.items[Index];
  std::array<Bytes, kRowCount<Record, Index>> moves{};
  for (uint32_t row = 0; row < moves.size(); ++row) {
    moves[row].fill(kTakesZero);
    uint32_t to = To == Place::end ? kVectorWidth - kSizes<Record, Index>[row] : 0;
    to += To == Place::behindDisplacement ? kDisplacementWidth : 0;
    for (uint32_t i = 0; i < kWindow.count; ++i) {
      const Scalar& scalar = kScalars<Record>.items[kWindow.first + i];
      for (uint32_t byte = 0; byte < scalar.width && isPresent(row, i); ++byte) {
        moves[row][to++] = static_cast<uint8_t>(scalar.offset - kWindow.offset + byte);
      }
    }
  }
  return moves;
}();

// The permutation that brings one byte of every scalar to the front.
template <class Record, uint32_t Index>
inline constexpr Bytes kFirstBytes = [] {
  constexpr Window kWindow = kWindows<Record>.items[Index];
  Bytes indices{};
  indices.fill(kTakesZero);
  for (uint32_t i = 0; i < kWindow.count; ++i) {
    indices[i] =
        static_cast<uint8_t>(kScalars<Record>.items[kWindow.first + i].offset - kWindow.offset);
  }
  return indices;
}();

// A window's content, and which of its rows applies.
struct WindowState {
  ByteVector content;
  uint32_t row;
};

template <class Record, uint32_t Index>
[[gnu::always_inline]] inline WindowState look(const Record& record) {
  const ByteVector content = scalars::loadWindow<Record, Depth::ownTable, Index>(record);
  const ByteVector first = permute(scalars::zeros<Record, Depth::ownTable, Index>(content),
                                   loadVector<kVectorWidth>(kFirstBytes<Record, Index>.data()));
  return {content, bitsOfBytes(first)};
}

template <class Record, uint32_t Index, Place To>
[[gnu::always_inline]] inline ByteVector moveTogether(const WindowState& window) {
  return permute(window.content,
                 loadVector<kVectorWidth>(kMoves<Record, Index, To>[window.row].data()));
}

template <class Record>
inline constexpr uint32_t kHeadLength = kVtableLength<Record> + kDisplacementWidth;

// A table's head in lanes of a vtable entry's width, filled up to whole vectors.
template <class Record>
using Head =
    std::array<uint16_t, scalars::alignUp(kHeadLength<Record>, kVectorWidth) / kSlotEntryWidth>;

inline constexpr uint32_t kTableLengthLane = 1;
inline constexpr uint32_t kFirstSlotLane = kVtableHeaderWidth / kSlotEntryWidth;

// Set in the lane of a slot that is absent. No position in a table reaches it.
inline constexpr uint16_t kAbsent = 0x8000;

template <size_t Lanes>
constexpr void addTo(std::array<uint16_t, Lanes>& lanes, size_t lane, uint32_t value) {
  lanes[lane] = static_cast<uint16_t>(lanes[lane] + value);
}

// What a head holds when all slots are there and the scalars take no room. A string's or vector's
// share of the table's length is not in it.
template <class Record>
inline constexpr Head<Record> kEmptyHead = [] {
  Head<Record> head{};
  uint32_t offsetField = kDisplacementWidth;
  uint32_t tableLength = kDisplacementWidth;
  forEachSlot<Record>([&]<class Slot, size_t Index>() {
    head[kFirstSlotLane + Index] =
        static_cast<uint16_t>(Slot::kind == SlotKind::scalar ? kDisplacementWidth : offsetField);
    if constexpr (Slot::kind == SlotKind::byteArray || Slot::kind == SlotKind::table) {
      offsetField += kOffsetFieldWidth;
      tableLength += kOffsetFieldWidth;
    }
    if constexpr (Slot::kind == SlotKind::byteArray) {
      tableLength += kCountWidth + Slot::width;
    }
  });
  head[0] = head[kVtableLength<Record> / kSlotEntryWidth] = kVtableLength<Record>;
  head[kTableLengthLane] = static_cast<uint16_t>(tableLength);
  return head;
}();

// A window's scalars move all that lies behind them.
template <class Record, uint32_t Index>
consteval auto headsOfWindow() {
  constexpr Window kWindow = kWindows<Record>.items[Index];
  std::array<Head<Record>, kRowCount<Record, Index>> heads{};
  for (uint32_t row = 0; row < heads.size(); ++row) {
    uint32_t size = 0;
    for (uint32_t i = 0; i < kScalars<Record>.count; ++i) {
      const Scalar& scalar = kScalars<Record>.items[i];
      const bool inWindow = i >= kWindow.first && i < kWindow.first + kWindow.count;
      const bool absent = inWindow && !isPresent(row, i - kWindow.first);
      addTo(heads[row], kFirstSlotLane + scalar.slot, absent ? kAbsent : size);
      size += inWindow && !absent ? scalar.width : 0;
    }
    forEachSlot<Record>([&]<class Slot, size_t SlotIndex>() {
      addTo(heads[row], kFirstSlotLane + SlotIndex, Slot::kind == SlotKind::scalar ? 0 : size);
    });
    addTo(heads[row], kTableLengthLane, size);
  }
  return heads;
}

constexpr bool isOptional(SlotKind kind) {
  return kind == SlotKind::string || kind == SlotKind::vector;
}

// The offset field of a string or vector moves those behind it. Row 1 is for one that is absent.
template <class Record, uint32_t Slot>
consteval auto headsOfOptional() {
  std::array<Head<Record>, 2> heads{};
  heads[1][kFirstSlotLane + Slot] = kAbsent;
  forEachSlot<Record>([&]<class Other, size_t Index>() {
    if constexpr (Index > Slot && Other::kind != SlotKind::scalar) {
      addTo(heads[0], kFirstSlotLane + Index, kOffsetFieldWidth);
    }
  });
  return heads;
}

template <class Record>
inline constexpr uint32_t kSummands =
    static_cast<uint32_t>(kWindows<Record>.count + countSlots<Record>(SlotKind::string) +
                          countSlots<Record>(SlotKind::vector));

// The first summand brings the empty head along. The only one leaves nothing to be worked out.
template <class Record, bool First, size_t Rows>
consteval auto prepare(std::array<Head<Record>, Rows> heads) {
  for (Head<Record>& head : heads) {
    for (size_t lane = 0; lane < head.size() && First; ++lane) {
      addTo(head, lane, kEmptyHead<Record>[lane]);
      head[lane] = kSummands<Record> == 1 && (head[lane] & kAbsent) != 0 ? 0 : head[lane];
    }
  }
  return heads;
}

template <class Record, uint32_t Index>
inline constexpr auto kHeadsOfWindow = prepare<Record, Index == 0>(headsOfWindow<Record, Index>());

template <class Record, uint32_t Slot>
inline constexpr auto kHeadsOfOptional =
    prepare<Record, kWindows<Record>.count == 0>(headsOfOptional<Record, Slot>());

}  // namespace korva::rows
