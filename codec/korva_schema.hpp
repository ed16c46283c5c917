// The schema notation: how a record says which of its members travel, in which slot order.
//
//   template <>
//   struct korva::Schema<AlarmOutput> : korva::Slots<&AlarmOutput::text> {};
//
// That list is all that is ever written down of a message. A slot's kind and width follow from the
// member's type; every size, position and table of the codecs is computed from the list at compile
// time. A member of a class type is a nested table and needs a Schema of its own. A list of tables
// is two members, its count and its array:
//
//   struct korva::Schema<BrdPartInfo>
//       : korva::Slots<korva::vectorOf<&BrdPartInfo::entryCount, &BrdPartInfo::entries>> {};
#pragma once

#include <array>
#include <bit>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <tuple>
#include <type_traits>
#include <utility>

#include "codec/korva_format.hpp"
#include "codec/korva_inlined.hpp"

namespace korva {

enum class SlotKind : uint8_t { scalar, string, byteArray, table, vector };

template <class Record>
struct Schema;

template <auto Count, auto Entries>
struct VectorMembers {};

template <auto Count, auto Entries>
inline constexpr VectorMembers<Count, Entries> vectorOf{};

namespace detail {

template <class Type>
inline constexpr bool isByteArray = false;
template <size_t Size>
inline constexpr bool isByteArray<uint8_t[Size]> = true;

template <class Type>
concept CharacterPointer = std::same_as<Type, char*> || std::same_as<Type, const char*>;

template <class Type>
consteval SlotKind kindOf() {
  if constexpr (std::unsigned_integral<Type> && !std::same_as<Type, bool>) {
    return SlotKind::scalar;
  } else if constexpr (CharacterPointer<Type>) {
    return SlotKind::string;
  } else if constexpr (isByteArray<Type>) {
    return SlotKind::byteArray;
  } else {
    static_assert(std::is_class_v<Type>, "no slot kind carries this member's type");
    return SlotKind::table;
  }
}

template <auto Member>
struct MemberSlot;

template <class R, class T, T R::*Member>
struct MemberSlot<Member> {
  using Type = T;
  static constexpr SlotKind kind = kindOf<T>();
  static constexpr uint32_t width = sizeof(T);

  template <class AnyRecord>  // Record or const Record
  static constexpr auto& get(AnyRecord& record) {
    return record.*Member;
  }
};

template <auto Count, auto Entries>
struct VectorSlot : MemberSlot<Entries> {
  using Element = std::remove_pointer_t<typename MemberSlot<Entries>::Type>;
  static constexpr SlotKind kind = SlotKind::vector;

