// The fixed layout: every field is present, at a position that only the schema decides, and the
// vtable follows the table. For the codecs of messages without strings and vectors.
#pragma once

#include "codec/korva_format.hpp"
#include "codec/korva_image.hpp"
#include "codec/korva_schema.hpp"

namespace korva {
namespace fixed {

inline constexpr uint32_t kTablePosition = kRootOffsetWidth;
inline constexpr uint32_t kRootVtableAlignment = 4;
inline constexpr uint32_t kSizeAlignment = 8;

template <PlainTable Record>
consteval uint32_t tableLength();

// Bytes of a field within its table; arrays and nested tables directly follow their offset fields.
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

template <PlainTable Record>
consteval uint32_t tableLength() {
  uint32_t length = kDisplacementWidth;
  forEachSlot<Record>([&]<class Slot, size_t>() { length += fieldWidth<Slot>(); });
  return length;
}

template <PlainTable Record>
inline constexpr uint32_t kRootVtablePosition =
    alignUp(kTablePosition + tableLength<Record>(), kRootVtableAlignment);

template <PlainTable Record>
inline constexpr uint32_t kSize =
    alignUp(kRootVtablePosition<Record> + kVtableLength<Record>, kSizeAlignment);

// Adds a field whose value lies at member in the root's record.
template <class Slot, class Layout>
constexpr void addField(Layout& layout, uint32_t field, uint32_t member);

// Adds a table whose record lies at offset within the root's.
template <class Table, class Layout>
constexpr void addTable(Layout& layout, uint32_t table, uint32_t vtable, uint32_t offset) {
  layout.put(table, table - vtable);
  layout.put(vtable, static_cast<uint16_t>(kVtableLength<Table>));
  layout.put(vtable + kTableLengthAt, static_cast<uint16_t>(tableLength<Table>()));
  uint32_t field = table + kDisplacementWidth;
  forEachMember<Table>([&]<class Slot, size_t Index>(uint32_t member) {
    layout.put(vtable + vtableEntry(Index), static_cast<uint16_t>(field - table));
    addField<Slot>(layout, field, offset + member);
    field += fieldWidth<Slot>();
  });
}

template <class Slot, class Layout>
constexpr void addField(Layout& layout, uint32_t field, uint32_t member) {
  if constexpr (Slot::kind == SlotKind::scalar) {
    layout.take(field, member, Slot::width);
  } else {
    const uint32_t target = field + kOffsetFieldWidth;
    layout.put(field, kOffsetFieldWidth);
    if constexpr (Slot::kind == SlotKind::byteArray) {
      layout.put(target, Slot::width);
      layout.take(target + kCountWidth, member, Slot::width);
    } else {
      using Nested = typename Slot::Type;
      addTable<Nested>(layout, target, target + tableLength<Nested>(), member);
    }
  }
}

template <PlainTable Record>
inline constexpr auto kLayout = [] {
  static_assert(tableLength<Record>() <= UINT16_MAX, "an entry must be able to name every field");
  image::Image<kSize<Record>> layout(sizeof(Record));
  layout.template put<uint32_t>(0, kTablePosition);
  addTable<Record>(layout, kTablePosition, kRootVtablePosition<Record>, 0);
  return layout;
}();

}  // namespace fixed

// The bytes to reserve for a record in its fixed layout.
template <PlainTable Record>
inline constexpr uint32_t kFixedSize = fixed::kSize<Record>;

// Writes a record into a buffer of kFixedSize bytes; the gap before the vtable and the tail after
// it keep what they held.
template <PlainTable Record>
[[gnu::always_inline]] inline void fixedPack(uint8_t* buffer, const Record& record) {
  image::write<fixed::kLayout<Record>>(buffer, reinterpret_cast<const uint8_t*>(&record));
}

// Whether kFixedSize bytes are a record in its fixed layout, as our own packer writes it. Reading
// them slot by slot, as any other writer's, would give the same record.
template <PlainTable Record>
[[nodiscard, gnu::always_inline]] inline bool isFixed(const uint8_t* bytes) {
  return isZero(image::difference<fixed::kLayout<Record>>(bytes));
}

// Reads what isFixed has recognised. The record's padding keeps what it held.
template <PlainTable Record>
[[gnu::always_inline]] inline void fixedUnpack(const uint8_t* bytes, Record& record) {
  image::read<fixed::kLayout<Record>>(bytes, reinterpret_cast<uint8_t*>(&record));
}

}  // namespace korva
