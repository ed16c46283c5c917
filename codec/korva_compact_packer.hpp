// The compact packer and its size pass: zero scalars left out, strings, byte arrays and vectors out
// of line, one pass front to back without allocation. For the codecs of any message.
#pragma once

#include <kel_sys_diag/rpc.h>

#include <algorithm>
#include <array>
#include <limits>

#include "codec/korva_format.hpp"
#include "codec/korva_scalars.hpp"
#include "codec/korva_schema.hpp"

namespace korva {

// Where packing stands: positions count from start, the next byte goes to current.
struct PackCursor {
  uint8_t* start;
  uint8_t* current;

  [[nodiscard]] uint32_t positionOf(const uint8_t* at) const {
    return static_cast<uint32_t>(at - start);
  }
};

// The lengths that the size pass found, so that no string is scanned twice in a pack pass.
template <class Record>
using StringLengths = std::array<uint64_t, countSlots<Record>(SlotKind::string)>;

namespace compact {

inline constexpr uint64_t kSizeLimit = std::numeric_limits<uint32_t>::max();

// The part of a table's size that no value changes: vtable, displacement, and whatever is always
// present.
template <class Record>
consteval uint32_t fixedSize() {
  uint32_t size = kVtableLength<Record> + kDisplacementWidth;
  forEachSlot<Record>([&]<class Slot, size_t>() {
    if constexpr (Slot::kind == SlotKind::byteArray) {
      size += kOffsetFieldWidth + kCountWidth + Slot::width;
    } else if constexpr (Slot::kind == SlotKind::table) {
      size += kOffsetFieldWidth + fixedSize<typename Slot::Type>();
    }
  });
  return size;
}

// Which string of its table a slot is.
template <class Record, size_t Slot>
consteval size_t stringIndex() {
  size_t index = 0;
  forEachSlot<Record>([&]<class Other, size_t OtherIndex>() {
    index += OtherIndex < Slot && Other::kind == SlotKind::string ? 1 : 0;
  });
  return index;
}

template <class Slot, class Record>
[[gnu::always_inline]] inline bool hasElements(const Record& record) {
  return Slot::get(record) != nullptr && Slot::count(record) != 0;
}

// Whether a slot that need not be there has an offset field in this record's table.
template <class Slot, class Record>
[[gnu::always_inline]] inline bool hasOffsetField(const Record& record) {
  if constexpr (Slot::kind == SlotKind::string) {
    return Slot::get(record) != nullptr;
  } else {
    return hasElements<Slot>(record);
  }
}

// With every scalar present.
template <class Record>
inline constexpr uint32_t kFullSize = fixedSize<Record>() + scalars::allBytes<Record>();

// Vector elements, with their entries. Where the count alone decides that the message is too large,
// no element is looked at.
template <PlainTable Element>
uint64_t elementsSize(const Element* elements, uint32_t count) {
  const uint64_t least = uint64_t{count} * (kOffsetFieldWidth + fixedSize<Element>());
  if (least > kSizeLimit) {
    return least;
  }
  uint64_t size = uint64_t{count} * (kOffsetFieldWidth + kFullSize<Element>);
  for (uint32_t i = 0; i < count;) {
    scalars::AbsentBytes<Element> absent;
    const uint32_t end = i + std::min(count - i, absent.kCapacity);
    for (; i < end; ++i) {
      absent.add(elements[i]);
    }
    size -= absent.sum();
  }
  return size;
}

// What a table takes, with its vector's elements. Fills in the strings' lengths.
template <class Record>
[[gnu::always_inline]] inline uint64_t tableSize(const Record& record,
                                                 StringLengths<Record>& lengths) {
  scalars::AbsentBytes<Record> absent;
  absent.add(record);
  uint64_t size = kFullSize<Record> - absent.sum();
  forEachSlot<Record>([&]<class Slot, size_t Index>() __attribute__((always_inline)) {
    if constexpr (Slot::kind == SlotKind::string) {
      if (const char* const text = Slot::get(record); text != nullptr) {
        const uint64_t length = std::strlen(text);
        lengths[stringIndex<Record, Index>()] = length;
        size += kOffsetFieldWidth + kCountWidth + length + 1;
      }
    } else if constexpr (Slot::kind == SlotKind::table) {
      static_assert(PlainTable<typename Slot::Type>);
    } else if constexpr (Slot::kind == SlotKind::vector) {
      if (hasElements<Slot>(record)) {
        size +=
            kOffsetFieldWidth + kCountWidth + elementsSize(Slot::get(record), Slot::count(record));
      }
    }
  });
  return size;
}

template <PlainTable Record>
uint32_t packTable(PackCursor& cursor, const Record& record);

// A table being written. The order of its parts is the wire's: scalars, offset fields, strings and
// byte arrays, vector header; its nested tables and elements follow behind it.
template <class Record>
class TableWriter {
  static_assert(countSlots<Record>(SlotKind::vector) <= 1,
                "a second vector's header would have no place before the first one's elements");

