// The scalars of a record, up to sixteen bytes of them at a time: which are zero, and how many
// bytes that saves. Nothing here branches on a value, since which scalars are zero is as good as
// random. For the compact packer and for reading what it wrote.
#pragma once

#include <algorithm>
#include <array>
#include <bit>

#include "codec/korva_inlined.hpp"
#include "codec/korva_schema.hpp"
#include "codec/korva_vector.hpp"

namespace korva::scalars {

struct Scalar {
  uint32_t slot;
  uint32_t offset;  // within the record
  uint32_t width;
};

// Scalars that one vector holds: neighbours in the record, each aligned to its width in the vector.
struct Window {
  uint32_t first;  // into the list of scalars
  uint32_t count;
  uint32_t offset;  // of the vector's first byte within the record
  uint32_t size;    // bytes that may be loaded
};

template <size_t Capacity, class Item>
struct List {
  std::array<Item, Capacity == 0 ? 1 : Capacity> items{};
  uint32_t count = 0;

  constexpr void add(const Item& item) { items[count++] = item; }
};

enum class Depth : uint8_t { ownTable, withNested };

template <class Record, Depth Which>
consteval size_t countScalars() {
  size_t count = countSlots<Record>(SlotKind::scalar);
  if constexpr (Which == Depth::withNested) {
    forEachSlotOf<Record, SlotKind::table>(
        [&]<class Slot, size_t>() { count += countScalars<typename Slot::Type, Which>(); });
  }
  return count;
}

template <class Record, Depth Which>
consteval auto listScalars() {
  List<countScalars<Record, Which>(), Scalar> list;
  forEachMember<Record>([&]<class Slot, size_t Index>(uint32_t offset) {
    if constexpr (Slot::kind == SlotKind::scalar) {
      list.add({Index, offset, Slot::width});
    } else if constexpr (Slot::kind == SlotKind::table && Which == Depth::withNested) {
      const auto nested = listScalars<typename Slot::Type, Which>();
      for (uint32_t i = 0; i < nested.count; ++i) {
        const Scalar& scalar = nested.items[i];
        list.add({scalar.slot, offset + scalar.offset, scalar.width});
      }
    }
  });
  return list;
}

template <class Record, Depth Which>
inline constexpr auto kScalars = listScalars<Record, Which>();

// How many bytes the first count scalars take, and how many all take.
template <class Record, Depth Which>
consteval uint32_t bytesOfFirst(uint32_t count) {
  uint32_t bytes = 0;
  for (uint32_t i = 0; i < count; ++i) {
    bytes += kScalars<Record, Which>.items[i].width;
  }
  return bytes;
}
template <class Record, Depth Which>
consteval uint32_t allBytes() {
  return bytesOfFirst<Record, Which>(kScalars<Record, Which>.count);
}

// How many scalars a window of a table may hold: it has 2 to that power rows.
inline constexpr uint32_t kMaximumScalars = 8;

// Whether scalar can join the window that begins with first.
constexpr bool fits(const Scalar& first, const Scalar& scalar, uint32_t count, Depth which) {
  const uint32_t distance = scalar.offset - first.offset;
  const bool inVector = distance + scalar.width <= kVectorWidth && distance % scalar.width == 0;
  return inVector && (which == Depth::withNested || count < kMaximumScalars);
}

// A window never reaches past the record's end: near the end it begins earlier, or it is shorter,
// which is just as good for a single scalar.
template <class Record>
consteval Window place(Window window, uint32_t begin, uint32_t end) {
  if (begin + kVectorWidth <= sizeof(Record)) {
    window.offset = begin;
    window.size = kVectorWidth;
  } else if (sizeof(Record) >= kVectorWidth && window.count != 1) {
    window.offset = sizeof(Record) - kVectorWidth;
    window.size = kVectorWidth;
  } else {
    window.offset = begin;
    window.size = end - begin;
  }
  return window;
}

template <class Record, Depth Which>
consteval auto planWindows() {
  constexpr auto& kList = kScalars<Record, Which>;
  List<countScalars<Record, Which>(), Window> windows;
  for (uint32_t first = 0; first < kList.count;) {
    const Scalar& begin = kList.items[first];
    uint32_t count = 1;
    while (first + count < kList.count && fits(begin, kList.items[first + count], count, Which)) {
      ++count;
    }
    const Scalar& last = kList.items[first + count - 1];
    windows.add(place<Record>({first, count, 0, 0}, begin.offset, last.offset + last.width));
    first += count;
  }
  return windows;
}

template <class Record, Depth Which>
inline constexpr auto kWindows = planWindows<Record, Which>();

// Loads a window of the record at bytes, of which Room may be read: all of it, and what else is
// known to follow.
template <class Record, Depth Which, uint32_t Index, uint32_t Room = sizeof(Record)>
[[gnu::always_inline]] inline ByteVector loadWindow(const uint8_t* bytes) {
  constexpr Window kWindow = kWindows<Record, Which>.items[Index];
  constexpr bool kWhole = kWindow.offset + kVectorWidth <= Room;
  return loadVector<(kWhole ? kVectorWidth : kWindow.size)>(bytes + kWindow.offset);
}

using Bytes = std::array<uint8_t, kVectorWidth>;

// All ones where a window's scalars lie: all of them, or those of one width.
template <class Record, Depth Which, uint32_t Index, uint32_t Width = 0>
inline constexpr Bytes kMask = [] {
  constexpr Window kWindow = kWindows<Record, Which>.items[Index];
  Bytes mask{};
  for (uint32_t i = 0; i < kWindow.count; ++i) {
    const Scalar& scalar = kScalars<Record, Which>.items[kWindow.first + i];
    for (uint32_t byte = 0; byte < scalar.width && (Width == 0 || Width == scalar.width); ++byte) {
      mask[scalar.offset - kWindow.offset + byte] = 0xFF;
    }
  }
  return mask;
}();

// Takes the bytes that Mask names from chosen, and the others from rest.
template <Bytes Mask>
[[gnu::always_inline]] inline ByteVector blend(ByteVector rest, ByteVector chosen) {
  return [&]<size_t... Byte>(std::index_sequence<Byte...>) KORVA_INLINED {
    return __builtin_shufflevector(rest, chosen, (Mask[Byte] == 0 ? Byte : kVectorWidth + Byte)...);
  }(std::make_index_sequence<kVectorWidth>());
}

// How many bytes the scalars before a window take, and how many with the window's own.
template <class Record, Depth Which, uint32_t Index>
inline constexpr uint32_t kBytesBefore =
    bytesOfFirst<Record, Which>(kWindows<Record, Which>.items[Index].first);
template <class Record, Depth Which, uint32_t Index>
inline constexpr uint32_t kBytesThrough = bytesOfFirst<Record, Which>(
    kWindows<Record, Which>.items[Index].first + kWindows<Record, Which>.items[Index].count);

// The bytes of a window's scalars.
template <class Record, Depth Which, uint32_t Index>
inline constexpr uint32_t kWindowBytes =
    kBytesThrough<Record, Which, Index> - kBytesBefore<Record, Which, Index>;

// How wide a window's widest scalar is.
template <class Record, Depth Which, uint32_t Index>
inline constexpr uint32_t kWidest = [] {
  constexpr Window kWindow = kWindows<Record, Which>.items[Index];
  uint32_t width = 1;
  for (uint32_t i = 0; i < kWindow.count; ++i) {
    width = std::max(width, kScalars<Record, Which>.items[kWindow.first + i].width);
  }
  return width;
}();

// Whether no two scalars of a window share a lane of some width.
template <class Record, Depth Which, uint32_t Index, uint32_t Width>
inline constexpr bool kHaveLanesOfTheirOwn = [] {
  constexpr Window kWindow = kWindows<Record, Which>.items[Index];
  uint32_t nextFree = 0;  // the first lane that none has yet
  for (uint32_t i = 0; i < kWindow.count; ++i) {
    const Scalar& scalar = kScalars<Record, Which>.items[kWindow.first + i];
    const uint32_t lane = (scalar.offset - kWindow.offset) / Width;
    if (lane < nextFree) {
      return false;
    }
    nextFree = lane + 1;
  }
  return true;
}();

// Whether one comparison does for a window, in lanes of its widest scalar's width.
template <class Record, Depth Which, uint32_t Index>
inline constexpr bool kIsComparedAtOnce =
    kHaveLanesOfTheirOwn<Record, Which, Index, kWidest<Record, Which, Index>>;

// The width of the lanes that say whether a scalar is zero; all bits of such a lane are the same.
template <class Record, Depth Which, uint32_t Index>
inline constexpr uint32_t kComparedWidth =
    kIsComparedAtOnce<Record, Which, Index> ? kWidest<Record, Which, Index> : 1;

template <uint32_t Width>
using Lane = std::conditional_t<
    Width == 1, uint8_t,
    std::conditional_t<Width == 2, uint16_t, std::conditional_t<Width == 4, uint32_t, uint64_t>>>;

template <class Lane>
[[gnu::always_inline]] inline ByteVector zeroLanes(ByteVector window) {
  return keptApart(
      std::bit_cast<ByteVector>(std::bit_cast<Vector<Lane>>(window) == Vector<Lane>{}));
}

// All ones where a scalar of the window is zero; anything where no scalar lies. One comparison does
// if every scalar can have a lane of its own, once the padding beside it is cleared; otherwise
// there is one for each width that a scalar has, from the narrowest on.
template <class Record, Depth Which, uint32_t Index, uint32_t Width = 1>
[[gnu::always_inline]] inline ByteVector zeros(ByteVector window) {
  constexpr uint32_t kWidestLane = kWidest<Record, Which, Index>;
  constexpr Bytes kLanes = kMask<Record, Which, Index, Width>;
  if constexpr (Width == kWidestLane) {
    return zeroLanes<Lane<Width>>(window);
  } else if constexpr (kLanes == Bytes{}) {
    return zeros<Record, Which, Index, Width * 2>(window);
  } else if constexpr (kIsComparedAtOnce<Record, Which, Index>) {
    return zeroLanes<Lane<kWidestLane>>(window &
                                        std::bit_cast<ByteVector>(kMask<Record, Which, Index>));
  } else {
    return blend<kLanes>(zeros<Record, Which, Index, Width * 2>(window),
                         zeroLanes<Lane<Width>>(window));
  }
}

template <class Record, Depth Which, class Visit>
[[gnu::always_inline]] constexpr void forEachWindow(Visit&& visit) {
  [&]<size_t... Index>(std::index_sequence<Index...>) KORVA_INLINED {
    (visit.template operator()<Index>(), ...);
  }(std::make_index_sequence<kWindows<Record, Which>.count>());
}

// The bytes of a window's vector in a record.
template <class Record, size_t Index>
[[gnu::always_inline]] inline ByteVector contentOf(const Record& record) {
  return loadWindow<Record, Depth::withNested, Index>(reinterpret_cast<const uint8_t*>(&record));
}

// Counts the bytes of absent scalars, nested tables' included, over many records.
template <class Record>
class AbsentBytes {
  static constexpr auto kAll = Depth::withNested;

