// Reads a table of arrays and few scalars at once if it is laid out as our own packer lays it out:
// which scalars are there says what its head must be and where everything lies, and all that the
// schema decides is compared together. For the unpacker, to which every other layout is left.
#pragma once

#include <algorithm>
#include <array>

#include "codec/korva_compact_layout.hpp"
#include "codec/korva_format.hpp"
#include "codec/korva_image.hpp"
#include "codec/korva_inlined.hpp"
#include "codec/korva_rows.hpp"
#include "codec/korva_schema.hpp"
#include "codec/korva_vector.hpp"

namespace korva::small {

using compact::kFieldsAndArrays;
using rows::kHeadLength;
using rows::kScalars;
using rows::kWindows;

// There is a row for each combination of scalars.
inline constexpr uint32_t kMostScalars = 2;

// Tables that read(), below, takes. A lone array is not among them: the unpacker compares its
// position first of all anyway, so that nothing would be gained.
template <class Record>
concept SmallTable =
    PlainTable<Record> && Schema<Record>::count >= 2 && kScalars<Record>.count <= kMostScalars &&
    kWindows<Record>.count <= 1 && rows::kHeadHasLength<Record> &&
    countSlots<Record>(SlotKind::table) == 0 && kFieldsAndArrays<Record>.size() >= kVectorWidth;

// Room for a head in one vector or in two that overlap.
template <class Record>
inline constexpr uint32_t kHeadRoom = std::max(kHeadLength<Record>, kVectorWidth);

// A row's head as it is on the wire.
template <SmallTable Record>
consteval auto headOf(uint32_t row) {
  rows::Head<Record> lanes = rows::kFullHead<Record>;
  if constexpr (kWindows<Record>.count != 0) {
    lanes = rows::headOf<Record>(kWindows<Record>.items[0], row);
  }
  image::Image<kHeadRoom<Record>> head(sizeof(Record));
  for (uint32_t at = 0; at < kHeadLength<Record>; at += kSlotEntryWidth) {
    head.put(at, static_cast<uint16_t>(lanes[at / kSlotEntryWidth]));
  }
  return head;
}

template <class Record>
struct HeadBytes {
  alignas(kVectorWidth) std::array<uint8_t, kHeadRoom<Record>> bytes;
};
template <SmallTable Record>
inline constexpr auto kHeads = []<size_t... Row>(std::index_sequence<Row...>) {
  return std::array<HeadBytes<Record>, sizeof...(Row)>{{{headOf<Record>(Row).constants}...}};
}(std::make_index_sequence<size_t{1} << kScalars<Record>.count>());

template <SmallTable Record>
inline constexpr auto kAnyHead = headOf<Record>(0);

// All zeros if a table's head is that of a row.
template <SmallTable Record>
[[gnu::always_inline]] inline ByteVector difference(const uint8_t* head, size_t row) {
  const uint8_t* const expected = kHeads<Record>[row].bytes.data();
  const auto& mask = image::kExpected<kAnyHead<Record>, 0>.mask;
  const ByteVector first =
      (loadVector<kVectorWidth>(head) & loadAligned(mask.data())) ^ loadAligned(expected);
  if constexpr (constexpr uint32_t kLast = kHeadRoom<Record> - kVectorWidth; kLast == 0) {
    return first;
  } else {
    return first |
           (loadVector<kVectorWidth>(head + kLast) ^ loadVector<kVectorWidth>(expected + kLast));
  }
}

// Which of a table's scalars are there, and where. For an absent one, what follows is read and
// masked.
template <class Record>
struct Found {
  size_t row = 0;
  size_t size = 0;  // of those that are there
  std::array<size_t, Schema<Record>::count> positions{};
  std::array<uint64_t, Schema<Record>::count> masks{};
};

template <SmallTable Record>
[[gnu::always_inline]] inline Found<Record> find(const uint8_t* head) {
  Found<Record> found;
  size_t bit = 0;
  forEachSlotOf<Record, SlotKind::scalar>([&]<class Slot, size_t Index>() KORVA_INLINED {
    const size_t isAbsent = load<uint16_t>(head + vtableEntry(Index)) == 0 ? 1 : 0;
    found.row |= isAbsent << bit++;
    found.positions[Index] = kDisplacementWidth + found.size;
    found.masks[Index] = uint64_t{isAbsent} - 1;
    found.size += Slot::width & found.masks[Index];
  });
  return found;
}

// Reads the table at position into all of the record but its padding. Returns whether it did. The
// message must hold the table's displacement and, before that, as many bytes as our vtable has.
template <SmallTable Record>
[[nodiscard, gnu::always_inline]] inline bool read(const uint8_t* message, uint64_t length,
                                                   uint64_t position, Record& record) {
  const uint8_t* const table = message + position;
  const uint8_t* const head = table - kVtableLength<Record>;
  const Found<Record> found = find<Record>(head);
  const size_t fields = kDisplacementWidth + found.size;
  constexpr auto& kRest = kFieldsAndArrays<Record>;
  if (length - position < fields + kRest.size() ||
      !isZero(difference<Record>(head, found.row) | image::difference<kRest>(table + fields)))
      [[unlikely]] {
    return false;
  }
  forEachSlotOf<Record, SlotKind::scalar>([&]<class Slot, size_t Index>() KORVA_INLINED {
    using Scalar = typename Slot::Type;
    const auto value = load<Scalar>(table + found.positions[Index]);
    Slot::get(record) = static_cast<Scalar>(value & found.masks[Index]);
  });
  image::read<kRest>(table + fields, reinterpret_cast<uint8_t*>(&record));
  return true;
}

}  // namespace korva::small