 public:
  [[gnu::always_inline]] TableWriter(PackCursor& cursor, const Record& record)
      : cursor_(cursor),
        record_(record),
        vtable_(cursor.current),
        table_(vtable_ + kVtableLength<Record>),
        at_(table_ + kDisplacementWidth) {}

  // Returns the table's position and leaves the cursor behind everything that belongs to it.
  [[gnu::always_inline]] uint32_t write(const StringLengths<Record>& lengths) {
    writeScalars();
    reserveOffsetFields();
    writeStringsAndArrays(lengths);
    writeVectorHeader();
    writeTableHeader();
    cursor_.current = at_;
    writeNestedTables();
    writeElements();
    return cursor_.positionOf(table_);
  }

 private:
  // A window's scalars are moved together in one vector, which is stored whole where more than a
  // vector follows in the table and overwrites what is too much. Where nothing may follow, the last
  // present scalar ends exactly at the table's end, and what lies before the first one is the
  // vtable and the displacement, which are written later.
  [[gnu::always_inline]] void writeScalars() {
    scalars::forEachWindow<Record, scalars::Depth::ownTable>([&]<size_t Index>() __attribute__((
        always_inline)) { writeWindow<Index>(); });
  }

  template <uint32_t Index>
  [[gnu::always_inline]] void writeWindow() {
    using scalars::Depth;
    using scalars::Side;
    constexpr scalars::Window kWindow = scalars::kWindows<Record, Depth::ownTable>.items[Index];
    constexpr scalars::Pattern kPattern = scalars::patternOf<Record, Index>();
    constexpr Side kSide = kFollowing >= kVectorWidth ? Side::front : Side::end;
    constexpr auto& kRows = scalars::kRows<kPattern, kSide, Index == 0>;
    const ByteVector window = scalars::loadWindow<Record, Depth::ownTable, Index>(record_);
    const uint32_t row = scalars::rowOf<Record, Index>(record_, window);
    const ByteVector together =
        permute(window, loadVector<kVectorWidth>(kRows.indices[row].data()));
    const auto begin = static_cast<uint64_t>(at_ - table_);
    if constexpr (kSide == Side::front) {
      storeVector(at_, together);
      at_ += kRows.size[row];
    } else {
      static_assert(scalars::kWindows<Record, Depth::ownTable>.count == 1 &&
                        scalars::alignUp(scalars::totalWidth(kPattern), 4) <=
                            kVtableLength<Record> + kDisplacementWidth,
                    "a table of scalars alone must fit one vector");
      at_ += kRows.size[row];
      storeVectorTail<scalars::alignUp(scalars::totalWidth(kPattern), 4)>(at_, together);
    }
    constexpr uint32_t kSlot = scalars::kScalars<Record, Depth::ownTable>.items[kWindow.first].slot;
    writeEntries<kSlot, kWindow.count>(kRows, row, begin);
  }

  // Four entries at a time. The fourth of a word that holds three is the next slot's, or lies in
  // the displacement; either is written later.
  template <uint32_t Slot, uint32_t Count, class Rows>
  [[gnu::always_inline]] void writeEntries(const Rows& rows, uint32_t row, uint64_t begin) {
    uint8_t* const to = vtable_ + vtableEntry(Slot);
    constexpr uint32_t kRest = Count % scalars::kLanes;
    constexpr uint32_t kWhole = Count / scalars::kLanes + (kRest == 3 ? 1 : 0);
    for (uint32_t word = 0; word < kWhole; ++word) {
      store(to + word * sizeof(uint64_t), rows.entriesAt(row, word, begin));
    }
    if constexpr (kRest == 1 || kRest == 2) {
      using Rest = std::conditional_t<kRest == 1, uint16_t, uint32_t>;
      store(to + kWhole * sizeof(uint64_t), static_cast<Rest>(rows.entriesAt(row, kWhole, begin)));
    }
  }

  [[gnu::always_inline]] void reserveOffsetFields() {
    forEachSlot<Record>([&]<class Slot, size_t Index>() __attribute__((always_inline)) {
      if constexpr (Slot::kind == SlotKind::byteArray || Slot::kind == SlotKind::table) {
        reserveOffsetField<Index>();
      } else if constexpr (Slot::kind != SlotKind::scalar) {
        if (hasOffsetField<Slot>(record_)) {
          reserveOffsetField<Index>();
        } else {
          store(vtable_ + vtableEntry(Index), uint16_t{0});
        }
      }
    });
  }

  template <size_t Index>
  [[gnu::always_inline]] void reserveOffsetField() {
    store(vtable_ + vtableEntry(Index), static_cast<uint16_t>(at_ - table_));
    offsetFields_[Index] = at_;
    at_ += kOffsetFieldWidth;
  }