 public:
  static constexpr uint32_t kAtOnce = 1;

  // How many times add may be called before the sum must be taken: each adds at most one to a lane
  // of each window, and sum adds up the windows in lanes of a byte.
  static constexpr uint32_t kCapacity = 255 / std::max(uint32_t{1}, kWindows<Record, kAll>.count);
  static_assert(kCapacity != 0, "a record has at most 255 windows of scalars");

  [[gnu::always_inline]] void add(const Record* record) {
    forEachWindow<Record, kAll>([&]<size_t Index>() KORVA_INLINED {
      lanes_[Index] += zeros<Record, kAll, Index>(contentOf<Record, Index>(*record));
    });
  }

  [[nodiscard, gnu::always_inline]] uint32_t sum() const {
    ByteVector lanes{};
    forEachWindow<Record, kAll>([&]<size_t Index>() KORVA_INLINED {
      lanes += blend<kMask<Record, kAll, Index>>(ByteVector{}, lanes_[Index]);
    });
    return sumOfBytes(ByteVector{} - lanes);
  }

 private:
  // Each lane counts down from 0, since all ones are -1.
  std::array<ByteVector, kWindows<Record, kAll>.count> lanes_{};
};

// How many bytes of a single record's scalars are absent, nested tables' included. Up to two
// scalars are compared by themselves, which takes less than adding up a vector's lanes.
template <class Record>
[[gnu::always_inline]] inline uint32_t absentBytesOf(const Record& record) {
  if constexpr (countSlots<Record>(SlotKind::table) == 0 &&
                countSlots<Record>(SlotKind::scalar) <= 2) {
    uint32_t bytes = 0;
    forEachSlotOf<Record, SlotKind::scalar>([&]<class Slot, size_t>() KORVA_INLINED {
      bytes += Slot::get(record) == 0 ? Slot::width : 0;
    });
    return bytes;
  } else {
    AbsentBytes<Record> absent;
    absent.add(&record);
    return absent.sum();
  }
}

// How wide a record's widest scalar is.
template <class Record>
inline constexpr uint32_t kWidestOfAll = [] {
  uint32_t widest = 0;
  for (uint32_t i = 0; i < kScalars<Record, Depth::withNested>.count; ++i) {
    widest = std::max(widest, kScalars<Record, Depth::withNested>.items[i].width);
  }
  return widest;
}();

// Records of which AbsentBytesOfSeveral can look at several together: they have one or two windows,
// and scalars whose widths are multiples of four, so that a byte for every four of theirs still
// tells whether they are zero.
template <class Record>
concept Quarterable = [] {
  constexpr auto kAll = Depth::withNested;
  constexpr uint32_t kCount = kWindows<Record, kAll>.count;
  bool is = kCount == 1 || kCount == 2;
  for (uint32_t i = 0; i < kScalars<Record, kAll>.count; ++i) {
    is &= kScalars<Record, kAll>.items[i].width % 4 == 0;
  }
  forEachWindow<Record, kAll>([&]<size_t Index>() {
    is &= kHaveLanesOfTheirOwn<Record, kAll, Index, kWidestOfAll<Record>>;
  });
  return is;
}();

// Counts as AbsentBytes does, but four windows at a time, which are one vector then: half as many
// instructions for each.
template <Quarterable Record>
class AbsentBytesOfSeveral {
  static constexpr auto kAll = Depth::withNested;
  static constexpr uint32_t kWindowCount = kWindows<Record, kAll>.count;

