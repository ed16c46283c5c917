// The compact packer and its size pass. Zero scalars are left out; strings, byte arrays and vectors
// are stored out of line; packing is one pass from front to back, without allocation. For the
// codecs of any message.
#pragma once

#include <algorithm>
#include <array>
#include <cstring>
#include <limits>

#include "codec/korva_compact_layout.hpp"
#include "codec/korva_format.hpp"
#include "codec/korva_image.hpp"
#include "codec/korva_inlined.hpp"
#include "codec/korva_rows.hpp"
#include "codec/korva_scalars.hpp"
#include "codec/korva_schema.hpp"

namespace korva {
namespace compact {

// A string of the record, scanned once a pass. The pointer is copied because to the compiler any
// byte written to the buffer may change the record.
struct Text {
  const char* characters;
  uint64_t length;
  uint8_t* target = nullptr;  // where packing puts it
};

template <class Record>
using Texts = std::array<Text, countSlots<Record>(SlotKind::string)>;

inline constexpr uint64_t kSizeLimit = std::numeric_limits<uint32_t>::max();

// The part of a table's size that no value changes: vtable, displacement, and whatever is always
// present.
template <class Record>
consteval uint32_t constantSize() {
  uint32_t size = kVtableLength<Record> + kDisplacementWidth;
  forEachSlot<Record>([&]<class Slot, size_t>() {
    if constexpr (Slot::kind == SlotKind::byteArray) {
      size += kOffsetFieldWidth + kCountWidth + Slot::width;
    } else if constexpr (Slot::kind == SlotKind::table) {
      size += kOffsetFieldWidth + constantSize<typename Slot::Type>();
    }
  });
  return size;
}

// How many elements a vector has; none without an array, whatever the record says.
template <class Slot, class Record>
[[gnu::always_inline]] inline uint32_t elementCount(const Record& record) {
  return Slot::get(record) == nullptr ? 0 : Slot::count(record);
}

// The size of a table with every scalar present, and without its strings and vectors.
template <class Record>
inline constexpr uint32_t kFullSize =
    constantSize<Record>() + scalars::allBytes<Record, scalars::Depth::withNested>();

// The same for a vector's element, with its entry.
template <class Element>
inline constexpr uint32_t kFullElementSize = kOffsetFieldWidth + kFullSize<Element>;

// Fewer elements than this are measured without asking first whether their largest size would fit.
// Where the capacity is just the message's size, the answer is whether all scalars are there, which
// is as hard to predict as their values. A mispredicted branch costs more than measuring one
// element, and more than measuring three where one vector holds the scalars of each.
template <class Element>
inline constexpr uint32_t kFewElements =
    scalars::kWindows<Element, scalars::Depth::withNested>.count == 1 ? 4 : 2;

// How many bytes of scalars are absent from the next times * Counter::kAtOnce elements. Moves
// elements past them.
template <class Counter, class Element>
[[gnu::always_inline]] inline uint64_t absentBytes(const Element*& elements, uint32_t times) {
  uint64_t bytes = 0;
  while (times != 0) {
    Counter counter;
    uint32_t some = std::min(times, Counter::kCapacity);
    times -= some;
    for (; some != 0; --some, elements += Counter::kAtOnce) {
      counter.add(elements);
    }
    bytes += counter.sum();
  }
  return bytes;
}

// The size of some elements, with their entries. If their count alone makes them too large, none is
// looked at. Inlined, since a call would make its callers save registers.
template <PlainTable Element>
[[gnu::always_inline]] inline uint64_t elementsSize(const Element* elements, uint32_t count) {
  const uint64_t least = uint64_t{count} * (kOffsetFieldWidth + constantSize<Element>());
  if (least > kSizeLimit) {
    return least;
  }
  uint64_t size = uint64_t{count} * kFullElementSize<Element>;
  if constexpr (scalars::Quarterable<Element>) {
    using Several = scalars::AbsentBytesOfSeveral<Element>;
    if (count >= Several::kAtOnce) {
      size -= absentBytes<Several>(elements, count / Several::kAtOnce);
      count %= Several::kAtOnce;
    }
    for (; count != 0; --count) {
      size -= scalars::absentBytesOf(*elements++);
    }
    return size;
  } else {
    return size - absentBytes<scalars::AbsentBytes<Element>>(elements, count);
  }
}

// The bytes that a record's strings take, with their offset fields. Fills in texts, except the
// targets.
template <class Record>
[[gnu::always_inline]] inline uint64_t stringsSize(const Record& record, Texts<Record>& texts) {
  uint64_t size = 0;
  forEachSlotOf<Record, SlotKind::string>([&]<class Slot, size_t Index>() KORVA_INLINED {
    Text& text = texts[countSlots<Record>(SlotKind::string, Index)];
    text.characters = Slot::get(record);
    if (text.characters != nullptr) {
      text.length = std::strlen(text.characters);
      size += kOffsetFieldWidth + kCountWidth + text.length + 1;
    }
  });
  return size;
}

inline constexpr uint32_t kVectorFront = kOffsetFieldWidth + kCountWidth;

// The bytes that a record's vector takes, with its offset field.
template <class Record>
[[gnu::always_inline]] inline uint64_t vectorSize(const Record& record) {
  uint64_t size = 0;
  forEachSlotOf<Record, SlotKind::vector>([&]<class Slot, size_t>() KORVA_INLINED {
    if (const uint32_t count = elementCount<Slot>(record); count != 0) {
      size = kVectorFront + elementsSize(Slot::get(record), count);
    }
  });
  return size;
}

// Whether a record's vector takes no more than room bytes. If it has more than a few elements, it
// is measured only where its largest size leaves that open.
template <class Record>
[[gnu::always_inline]] inline bool vectorFits(const Record& record, uint64_t room) {
  bool fits = true;
  forEachSlotOf<Record, SlotKind::vector>([&]<class Slot, size_t>() KORVA_INLINED {
    using Element = typename Slot::Element;
    const uint32_t count = elementCount<Slot>(record);
    const uint64_t most = kVectorFront + uint64_t{count} * kFullElementSize<Element>;
    if (count != 0 && (count < kFewElements<Element> || most > room)) {
      fits = kVectorFront + elementsSize(Slot::get(record), count) <= room;
    }
  });
  return fits;
}

[[gnu::always_inline]] inline void point(uint8_t* offsetField, const uint8_t* target) {
  store(offsetField, static_cast<uint32_t>(target - offsetField));
}

// Writes an element whose table lies distance bytes after its vector's entry, and moves distance on
// to the next entry and element. The next element overwrites what this one's vectors store in
// excess.
template <rows::SingleRowTable Record>
[[gnu::always_inline]] inline void packFollowed(uint8_t* entry, size_t& distance,
                                                const Record& record) {
  static_assert(kVectorWidth - kDisplacementWidth <= constantSize<Record>(),
                "the vector must not reach past the next table's head");
  store(entry, static_cast<uint32_t>(distance));
  const auto [vtable, table, absent] = rows::wholeTable(record);
  uint8_t* const at = entry + distance;
  storeVectorFront<kVtableLength<Record>>(at - kVtableLength<Record>, vtable);
  storeVector(at, table);
  distance = computedOnce(distance + (kFullSize<Record> - kOffsetFieldWidth) - absent);
}

template <PlainTable Record>
void packElement(uint8_t* entry, uint8_t*& cursor, const Record& record);

// A table being written. The order of its parts is the wire's: head, scalars, offset fields,
// strings and byte arrays, vector header; its nested tables and elements follow it.
template <class Record>
class TableWriter {
  static_assert(countSlots<Record>(SlotKind::vector) <= 1,
                "a second vector's header would have no place before the first one's elements");

