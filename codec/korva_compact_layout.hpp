// The part of a compact table that looks the same whatever its values: offset fields and arrays.
// For the compact packer and for reading what it wrote.
#pragma once

#include "codec/korva_format.hpp"
#include "codec/korva_image.hpp"
#include "codec/korva_rows.hpp"
#include "codec/korva_schema.hpp"

namespace korva::compact {

// What lies between a plain table's scalars and its nested tables: offset fields and arrays. No
// value changes their positions or offsets, except the offset of a nested table that follows
// another one, whose size varies; it is 0 here.
template <PlainTable Record>
inline constexpr auto kFieldsAndArrays = [] {
  constexpr uint32_t kFields =
      countSlots<Record>(SlotKind::byteArray) + countSlots<Record>(SlotKind::table);
  image::Image<kFields * kOffsetFieldWidth + rows::kArraysLength<Record>> image(sizeof(Record));
  uint32_t field = 0;
  uint32_t array = kFields * kOffsetFieldWidth;
  forEachMember<Record>([&]<class Slot, size_t Index>(uint32_t member) {
    if constexpr (Slot::kind == SlotKind::byteArray) {
      image.put(field, array - field);
      image.put(array, Slot::width);
      image.take(array + kCountWidth, member, Slot::width);
      array += kCountWidth + Slot::width;
      field += kOffsetFieldWidth;
    } else if constexpr (Slot::kind == SlotKind::table) {
      const uint32_t table = image.size() + kVtableLength<typename Slot::Type>;
      image.put(field, countSlots<Record>(SlotKind::table, Index) == 0 ? table - field : 0);
      field += kOffsetFieldWidth;
    }
  });
  return image;
}();

}  // namespace korva::compact