 public:
  static constexpr uint32_t kAtOnce = 4 / kWindowCount;
  static constexpr uint32_t kCapacity = 255;

  [[gnu::always_inline]] void add(const Record* records) {
    std::array<ByteVector, 4> windows;
    for (size_t i = 0; i < kAtOnce; ++i) {
      forEachWindow<Record, kAll>([&]<size_t Index>() KORVA_INLINED {
        windows[i * kWindowCount + Index] = contentOf<Record, Index>(records[i]);
      });
    }
    const ByteVector scalars = narrowToQuarter(windows) & std::bit_cast<ByteVector>(kScalarBytes);
    lanes_ += zeroLanes<Lane<kWidestOfAll<Record> / 4>>(scalars);
  }

  [[nodiscard, gnu::always_inline]] uint32_t sum() const {
    return 4 * sumOfBytes((ByteVector{} - lanes_) & std::bit_cast<ByteVector>(kScalarBytes));
  }

 private:
  // All ones where scalars lie in the quarters.
  static constexpr Bytes kScalarBytes = [] {
    Bytes bytes{};
    for (uint32_t i = 0; i < kVectorWidth; ++i) {
      forEachWindow<Record, kAll>([&]<size_t Index>() {
        if (i / 4 % kWindowCount == Index) {
          bytes[i] = kMask<Record, kAll, Index>[i % 4 * 4];
        }
      });
    }
    return bytes;
  }();

  ByteVector lanes_{};
};

}  // namespace korva::scalars