  template <class AnyRecord>
  static constexpr auto& count(AnyRecord& record) {
    return record.*Count;
  }
};

template <auto Member>
struct SlotOf {
  using Slot = MemberSlot<Member>;
};
template <auto Count, auto Entries, VectorMembers<Count, Entries> Members>
struct SlotOf<Members> {
  using Slot = VectorSlot<Count, Entries>;
};

}  // namespace detail

// A record's slots, slot 0 first.
template <auto... Members>
struct Slots {
  using List = std::tuple<typename detail::SlotOf<Members>::Slot...>;
  static constexpr size_t count = sizeof...(Members);
};

template <class Record, size_t Index>
using SlotAt = std::tuple_element_t<Index, typename Schema<Record>::List>;

// Calls visit.operator()<Slot, Index>() for every slot in order; unrolled, so that each call sees
// its slot as a constant.
template <class Record, class Visit>
[[gnu::always_inline]] constexpr void forEachSlot(Visit&& visit) {
  [&]<size_t... Index>(std::index_sequence<Index...>) KORVA_INLINED {
    (visit.template operator()<SlotAt<Record, Index>, Index>(), ...);
  }(std::make_index_sequence<Schema<Record>::count>());
}

// As forEachSlot, for the slots of one kind only.
template <class Record, SlotKind Kind, class Visit>
[[gnu::always_inline]] constexpr void forEachSlotOf(Visit&& visit) {
  forEachSlot<Record>([&]<class Slot, size_t Index>() KORVA_INLINED {
    if constexpr (Slot::kind == Kind) {
      visit.template operator()<Slot, Index>();
    }
  });
}

// As forEachSlot, until a visit returns false; says whether none did.
template <class Record, class Visit>
[[gnu::always_inline]] constexpr bool allOfSlots(Visit&& visit) {
  return [&]<size_t... Index>(std::index_sequence<Index...>) KORVA_INLINED {
    return (visit.template operator()<SlotAt<Record, Index>, Index>() && ...);
  }(std::make_index_sequence<Schema<Record>::count>());
}

// How many slots of a kind there are, or how many of them come before slot end.
template <class Record>
consteval size_t countSlots(SlotKind kind, size_t end = Schema<Record>::count) {
  size_t count = 0;
  forEachSlot<Record>(
      [&]<class Slot, size_t Index>() { count += Index < end && Slot::kind == kind ? 1 : 0; });
  return count;
}

template <class Record>
inline constexpr uint32_t kVtableLength = vtableEntry(Schema<Record>::count);

// A record without slots has no storage, though C++ counts a byte for it.
template <class Record>
inline constexpr uint32_t kRecordSize = Schema<Record>::count == 0 ? 0 : sizeof(Record);

constexpr uint32_t alignUp(uint32_t offset, size_t alignment) {
  return static_cast<uint32_t>((offset + alignment - 1) / alignment * alignment);
}

// Whether a record points to memory that unpacking allocates and the release routine frees.
template <class Record>
inline constexpr bool kOwnsMemory =
    countSlots<Record>(SlotKind::string) + countSlots<Record>(SlotKind::vector) != 0;

// Only a message's root table may own memory: so a release routine has no tables to walk, and the
// codecs need room for one table's strings only.
template <class Record>
concept PlainTable = !kOwnsMemory<Record>;

// Sets the first byte of a member to 1.
template <class Type>
constexpr void mark(Type& member) {
  if constexpr (std::is_array_v<Type>) {
    member[0] = 1;
  } else if constexpr (std::is_class_v<Type>) {
    static_assert(Schema<Type>::count != 0, "a nested table has slots");
    mark(SlotAt<Type, 0>::get(member));
  } else {
    member = 1;
  }
}

// Whether a slot's member lies at offset, as far as constant expressions can tell: they cannot look
// at the bytes of a record with pointers.
template <class Record, class Slot>
constexpr bool liesAt(uint32_t offset) {
  if constexpr (PlainTable<Record>) {
    Record record{};
    mark(Slot::get(record));
    return std::bit_cast<std::array<uint8_t, sizeof(Record)>>(record)[offset] == 1;
  }
  return true;
}

// Not constexpr, so that a constant expression that calls it does not compile.
void slotsAreNotTheMembersInTheirOrder();

// Calls visit.operator()<Slot, Index>(offset) with where each member lies. Slots stand in the order
// of their members, which lie as closely as their alignment lets them.
template <class Record, class Visit>
constexpr void forEachMember(Visit visit) {
  uint32_t offset = 0;
  bool inOrder = true;
  forEachSlot<Record>([&]<class Slot, size_t Index>() {
    using Type = typename Slot::Type;
    if constexpr (Slot::kind == SlotKind::vector) {
      offset += kCountWidth;
    }
    offset = alignUp(offset, alignof(Type));
    visit.template operator()<Slot, Index>(offset);
    inOrder &= liesAt<Record, Slot>(offset);
    offset += sizeof(Type);
  });
  if (!inOrder || alignUp(offset, alignof(Record)) != kRecordSize<Record>) {
    slotsAreNotTheMembersInTheirOrder();
  }
}

template <class Record, size_t Slot>
inline constexpr uint32_t kMemberOffset = [] {
  uint32_t found = 0;
  forEachMember<Record>(
      [&]<class Other, size_t Index>(uint32_t offset) { found = Index == Slot ? offset : found; });
  return found;
}();

}  // namespace korva