 public:
  [[gnu::always_inline]] TableWriter(uint8_t*& cursor, const Record& record,
                                     const rows::TableState<Record>& state, Texts<Record>& texts)
      : cursor_(cursor),
        record_(record),
        state_(state),
        texts_(texts),
        vtable_(cursor),
        table_(vtable_ + kVtableLength<Record>),
        at_(table_ + kDisplacementWidth) {
    forEachSlotOf<Record, SlotKind::vector>(
        [&]<class Slot, size_t>() KORVA_INLINED { elementCount_ = elementCount<Slot>(record); });
  }

  // Returns where the table is, and leaves the cursor after everything that belongs to it, its
  // texts included; only their characters are still to be copied.
  [[gnu::always_inline]] uint8_t* write() {
    if constexpr (rows::ScalarTable<Record>) {
      writeScalarTable();
    } else {
      writeHead();
      writeScalars();
      if constexpr (PlainTable<Record>) {
        writeFieldsAndArrays();
      } else {
        reserveOffsetFields();
        writeStringsAndArrays();
        writeVectorHeader();
      }
      writeTableLength();
    }
    cursor_ = at_;
    writeNestedTables();
    writeElements();
    return table_;
  }

 private:
  // Bytes that always follow the scalars.
  static constexpr uint32_t kFollowing = constantSize<Record>() - rows::kHeadLength<Record>;

