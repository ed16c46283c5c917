// Reads all scalars of a table at once if it is laid out as our own packer lays it out: the vtable
// says which are absent, and everything else follows from that. For the unpacker, to which every
// other layout is left.
#pragma once

#include <algorithm>
#include <array>

#include "codec/korva_inlined.hpp"
#include "codec/korva_rows.hpp"
#include "codec/korva_scalars.hpp"
#include "codec/korva_schema.hpp"
#include "codec/korva_vector.hpp"

namespace korva::known {

using rows::kScalars;
using rows::kWindows;
using scalars::Bytes;
using scalars::Depth;
using scalars::Scalar;
using scalars::Window;

// Fewer scalars than this are read faster one by one.
inline constexpr uint32_t kFewestScalars = 3;

// Whether no window's vector covers a scalar before the window's own ones, which would be
// overwritten.
template <class Record>
consteval bool windowsStartWithTheirScalars() {
  for (uint32_t i = 1; i < kWindows<Record>.count; ++i) {
    const Window& window = kWindows<Record>.items[i];
    const Scalar& before = kScalars<Record>.items[window.first - 1];
    if (before.offset + before.width > window.offset) {
      return false;
    }
  }
  return true;
}

// Tables that readScalars(), below, takes.
template <class Record>
concept ReadAtOnce =
    PlainTable<Record> && kScalars<Record>.count >= kFewestScalars &&
    kVtableLength<Record> >= kVectorWidth && windowsStartWithTheirScalars<Record>();

// The permutation for each row that moves a window's scalars back to where they belong, with zeros
// for those that are absent.
template <class Record, uint32_t Index>
alignas(kVectorWidth) inline constexpr auto kSpreads = [] {
  constexpr size_t kMoves = rows::kMovesAt<Record, Index>;
  std::array<uint8_t, rows::kHeadsAt<Record, Index> - kMoves> spreads{};
  spreads.fill(kTakesZero);
  for (size_t at = 0; at < spreads.size(); ++at) {
    const size_t lane = at % kVectorWidth;
    if (const uint8_t from = rows::kRows<Record>[kMoves + at]; from != kTakesZero) {
      spreads[at - lane + from] = static_cast<uint8_t>(lane);
    }
  }
  return spreads;
}();

// A vtable is read in whole vectors; near its end, one begins earlier.
template <class Record>
consteval uint32_t vectorAt(uint32_t position) {
  return std::min(position, kVtableLength<Record> - kVectorWidth);
}

// Where the vector begins that holds the entries of a window's scalars.
template <class Record, uint32_t Index>
inline constexpr uint32_t kEntriesAt =
    vectorAt<Record>(vtableEntry(kScalars<Record>.items[kWindows<Record>.items[Index].first].slot));

// Where in that vector one byte of every scalar's entry lies.
template <class Record, uint32_t Index>
inline constexpr auto kEntryBytes = [] {
  constexpr Window kWindow = kWindows<Record>.items[Index];
  std::array<uint8_t, kWindow.count> positions{};
  for (uint32_t i = 0; i < kWindow.count; ++i) {
    const uint32_t entry = vtableEntry(kScalars<Record>.items[kWindow.first + i].slot);
    positions[i] = static_cast<uint8_t>(entry - kEntriesAt<Record, Index>);
  }
  return positions;
}();

// What reading a window needs: its row's head, and the permutation that moves its scalars back.
struct Found {
  const uint8_t* head;
  const uint8_t* spread;
  size_t absent;  // bytes
};
template <class Record>
using AllFound = std::array<Found, kWindows<Record>.count>;

template <class Record, uint32_t Index>
[[gnu::always_inline]] inline Found find(const uint8_t* rows, const uint8_t* vtable) {
  static_assert(
      std::ranges::all_of(kEntryBytes<Record, Index>, [](uint8_t at) { return at < kVectorWidth; }),
      "a window's slots must be near enough for their entries to fit one vector");
  const auto entries =
      std::bit_cast<Vector<uint16_t>>(loadVector<kVectorWidth>(vtable + kEntriesAt<Record, Index>));
  const auto [offset, absent] =
      rows::findRow<Record, Index, kEntryBytes<Record, Index>, kSlotEntryWidth>(
          rows, std::bit_cast<ByteVector>(entries == Vector<uint16_t>{}));
  return {rows + rows::kHeadsAt<Record, Index> + offset, kSpreads<Record, Index>.data() + offset,
          absent};
}

// All ones where a part of the head holds slots' entries.
template <uint32_t Position>
alignas(kVectorWidth) inline constexpr Bytes kEntryLanes = [] {
  Bytes lanes{};
  for (uint32_t i = 0; i < kVectorWidth; ++i) {
    lanes[i] = Position + i >= kVtableHeaderWidth ? 0xFF : 0;
  }
  return lanes;
}();

// All zeros if the entries in a part of the vtable equal those of the head.
template <class Record, uint32_t Position>
[[gnu::always_inline]] inline ByteVector difference(const uint8_t* vtable, ByteVector head) {
  static_assert(sizeof(rows::HeadLane<Record>) == sizeof(uint8_t));
  return (widen<Position / kSlotEntryWidth>(head) ^ loadVector<kVectorWidth>(vtable + Position)) &
         loadAligned(kEntryLanes<Position>.data());
}

// Whether a vtable's entries are what our packer writes in these rows.
template <class Record>
[[gnu::always_inline]] inline bool isOurs(const uint8_t* vtable, const AllFound<Record>& found) {
  ByteVector head{};
  scalars::forEachWindow<Record, Depth::ownTable>([&]<size_t Index>() KORVA_INLINED {
    const ByteVector part = loadAligned(found[Index].head);
    head = Index == 0 ? part : subtractSaturating(head, part);
  });
  ByteVector different{};
  [&]<size_t... Part>(std::index_sequence<Part...>) KORVA_INLINED {
    ((different |= difference<Record, vectorAt<Record>(Part * kVectorWidth)>(vtable, head)), ...);
  }(std::make_index_sequence<alignUp(kVtableLength<Record>, kVectorWidth) / kVectorWidth>());
  return isZero(different);
}

// If the table is laid out as ours are, fills in its scalars, and zeros in what else their vectors
// cover. Returns whether it did. The vtable must have all slots. The buffer has position bytes
// before the table, and room bytes from the table's beginning on.
template <ReadAtOnce Record>
[[nodiscard, gnu::always_inline]] inline bool readScalars(const uint8_t* vtable,
                                                          const uint8_t* table, uint64_t position,
                                                          uint64_t room, Record& record) {
  constexpr bool kAtEnd = rows::kPlace<Record> == rows::Place::end;
  AllFound<Record> found;
  const uint8_t* const rows = rows::rowsOf<Record>();
  size_t size = scalars::allBytes<Record, Depth::ownTable>();
  scalars::forEachWindow<Record, Depth::ownTable>([&]<size_t Index>() KORVA_INLINED {
    found[Index] = find<Record, Index>(rows, vtable);
    size -= found[Index].absent;
  });
  // The vectors loaded below either end with a window's scalars, and may begin before the table, or
  // begin with them, and may reach a vector past the last one.
  const uint64_t needed = kDisplacementWidth + size + (kAtEnd ? 0 : kVectorWidth);
  if (room < needed || position < kVectorWidth || !isOurs<Record>(vtable, found)) {
    return false;
  }
  const uint8_t* at = table + kDisplacementWidth;
  scalars::forEachWindow<Record, Depth::ownTable>([&]<size_t Index>() KORVA_INLINED {
    constexpr Window kWindow = kWindows<Record>.items[Index];
    const size_t windowSize =
        scalars::kWindowBytes<Record, Depth::ownTable, Index> - found[Index].absent;
    const ByteVector together =
        loadVector<kVectorWidth>(kAtEnd ? at + windowSize - kVectorWidth : at);
    const ByteVector spread = permute(together, loadAligned(found[Index].spread));
    std::memcpy(reinterpret_cast<uint8_t*>(&record) + kWindow.offset, &spread, kWindow.size);
    at += windowSize;
  });
  return true;
}

}  // namespace korva::known
