// The vocabulary of the KORVA wire format: widths, unaligned little-endian loads and stores, and
// the bounds-checked copy. For the codecs; knows no message.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace korva {

static_assert(std::endian::native == std::endian::little,
              "values are copied between records and buffers as they are");

inline constexpr uint32_t kRootOffsetWidth = 4;
inline constexpr uint32_t kDisplacementWidth = 4;
inline constexpr uint32_t kOffsetFieldWidth = 4;
inline constexpr uint32_t kCountWidth = 4;
inline constexpr uint32_t kVtableHeaderWidth = 4;  // vtableLength and tableLength
inline constexpr uint32_t kTableLengthAt = 2;      // within a vtable
inline constexpr uint32_t kSlotEntryWidth = 2;

// The smallest buffer that can be looked at: its root offset.
inline constexpr uint32_t kMinimumLength = kRootOffsetWidth;

// Where slot's entry lies within a vtable; with slot = the number of slots, the vtable's length.
constexpr uint32_t vtableEntry(size_t slot) {
  return static_cast<uint32_t>(kVtableHeaderWidth + kSlotEntryWidth * slot);
}

// Values lie at any byte position, so every access goes through a copy of known width, which
// compiles to one unaligned instruction.
template <class Value>
[[gnu::always_inline]] inline Value load(const uint8_t* at) {
  Value value;
  std::memcpy(&value, at, sizeof(Value));
  return value;
}

template <class Value>
[[gnu::always_inline]] inline void store(uint8_t* at, Value value) {
  std::memcpy(at, &value, sizeof(Value));
}

// Fills an array. Its size is part of its type, so there is no count that could be wrong.
template <size_t Size>
[[gnu::always_inline]] inline void memcpy_s(uint8_t (&destination)[Size], const uint8_t* source) {
  std::memcpy(destination, source, Size);
}

}  // namespace korva