  [[gnu::always_inline]] void writeStringsAndArrays(const StringLengths<Record>& lengths) {
    forEachSlot<Record>([&]<class Slot, size_t Index>() __attribute__((always_inline)) {
      if constexpr (Slot::kind == SlotKind::string) {
        if (const char* const text = Slot::get(record_); text != nullptr) {
          const uint64_t length = lengths[stringIndex<Record, Index>()];
          writeBytes<Index>(text, static_cast<uint32_t>(length));
          *at_++ = 0;
        }
      } else if constexpr (Slot::kind == SlotKind::byteArray) {
        writeBytes<Index>(Slot::get(record_), Slot::width);
      }
    });
  }

  template <size_t Index>
  [[gnu::always_inline]] void writeBytes(const void* bytes, uint32_t count) {
    pointHere<Index>();
    store(at_, count);
    std::memcpy(at_ + kCountWidth, bytes, count);
    at_ += kCountWidth + count;
  }

  // The elements' entries are filled in as the elements are written.
  [[gnu::always_inline]] void writeVectorHeader() {
    forEachSlot<Record>([&]<class Slot, size_t Index>() __attribute__((always_inline)) {
      if constexpr (Slot::kind == SlotKind::vector) {
        if (hasElements<Slot>(record_)) {
          pointHere<Index>();
          store(at_, Slot::count(record_));
          entries_ = at_ + kCountWidth;
          at_ = entries_ + size_t{Slot::count(record_)} * kOffsetFieldWidth;
        }
      }
    });
  }

  [[gnu::always_inline]] void writeTableHeader() {
    const auto tableLength = static_cast<uint32_t>(at_ - table_);
    store(vtable_, kVtableLength<Record> | tableLength << 16);
    store(table_, static_cast<int32_t>(kVtableLength<Record>));
  }

  [[gnu::always_inline]] void writeNestedTables() {
    forEachSlot<Record>([&]<class Slot, size_t Index>() __attribute__((always_inline)) {
      if constexpr (Slot::kind == SlotKind::table) {
        point(offsetFields_[Index], packTable(cursor_, Slot::get(record_)));
      }
    });
  }

  [[gnu::always_inline]] void writeElements() {
    forEachSlot<Record>([&]<class Slot, size_t>() __attribute__((always_inline)) {
      if constexpr (Slot::kind == SlotKind::vector) {
        if (hasElements<Slot>(record_)) {
          // Copies, because for all the compiler knows the bytes written may be the record's.
          const auto* const elements = Slot::get(record_);
          const uint32_t count = Slot::count(record_);
          PackCursor cursor = cursor_;
          for (uint32_t i = 0; i < count; ++i) {
            point(entries_ + size_t{i} * kOffsetFieldWidth, packTable(cursor, elements[i]));
          }
          cursor_.current = cursor.current;
        }
      }
    });
  }

  template <size_t Index>
  [[gnu::always_inline]] void pointHere() {
    point(offsetFields_[Index], cursor_.positionOf(at_));
  }

  [[gnu::always_inline]] void point(uint8_t* offsetField, uint32_t target) {
    store(offsetField, target - cursor_.positionOf(offsetField));
  }

  // Bytes that always follow the scalars.
  static constexpr uint32_t kFollowing =
      fixedSize<Record>() - kVtableLength<Record> - kDisplacementWidth;

  PackCursor& cursor_;
  const Record& record_;
  uint8_t* const vtable_;
  uint8_t* const table_;
  uint8_t* at_;
  uint8_t* entries_ = nullptr;
  std::array<uint8_t*, Schema<Record>::count> offsetFields_;
};

// The nested-table packer: writes the table at the cursor and returns its position.
template <PlainTable Record>
[[gnu::always_inline]] inline uint32_t packTable(PackCursor& cursor, const Record& record) {
  return TableWriter<Record>(cursor, record).write({});
}

}  // namespace compact

// The encoded size of a record, or 0 when it passes 32 bits.
template <class Record>
[[gnu::always_inline]] inline uint32_t compactSize(const Record& record,
                                                   StringLengths<Record>& lengths) {
  const uint64_t size = kRootOffsetWidth + compact::tableSize(record, lengths);
  return size <= compact::kSizeLimit ? static_cast<uint32_t>(size) : 0;
}

// No record of the type takes more; 0 where strings or vectors set no bound.
template <class Record>
inline constexpr uint32_t kLargestCompactSize =
    kOwnsMemory<Record> ? 0 : kRootOffsetWidth + compact::kFullSize<Record>;

// Writes a record whose lengths compactSize has filled in, into a buffer that holds its size.
template <class Record>
[[gnu::always_inline]] inline uint32_t compactPack(uint8_t* buffer, const Record& record,
                                                   const StringLengths<Record>& lengths) {
  PackCursor cursor{buffer, buffer + kRootOffsetWidth};
  store(buffer, compact::TableWriter<Record>(cursor, record).write(lengths));
  return cursor.positionOf(cursor.current);
}

}  // namespace korva
