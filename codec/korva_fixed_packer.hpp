// The fixed-layout packer: every field present at a position that only the schema decides, the
// vtable behind the table. For the codecs of messages without strings and vectors.
#pragma once

#include <array>

#include "codec/korva_format.hpp"
#include "codec/korva_schema.hpp"

namespace korva {
namespace fixed {

inline constexpr uint32_t kTablePosition = kRootOffsetWidth;
inline constexpr uint32_t kRootVtableAlignment = 4;
inline constexpr uint32_t kSizeAlignment = 8;

template <PlainTable Record>
consteval uint32_t tableLength();

// Bytes of a field within its table; arrays and nested tables lie right behind their offset fields.
template <class Slot>
consteval uint32_t fieldWidth() {
  if constexpr (Slot::kind == SlotKind::byteArray) {
    return kOffsetFieldWidth + kCountWidth + Slot::width;
  } else if constexpr (Slot::kind == SlotKind::table) {
    using Nested = typename Slot::Type;
    return kOffsetFieldWidth + tableLength<Nested>() + kVtableLength<Nested>;
  } else {
    return Slot::width;
  }
}

// Where a slot's field lies within its table; for the slot past the last, the table's end.
template <PlainTable Record, size_t Slot>
consteval uint32_t fieldPosition() {
  uint32_t position = kDisplacementWidth;
  forEachSlot<Record>(
      [&]<class Other, size_t Index>() { position += Index < Slot ? fieldWidth<Other>() : 0; });
  return position;
}

template <PlainTable Record>
consteval uint32_t tableLength() {
  return fieldPosition<Record, Schema<Record>::count>();
}

// The whole vtable is a constant of the schema.
template <PlainTable Record>
inline constexpr auto kVtable = [] {
  std::array<uint16_t, kVtableLength<Record> / sizeof(uint16_t)> vtable{
      static_cast<uint16_t>(kVtableLength<Record>), static_cast<uint16_t>(tableLength<Record>())};
  forEachSlot<Record>([&]<class Slot, size_t Index>() {
    vtable[2 + Index] = static_cast<uint16_t>(fieldPosition<Record, Index>());
  });
  return vtable;
}();

template <PlainTable Record>
inline constexpr uint32_t kRootVtablePosition =
    alignUp(kTablePosition + tableLength<Record>(), kRootVtableAlignment);

// How many bytes of scalars stand together from a slot on, in the record as in the table; 0 if the
// slot before belongs to them, or this one is no scalar.
template <PlainTable Record, size_t Slot>
consteval uint32_t runWidth() {
  uint32_t width = 0;
  uint32_t end = 0;  // of the previous slot within the record, if it is a scalar
  bool inRun = false;
  forEachMember<Record>([&]<class Other, size_t Index>(uint32_t offset) {
    const bool scalar = Other::kind == SlotKind::scalar;
    const bool joins = scalar && Index != 0 && end == offset;
    inRun = scalar && (Index == Slot ? !joins : joins && inRun);
    width += inRun ? Other::width : 0;
    end = scalar ? offset + Other::width : 0;
  });
  return width;
}

// Writes a table whose vtable lies vtableDistance bytes behind it. Scalars that stand together are
// copied together.
template <PlainTable Record, uint32_t vtableDistance>
[[gnu::always_inline]] inline void packTable(uint8_t* table, const Record& record) {
  store(table, -static_cast<int32_t>(vtableDistance));
  forEachSlot<Record>([&]<class Slot, size_t Index>() __attribute__((always_inline)) {
    uint8_t* const field = table + fieldPosition<Record, Index>();
    const auto& value = Slot::get(record);
    if constexpr (Slot::kind == SlotKind::scalar) {
      std::memcpy(field, reinterpret_cast<const uint8_t*>(&value), runWidth<Record, Index>());
    } else {
      store(field, kOffsetFieldWidth);
      uint8_t* const target = field + kOffsetFieldWidth;
      if constexpr (Slot::kind == SlotKind::byteArray) {
        store(target, Slot::width);
        std::memcpy(target + kCountWidth, value, Slot::width);
      } else {
        using Nested = typename Slot::Type;
        packTable<Nested, tableLength<Nested>()>(target, value);
      }
    }
  });
  std::memcpy(table + vtableDistance, kVtable<Record>.data(), kVtableLength<Record>);
}

}  // namespace fixed

// The bytes to reserve for a record in its fixed layout.
template <PlainTable Record>
inline constexpr uint32_t kFixedSize =
    alignUp(fixed::kRootVtablePosition<Record> + kVtableLength<Record>, fixed::kSizeAlignment);

// Writes a record into a buffer of kFixedSize bytes; the gap before the vtable and the tail behind
// it keep what they held.
template <PlainTable Record>
[[gnu::always_inline]] inline void fixedPack(uint8_t* buffer, const Record& record) {
  store(buffer, fixed::kTablePosition);
  fixed::packTable<Record, fixed::kRootVtablePosition<Record> - fixed::kTablePosition>(
      buffer + fixed::kTablePosition, record);
}

}  // namespace korva