  // The scalars lie at the end of their vector, which is stored so that it ends where the table
  // does. Its bytes before them are not stored, or fall on the head, which is stored afterwards.
  [[gnu::always_inline]] void writeScalarTable() {
    static_assert(rows::kWindows<Record>.count == 1,
                  "a table of scalars alone has at most eight, within sixteen bytes");
    constexpr uint32_t kScalarBytes =
        alignUp(scalars::allBytes<Record, scalars::Depth::ownTable>(), 4);
    constexpr bool kHeadHoldsVector = rows::kHeadLength<Record> >= kVectorWidth;
    static_assert(kHeadHoldsVector || kScalarBytes <= rows::kHeadLength<Record>,
                  "a table of n scalars alone, fewer than four, has at most 8 + 2n bytes of them: "
                  "what is stored before them must not reach in front of the head");
    passWindow<0>();
    storeVectorTail<kHeadHoldsVector ? kVectorWidth : kScalarBytes>(at_, state_.windows[0].scalars);
    storeHead<rows::kHeadLength<Record>>(state_.head);
  }

  // The head is stored in whole vectors if at least a vector follows, which overwrites the excess.
  // Otherwise the vtable is short: it is stored as eight bytes, and the displacement overwrites the
  // excess.
  [[gnu::always_inline]] void writeHead() {
    if constexpr (kFollowing < kVectorWidth) {
      static_assert(
          kVtableLength<Record> <= sizeof(uint64_t),
          "sixteen bytes that are always there, such as an array of eight bytes, belong to a table "
          "of more than two slots that are not all scalars");
      storeHead<sizeof(uint64_t)>(head());
      store(table_, kVtableLength<Record>);
    } else {
      storeHead<alignUp(rows::kHeadLength<Record>, kVectorWidth)>(head());
    }
  }

  [[nodiscard, gnu::always_inline]] ByteVector head() const {
    constexpr bool kHasScalars = rows::kScalars<Record>.count != 0;
    static_assert(
        kHasScalars ||
            countSlots<Record>(SlotKind::string) + countSlots<Record>(SlotKind::vector) <= 1,
        "a table without scalars has at most one text or list, which brings the full head");
    ByteVector head = kHasScalars ? state_.head : loadAligned(rows::kFullHead<Record>.data());
    forEachSlot<Record>([&]<class Slot, size_t Index>() KORVA_INLINED {
      if constexpr (rows::isOptional(Slot::kind)) {
        const size_t row = isThere<Slot, Index>() ? 1 : 0;
        const ByteVector what = loadAligned(rows::kOptionalHeads<Record, Index>[row].data());
        head = kHasScalars ? subtractSaturating(head, what) : what;
      }
    });
    return head;
  }

  // Stores Size bytes of a head, which may be more than it has.
  template <uint32_t Size>
  [[gnu::always_inline]] void storeHead(ByteVector head) {
    if constexpr (sizeof(rows::HeadLane<Record>) == kSlotEntryWidth) {
      storeVectorFront<Size>(vtable_, head);
    } else {
      storeVector(vtable_, widen<0>(head));
      storeVectorFront<Size - kVectorWidth>(vtable_ + kVectorWidth,
                                            widen<kVectorWidth / kSlotEntryWidth>(head));
    }
  }

  // Each window's vector is stored whole: at least a vector follows in the table, and overwrites
  // the excess.
  [[gnu::always_inline]] void writeScalars() {
    static_assert(rows::kWindows<Record>.count == 0 || kFollowing >= kVectorWidth,
                  "sixteen bytes that are always there, such as an array of eight bytes, follow a "
                  "table's scalars, or nothing does");
    scalars::forEachWindow<Record, scalars::Depth::ownTable>([&]<size_t Index>() KORVA_INLINED {
      storeVector(at_, state_.windows[Index].scalars);
      passWindow<Index>();
    });
  }

