// The unpacker: trusts no byte, checks every position against the buffer's length before it is
// read, and turns absent fields into zeros. For the codecs of any message.
#pragma once

#include "codec/korva_format.hpp"
#include "codec/korva_inlined.hpp"
#include "codec/korva_known_table.hpp"
#include "codec/korva_runtime.hpp"
#include "codec/korva_schema.hpp"
#include "codec/korva_small_table.hpp"

namespace korva::reading {

// In whose name memory is asked for and failures are logged.
struct Caller {
  CodecRuntime& runtime;
  const char* function;
};

// What is being read. Positions are 64 bits wide wherever a received value has gone into them, so
// that no sum of theirs can wrap.
struct Source {
  const uint8_t* bytes;
  uint32_t length;
  const Caller& caller;

  [[nodiscard, gnu::always_inline]] bool holds(uint64_t position, uint64_t count) const {
    return position + count <= length;
  }

  // Checks nothing: holds comes first.
  template <class Value>
  [[nodiscard, gnu::always_inline]] Value load(uint64_t position) const {
    return korva::load<Value>(bytes + position);
  }
};

struct TableView {
  uint32_t table;
  uint32_t vtable;
  uint32_t vtableLength;
};

enum class HeaderFault : uint8_t { none, tableOffset, vtableOffset, vtableLength };

// Checks the table that is said to lie at position, and its vtable. A view is filled as far as the
// checks came.
[[nodiscard, gnu::always_inline]] inline HeaderFault openTable(const Source& source,
                                                               uint64_t position, TableView& view) {
  const uint32_t last = source.length - kDisplacementWidth;
  view.table = static_cast<uint32_t>(position);
  if (position < kRootOffsetWidth || position > last) {
    return HeaderFault::tableOffset;
  }
  // Modulo 2^32: the vtable may follow the table.
  view.vtable = view.table - source.load<uint32_t>(view.table);
  if (view.vtable < kRootOffsetWidth || view.vtable > last) {
    return HeaderFault::vtableOffset;
  }
  view.vtableLength = source.load<uint16_t>(view.vtable);
  return source.holds(view.vtable, view.vtableLength) ? HeaderFault::none
                                                      : HeaderFault::vtableLength;
}

// Where our own packer puts the root table.
template <class Record>
inline constexpr uint32_t kOwnTable = kRootOffsetWidth + kVtableLength<Record>;

// If a record has no scalars, and no text or vector is left out, the entries of our own root table
// are known: its offset fields are adjacent, and the first one points past the last, to a count.
template <class Record>
inline constexpr bool kOwnFieldsAreKnown =
    Schema<Record>::count != 0 && countSlots<Record>(SlotKind::scalar) == 0;
template <class Record>
inline constexpr uint32_t kFieldsSize = Schema<Record>::count * kOffsetFieldWidth;

// How many bytes at the beginning of our own messages have fixed places, whatever the values.
template <class Record>
inline constexpr uint32_t kOwnFront =
    kOwnTable<Record> + kDisplacementWidth +
    (kOwnFieldsAreKnown<Record> ? kFieldsSize<Record> + kCountWidth : 0);

template <class Record>
[[nodiscard, gnu::always_inline]] inline bool matchesOwnFields(const Source& source) {
  return source.load<uint32_t>(kOwnTable<Record> + kDisplacementWidth) == kFieldsSize<Record> &&
         allOfSlots<Record>([&]<class Slot, size_t Index>() KORVA_INLINED {
           return source.load<uint16_t>(kRootOffsetWidth + vtableEntry(Index)) ==
                  kDisplacementWidth + Index * kOffsetFieldWidth;
         });
}

// Signed, so that a length of 2^31 and more, which is refused, counts as too short.
template <class Record>
[[nodiscard, gnu::always_inline]] inline bool hasRoomForOwnFront(const Source& source) {
  return static_cast<int32_t>(source.length) >= static_cast<int32_t>(kOwnFront<Record>);
}

// Whether a message that is long enough begins as our own packer's do. The comparisons wait for
// nothing but the buffer, and what they have compared is as good as constant afterwards; to follow
// the offsets instead costs a load for each of them before the first field can be read.
template <class Record>
[[nodiscard, gnu::always_inline]] inline bool matchesOwnFront(const Source& source) {
  const bool begins = source.load<uint32_t>(0) == kOwnTable<Record> &&
                      source.load<uint32_t>(kOwnTable<Record>) == kVtableLength<Record> &&
                      source.load<uint16_t>(kRootOffsetWidth) == kVtableLength<Record>;
  if constexpr (kOwnFieldsAreKnown<Record>) {
    return begins && matchesOwnFields<Record>(source);
  }
  return begins;
}

// Opens the root table, wherever it lies. Only its header's faults are worth a line; whatever lies
// deeper fails in silence.
[[nodiscard, gnu::cold, gnu::noinline]] inline bool openRoot(const Source& source,
                                                             TableView& view) {
  const auto& [runtime, function] = source.caller;
  const HeaderFault fault = openTable(source, source.load<uint32_t>(0), view);
  if (fault == HeaderFault::tableOffset) {
    korvaLog(runtime, kInvalid, function, "[KORVA]:Table offset(%u) is out of range(4 - %u)",
             view.table, source.length);
  } else if (fault == HeaderFault::vtableOffset) {
    korvaLog(runtime, kInvalid, function, "[KORVA]:Vtable offset(%u) is out of range(4 - %u)",
             view.vtable, source.length - kDisplacementWidth);
  } else if (fault == HeaderFault::vtableLength) {
    korvaLog(runtime, kInvalid, function, "[KORVA]:Vtable Len(%u) is out of range(0 - %u)",
             view.vtableLength, source.length - view.vtable);
  }
  return fault == HeaderFault::none;
}

// Finds what an offset field points at and checks that the buffer holds the bytes there: a count or
// a table's displacement, and what is known to follow it. In tables that may have arrays, refusals
// are marked as unlikely: GCC otherwise takes the last of many checks for hardly ever reached, and
// copies the arrays after them by slow string instructions.
[[nodiscard, gnu::always_inline]] inline bool follow(const Source& source, uint64_t offsetField,
                                                     uint64_t& target,
                                                     uint32_t bytes = kCountWidth) {
  if (!source.holds(offsetField, kOffsetFieldWidth)) [[unlikely]] {
    return false;
  }
  target = offsetField + source.load<uint32_t>(offsetField);
  return source.holds(target, bytes);
}

[[gnu::cold, gnu::noinline]] inline void logNoMemory(const Caller& caller, uint64_t size,
                                                     uint32_t more) {
  korvaLog(caller.runtime, kNoMemory, caller.function,
           "[KORVA]:Malloc unpack data unsuccess,                size(%u)",
           static_cast<uint32_t>(size + more));
}

// Asks for size and some more bytes, which fit 32 bits together. The log adds them up anew and is
// told the caller by reference, so that neither needs a register across the call.
[[nodiscard, gnu::always_inline]] inline void* allocate(const Source& source, uint64_t size,
                                                        uint32_t more = 0) {
  const auto& [runtime, function] = source.caller;
  void* const block =
      runtime.codecAlloc(static_cast<uint32_t>(size + more), kModuleNumber, function);
  if (block == nullptr) {
    logNoMemory(source.caller, size, more);
  }
  return block;
}

// AtOnce says whether to read a table's scalars all at once if our own packer laid them out, or to
// read all slots one by one in any case.
template <class Record, bool AtOnce = known::ReadAtOnce<Record>>
[[nodiscard]] bool readTable(const Source& source, const TableView& view, Record& record);

template <class Slot, class Record>
[[nodiscard, gnu::always_inline]] inline bool readByteArray(const Source& source, uint64_t field,
                                                            Record& record) {
  uint64_t target = 0;
  if (!follow(source, field, target, kCountWidth + Slot::width) ||
      source.load<uint32_t>(target) != Slot::width) [[unlikely]] {
    return false;
  }
  memcpy_s(Slot::get(record), source.bytes + target + kCountWidth);
  return true;
}

// The copy gets a NUL of its own: the buffer need not hold one. The block belongs to the record
// from the moment it exists.
template <class Slot, class Record>
[[nodiscard, gnu::always_inline]] inline bool readString(const Source& source, uint64_t field,
                                                         Record& record) {
  uint64_t target = 0;
  if (!follow(source, field, target)) {
    return false;
  }
  const uint64_t count = source.load<uint32_t>(target);
  if (!source.holds(target + kCountWidth, count)) {
    return false;
  }
  const uint8_t* const characters = source.bytes + target + kCountWidth;
  auto* const text = static_cast<char*>(allocate(source, count, 1));  // below 2^31, as lengths are
  Slot::get(record) = text;
  if (text == nullptr) {
    return false;
  }
  text[count] = '\0';
  std::memcpy(text, characters, count);
  return true;
}

template <class Record>
[[nodiscard, gnu::always_inline]] inline bool readTableAt(const Source& source, uint64_t position,
                                                          Record& record) {
  TableView view{};
  return openTable(source, position, view) == HeaderFault::none && readTable(source, view, record);
}

template <class Slot, class Record>
[[nodiscard, gnu::always_inline]] inline bool readNestedTable(const Source& source, uint64_t field,
                                                              Record& record) {
  uint64_t target = 0;
  if (!follow(source, field, target)) [[unlikely]] {
    return false;
  }
  return readTableAt(source, target, Slot::get(record));
}

// Clears what lies between the members of a record and after the last one, and in its nested ones.
template <PlainTable Record>
[[gnu::always_inline]] inline void clearPadding(Record& record) {
  forEachSlot<Record>([&]<class Slot, size_t Index>() KORVA_INLINED {
    if constexpr (Slot::kind == SlotKind::table) {
      clearPadding(Slot::get(record));
    }
    constexpr uint32_t kEnd = kMemberOffset<Record, Index> + Slot::width;
    constexpr uint32_t kNext = [] {
      if constexpr (Index + 1 < Schema<Record>::count) {
        return kMemberOffset<Record, Index + 1>;
      } else {
        return kRecordSize<Record>;
      }
    }();
    if constexpr (kEnd != kNext) {
      std::memset(reinterpret_cast<uint8_t*>(&record) + kEnd, 0, kNext - kEnd);
    }
  });
}

// Reads a small table at once, if our own packer laid it out. Returns false for anything else,
// which is to be read slot by slot.
template <small::SmallTable Record>
[[nodiscard, gnu::always_inline]] inline bool readSmall(const Source& source, uint64_t position,
                                                        Record& record) {
  if (!small::read(source.bytes, source.length, position, record)) [[unlikely]] {
    return false;
  }
  clearPadding(record);
  return true;
}

// The lowest position that a list's element can have: an element is not before its entry, which is
// after the count, which is not before the offset field, which is at least one byte after the
// root table's beginning. Our vtable is no longer than that, so that looking for it before an
// element stays within the buffer. Nor is it found where it would overlap the root offset: the root
// table is before the element then, so the offset's upper bytes are zero, and a vtable's length is
// not.
inline constexpr uint32_t kFirstElement = kRootOffsetWidth + 1 + kCountWidth;

// Reads an element that another writer has laid out.
template <small::SmallTable Element>
[[nodiscard, gnu::cold, gnu::noinline]] bool readOtherElement(const Source& source,
                                                              uint64_t position, Element& element) {
  return readTableAt(source, position, element);
}

template <class Element>
[[nodiscard, gnu::always_inline]] inline bool readElement(const Source& source, uint64_t position,
                                                          Element& element) {
  if constexpr (small::SmallTable<Element> && kVtableLength<Element> <= kFirstElement) {
    return (source.holds(position, kDisplacementWidth) && readSmall(source, position, element)) ||
           readOtherElement(source, position, element);
  } else {
    return readTableAt(source, position, element);
  }
}

// Every element has an entry of four bytes in the buffer, so the array is at most a quarter of the
// length times the element's size, whatever count the buffer claims. Elements may lie anywhere, and
// may overlap.
template <class Slot, class Record>
[[nodiscard]] bool readVector(const Source& source, uint64_t field, Record& record) {
  using Element = typename Slot::Element;
  static_assert(PlainTable<Element>);
  uint64_t target = 0;
  if (!follow(source, field, target)) {
    return false;
  }
  const uint32_t count = source.load<uint32_t>(target);
  const uint64_t entries = target + kCountWidth;
  const uint64_t size = uint64_t{count} * sizeof(Element);
  if (!source.holds(entries, uint64_t{count} * kOffsetFieldWidth) || size > UINT32_MAX) {
    return false;
  }
  if (count == 0) {
    return true;
  }
  auto* const elements = static_cast<Element*>(allocate(source, size));
  Slot::get(record) = elements;
  if (elements == nullptr) {
    return false;
  }
  Slot::count(record) = count;
  for (uint32_t i = 0; i < count; ++i) {
    const uint64_t entry = entries + uint64_t{i} * kOffsetFieldWidth;
    if (!readElement(source, entry + source.load<uint32_t>(entry), elements[i])) [[unlikely]] {
      return false;
    }
  }
  return true;
}

// Reads a scalar, or 0 where its entry is 0. Absence is as good as random, so it decides no branch:
// something is read anyway, and masked. Four bytes can be read at the table's beginning, and eight
// at the buffer's, since no table begins before position 4.
template <class Slot, class Record>
[[nodiscard, gnu::always_inline]] inline bool readScalar(const Source& source, uint32_t table,
                                                         uint32_t entry, Record& record) {
  using Scalar = typename Slot::Type;
  const uint32_t room = source.length - table;
  if (entry > (room < Slot::width ? 0 : room - Slot::width)) [[unlikely]] {
    return false;
  }
  const uint64_t mask = 0 - uint64_t{entry != 0};
  uint64_t position = uint64_t{table} + entry;
  if constexpr (Slot::width > kDisplacementWidth) {
    position &= mask;
  }
  Slot::get(record) = static_cast<Scalar>(source.load<Scalar>(position) & mask);
  return true;
}

// Reads what the entry of a slot of any other kind leads to. Such slots are there more often than
// not.
template <class Slot, class Record>
[[nodiscard, gnu::always_inline]] inline bool readReference(const Source& source, uint32_t table,
                                                            uint32_t entry, Record& record) {
  if (entry == 0) [[unlikely]] {
    std::memset(&Slot::get(record), 0, sizeof(Slot::get(record)));
    return true;
  }
  const uint64_t field = uint64_t{table} + entry;
  if constexpr (Slot::kind == SlotKind::byteArray) {
    return readByteArray<Slot>(source, field, record);
  } else if constexpr (Slot::kind == SlotKind::string) {
    return readString<Slot>(source, field, record);
  } else if constexpr (Slot::kind == SlotKind::table) {
    return readNestedTable<Slot>(source, field, record);
  } else {
    return readVector<Slot>(source, field, record);
  }
}

// Copies a vtable that is too short to have all slots, and adds the missing ones as absent.
[[gnu::cold, gnu::noinline]] inline void completeVtable(const uint8_t* vtable, uint32_t length,
                                                        uint8_t* complete, uint32_t size) {
  std::memset(complete, 0, size);
  std::memcpy(complete, vtable, length - length % kSlotEntryWidth);
}

// Reads all of a table whose vtable has all slots: an absent field is 0, and so are every byte
// of an absent array or nested record and all padding. A record that owns memory is clear already.
template <class Record, bool AtOnce = known::ReadAtOnce<Record>>
[[nodiscard, gnu::always_inline]] inline bool readSlots(const Source& source, const uint8_t* vtable,
                                                        uint32_t table, Record& record) {
  bool scalarsAreRead = false;
  if constexpr (PlainTable<Record>) {
    clearPadding(record);
  }
  if constexpr (AtOnce) {
    scalarsAreRead =
        known::readScalars(vtable, source.bytes + table, table, source.length - table, record);
  }
  return allOfSlots<Record>([&]<class Slot, size_t Index>() KORVA_INLINED {
    const uint32_t entry = load<uint16_t>(vtable + vtableEntry(Index));
    if constexpr (Slot::kind == SlotKind::scalar) {
      return (AtOnce && scalarsAreRead) || readScalar<Slot>(source, table, entry, record);
    } else {
      return readReference<Slot>(source, table, entry, record);
    }
  });
}

// Reads all of a table whose header has been checked.
template <class Record, bool AtOnce>
bool readTable(const Source& source, const TableView& view, Record& record) {
  const uint8_t* vtable = source.bytes + view.vtable;
  uint8_t complete[kVtableLength<Record>];
  if (view.vtableLength < kVtableLength<Record>) [[unlikely]] {
    completeVtable(vtable, view.vtableLength, complete, sizeof(complete));
    vtable = complete;
  }
  return readSlots<Record, AtOnce>(source, vtable, view.table, record);
}

}  // namespace korva::reading
