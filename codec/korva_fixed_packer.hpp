// The fixed-layout packer: every field present at a position that only the schema decides, the
// vtable behind the table. For the codecs of messages without strings and vectors.
#pragma once

#include <algorithm>
#include <array>
#include <bit>

#include "codec/korva_format.hpp"
#include "codec/korva_schema.hpp"
#include "codec/korva_vector.hpp"

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

// Bytes that stand together, all from the record or all the schema's own.
struct Piece {
  uint32_t position;
  uint32_t size;
  uint32_t source;  // within the record, or kSchema

  static constexpr uint32_t kSchema = UINT32_MAX;
};

// Where every byte of the message comes from.
template <PlainTable Record>
class Layout {
 public:
  std::array<uint8_t, kSize<Record>> constants{};

  consteval Layout() {
    sources_.fill(kUnused);
    put<uint32_t>(0, kTablePosition);
    addTable<Record>(kTablePosition, kRootVtablePosition<Record>, 0);
  }

  // The piece that begins at position.
  [[nodiscard]] constexpr Piece pieceAt(uint32_t position) const {
    const uint32_t first = sources_[position];
    uint32_t end = position + 1;
    while (end < sources_.size() && sources_[end] == next(sources_[end - 1])) {
      ++end;
    }
    return {position, end - position, first};
  }

  // Where the next piece begins, at position or behind it.
  [[nodiscard]] constexpr uint32_t firstUsed(uint32_t position) const {
    while (position < sources_.size() && sources_[position] == kUnused) {
      ++position;
    }
    return position;
  }

  // How many bytes to copy for a piece.
  [[nodiscard]] constexpr uint32_t copiedBytes(const Piece& piece) const {
    const uint32_t rounded = inOneStore(piece.size);
    const bool isThere = piece.source == Piece::kSchema
                             ? piece.position + rounded <= sources_.size()
                             : piece.source + rounded <= sizeof(Record);
    const bool isOverwritten = firstUnused(piece.position) >= piece.position + rounded;
    return isThere && isOverwritten ? rounded : piece.size;
  }

 private:
  static constexpr uint32_t kUnused = UINT32_MAX - 1;

  static constexpr uint32_t next(uint32_t source) {
    return source == kUnused || source == Piece::kSchema ? source : source + 1;
  }

  [[nodiscard]] constexpr uint32_t firstUnused(uint32_t position) const {
    while (position < sources_.size() && sources_[position] != kUnused) {
      ++position;
    }
    return position;
  }

  template <class Value>
  constexpr void put(uint32_t position, Value value) {
    const auto bytes = std::bit_cast<std::array<uint8_t, sizeof(Value)>>(value);
    std::ranges::copy(bytes, constants.begin() + position);
    std::fill_n(sources_.begin() + position, sizeof(Value), Piece::kSchema);
  }

  constexpr void take(uint32_t position, uint32_t source, uint32_t size) {
    for (uint32_t i = 0; i < size; ++i) {
      sources_[position + i] = source + i;
    }
  }

  // Adds a table of the record that lies at offset within the root's.
  template <class Table>
  constexpr void addTable(uint32_t table, uint32_t vtable, uint32_t offset) {
    put(table, table - vtable);
    put(vtable, static_cast<uint16_t>(kVtableLength<Table>));
    put(vtable + vtableEntry(0) - kSlotEntryWidth, static_cast<uint16_t>(tableLength<Table>()));
    uint32_t field = table + kDisplacementWidth;
    forEachMember<Table>([&]<class Slot, size_t Index>(uint32_t member) {
      put(vtable + vtableEntry(Index), static_cast<uint16_t>(field - table));
      addField<Slot>(field, offset + member);
      field += fieldWidth<Slot>();
    });
  }

  template <class Slot>
  constexpr void addField(uint32_t field, uint32_t member) {
    if constexpr (Slot::kind == SlotKind::scalar) {
      take(field, member, Slot::width);
    } else {
      const uint32_t target = field + kOffsetFieldWidth;
      put(field, kOffsetFieldWidth);
      if constexpr (Slot::kind == SlotKind::byteArray) {
        put(target, Slot::width);
        take(target + kCountWidth, member, Slot::width);
      } else {
        using Nested = typename Slot::Type;
        addTable<Nested>(target, target + tableLength<Nested>(), member);
      }
    }
  }

  std::array<uint32_t, kSize<Record>> sources_{};
};

template <PlainTable Record>
inline constexpr Layout<Record> kLayout{};

template <PlainTable Record>
inline constexpr auto kConstants = kLayout<Record>.constants;

// Copies the pieces from position on, each before the next, which may overwrite its last bytes.
template <PlainTable Record, uint32_t Position>
[[gnu::always_inline]] inline void copyPieces(uint8_t* buffer, const uint8_t* record) {
  constexpr uint32_t kPosition = kLayout<Record>.firstUsed(Position);
  if constexpr (kPosition < kSize<Record>) {
    constexpr Piece kPiece = kLayout<Record>.pieceAt(kPosition);
    const uint8_t* const from = kPiece.source == Piece::kSchema
                                    ? kConstants<Record>.data() + kPosition
                                    : record + kPiece.source;
    constexpr uint32_t kBytes = kLayout<Record>.copiedBytes(kPiece);
    std::memcpy(buffer + kPosition, from, kBytes);
    copyPieces<Record, kPosition + kPiece.size>(buffer, record);
  }
}

}  // namespace fixed

// The bytes to reserve for a record in its fixed layout.
template <PlainTable Record>
inline constexpr uint32_t kFixedSize = fixed::kSize<Record>;

// Writes a record into a buffer of kFixedSize bytes; the gap before the vtable and the tail behind
// it keep what they held.
template <PlainTable Record>
[[gnu::always_inline]] inline void fixedPack(uint8_t* buffer, const Record& record) {
  fixed::copyPieces<Record, 0>(buffer, reinterpret_cast<const uint8_t*>(&record));
}

}  // namespace korva