  // Moves past a window's scalars. What is absent is subtracted as a number, and from a place
  // before all scalars: otherwise GCC subtracts it from a constant first, which takes a register
  // and an instruction more for each window.
  template <size_t Index>
  [[gnu::always_inline]] void passWindow() {
    constexpr auto kOwn = scalars::Depth::ownTable;
    constexpr uint32_t kHead = rows::kHeadLength<Record>;
    const uintptr_t begin =
        reinterpret_cast<uintptr_t>(at_ - kHead) - scalars::kBytesBefore<Record, kOwn, Index>;
    at_ = reinterpret_cast<uint8_t*>(begin - state_.windows[Index].absent + kHead +
                                     scalars::kBytesThrough<Record, kOwn, Index>);
  }

  [[gnu::always_inline]] void writeFieldsAndArrays() {
    if constexpr (constexpr uint32_t kSize = kFieldsAndArrays<Record>.size(); kSize != 0) {
      image::write<kFieldsAndArrays<Record>>(at_, reinterpret_cast<const uint8_t*>(&record_));
      uint8_t* const end = at_ + kSize;
      reserveOffsetFields();
      at_ = end;
    }
  }

  [[gnu::always_inline]] void reserveOffsetFields() {
    forEachSlot<Record>([&]<class Slot, size_t Index>() KORVA_INLINED {
      if constexpr (rows::isOptional(Slot::kind)) {
        if (isThere<Slot, Index>()) {
          reserveOffsetField<Index>();
        }
      } else if constexpr (Slot::kind != SlotKind::scalar) {
        reserveOffsetField<Index>();
      }
    });
  }

  template <size_t Index>
  [[gnu::always_inline]] void reserveOffsetField() {
    offsetFields_[Index] = at_;
    at_ += kOffsetFieldWidth;
  }

  [[gnu::always_inline]] void writeStringsAndArrays() {
    forEachSlot<Record>([&]<class Slot, size_t Index>() KORVA_INLINED {
      if constexpr (Slot::kind == SlotKind::string) {
        if (isThere<Slot, Index>()) {
          placeText<Index>(texts_[countSlots<Record>(SlotKind::string, Index)]);
        }
      } else if constexpr (Slot::kind == SlotKind::byteArray) {
        writeArray<Slot, Index>();
      }
    });
  }

  template <size_t Index>
  [[gnu::always_inline]] void placeText(Text& text) {
    const auto count = static_cast<uint32_t>(text.length);
    pointHere<Index>();
    store(at_, count);
    text.target = at_ + kCountWidth;
    at_ = text.target + count + 1;
  }

  template <class Slot, size_t Index>
  [[gnu::always_inline]] void writeArray() {
    pointHere<Index>();
    store(at_, Slot::width);
    std::memcpy(at_ + kCountWidth, Slot::get(record_), Slot::width);
    at_ += kCountWidth + Slot::width;
  }

  // The elements' entries are filled in as the elements are written.
  [[gnu::always_inline]] void writeVectorHeader() {
    forEachSlotOf<Record, SlotKind::vector>([&]<class Slot, size_t Index>() KORVA_INLINED {
      if (isThere<Slot, Index>()) {
        pointHere<Index>();
        store(at_, elementCount_);
        entries_ = at_ + kCountWidth;
        at_ = entries_ + size_t{elementCount_} * kOffsetFieldWidth;
      }
    });
  }

  // Modulo 2^16, which texts and entries may exceed: nothing is located by this length.
  [[gnu::always_inline]] void writeTableLength() {
    if constexpr (!rows::kHeadHasLength<Record>) {
      store(vtable_ + kTableLengthAt, static_cast<uint16_t>(at_ - table_));
    }
  }

  [[gnu::always_inline]] void writeNestedTables() {
    forEachSlotOf<Record, SlotKind::table>([&]<class Slot, size_t Index>() KORVA_INLINED {
      using Nested = typename Slot::Type;
      static_assert(PlainTable<Nested>);
      Texts<Nested> none;
      TableWriter<Nested> writer(cursor_, Slot::get(record_), std::get<Index>(state_.bySlot), none);
      const uint8_t* const table = writer.write();
      if constexpr (!PlainTable<Record> || countSlots<Record>(SlotKind::table, Index) != 0) {
        point(offsetFields_[Index], table);
      }
    });
  }

  [[gnu::always_inline]] void writeElements() {
    forEachSlotOf<Record, SlotKind::vector>([&]<class Slot, size_t Index>() KORVA_INLINED {
      if (isThere<Slot, Index>()) {
        const auto* const elements = Slot::get(record_);
        uint8_t* cursor = cursor_;
        writeElements(cursor, elements, elements + elementCount_);
        cursor_ = cursor;
      }
    });
  }

  template <class Element>
  [[gnu::always_inline]] void writeElements(uint8_t*& cursor, const Element* element,
                                            const Element* end) {
    uint8_t* entry = entries_;
    // Unrolled for small elements, which take hardly longer than a round of the loop itself.
    if constexpr (rows::SingleRowTable<Element>) {
      size_t distance = static_cast<size_t>(cursor - entry) + kVtableLength<Element>;
#pragma GCC unroll 4
      for (; element != end - 1; ++element, entry += kOffsetFieldWidth) {
        packFollowed(entry, distance, *element);
      }
      cursor = entry + distance - kVtableLength<Element>;
    } else if constexpr (scalars::kWindows<Element, scalars::Depth::withNested>.count == 1) {
#pragma GCC unroll 2
      for (; element != end; ++element, entry += kOffsetFieldWidth) {
        packElement(entry, cursor, *element);
      }
    }
    for (; element != end; ++element, entry += kOffsetFieldWidth) {
      packElement(entry, cursor, *element);
    }
  }

  // Whether an optional slot has an offset field in this record's table.
  template <class Slot, size_t Index>
  [[nodiscard, gnu::always_inline]] bool isThere() const {
    if constexpr (Slot::kind == SlotKind::string) {
      return texts_[countSlots<Record>(SlotKind::string, Index)].characters != nullptr;
    } else {
      return elementCount_ != 0;
    }
  }

  template <size_t Index>
  [[gnu::always_inline]] void pointHere() {
    point(offsetFields_[Index], at_);
  }

  uint8_t*& cursor_;  // where the next byte goes
  const Record& record_;
  const rows::TableState<Record>& state_;
  Texts<Record>& texts_;
  uint8_t* const vtable_;
  uint8_t* const table_;
  uint8_t* at_;
  uint32_t elementCount_ = 0;  // a copy, as a text's pointer is, and for the same reason
  uint8_t* entries_ = nullptr;
  std::array<uint8_t*, Schema<Record>::count> offsetFields_{};
};

// Writes an element at the cursor, and its table's offset into its vector's entry.
template <PlainTable Record>
[[gnu::always_inline]] inline void packElement(uint8_t* entry, uint8_t*& cursor,
                                               const Record& record) {
  point(entry, cursor + kVtableLength<Record>);
  rows::TableState<Record> state;
  rows::surveyTable(record, state);
  Texts<Record> none;
  TableWriter<Record>(cursor, record, state, none).write();
}

// What a pack pass finds out before it writes.
template <class Record>
struct Survey {
  rows::TableState<Record> table;
  Texts<Record> texts;
};

}  // namespace compact

// The encoded size of a record, or 0 if it does not fit 32 bits.
template <class Record>
[[gnu::always_inline]] inline uint32_t compactSize(const Record& record) {
  compact::Texts<Record> texts;
  const uint64_t size = kRootOffsetWidth + compact::kFullSize<Record> -
                        scalars::absentBytesOf(record) + compact::stringsSize(record, texts) +
                        compact::vectorSize(record);
  return size <= compact::kSizeLimit ? static_cast<uint32_t>(size) : 0;
}

// Whether the whole message fits the capacity; the size of its texts is known. Leaves in the survey
// what packing needs to know about the record's table; only a vector is measured for this check
// alone.
template <class Record>
[[gnu::always_inline]] inline bool compactFits(const Record& record, uint64_t textsSize,
                                               uint32_t capacity, compact::Survey<Record>& survey) {
  rows::surveyTable(record, survey.table);
  const uint64_t size =
      textsSize + kRootOffsetWidth + compact::kFullSize<Record> - survey.table.absentBytes();
  return size <= capacity && compact::vectorFits(record, capacity - size);
}

// Writes a surveyed record into a buffer that is large enough, and returns its size. Texts are
// copied last: then only the size has to outlive those calls.
template <class Record>
[[gnu::always_inline]] inline uint32_t compactPack(uint8_t* buffer, const Record& record,
                                                   compact::Survey<Record>& survey) {
  uint8_t* cursor = buffer + kRootOffsetWidth;
  compact::TableWriter<Record> writer(cursor, record, survey.table, survey.texts);
  store(buffer, static_cast<uint32_t>(writer.write() - buffer));
  const auto size = static_cast<uint32_t>(cursor - buffer);
  for (const compact::Text& text : survey.texts) {
    if (text.characters != nullptr) {
      std::memcpy(text.target, text.characters, text.length + 1);
    }
  }
  return size;
}

}  // namespace korva
