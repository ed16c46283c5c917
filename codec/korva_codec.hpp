// A message's routines: what its named entry points consist of. For schema/ and peer/, which give
// each message its name, its record and its unit.
#pragma once

#include <kel_sys_diag/rpc.h>

#include <cstring>

#include "codec/korva_compact_packer.hpp"
#include "codec/korva_fixed_layout.hpp"
#include "codec/korva_inlined.hpp"
#include "codec/korva_name.hpp"
#include "codec/korva_release.hpp"
#include "codec/korva_runtime.hpp"
#include "codec/korva_schema.hpp"
#include "codec/korva_unpacker.hpp"

namespace korva {

// The type of a message's packing entry point, which the slow path below calls again. Record is the
// type that it takes its record as: void in the slots of an IdlCodecOps.
template <class Record>
using PackEntry = uint32_t (*)(const PackTarget*, const Record*);

// The slow paths of packing and unpacking: refused arguments, hooks that are not yet set up, and
// messages that our own packer has not written. All of a unit's messages share them, for packing
// those whose entry points have the same type.

// Takes "null" or "nonNull" instead of each pointer: once the size is known, packing no longer
// needs the record's address, and so it need not keep it for this.
template <CodecRuntime& Runtime>
[[gnu::cold, gnu::noinline]] uint32_t rejectPack(const char* function, const char* buffer,
                                                 uint32_t capacity, const char* record) {
  korvaLog(Runtime, kInvalid, function, "[KORVA]:Param invalid(%s, %u, %s)", buffer, capacity,
           record);
  return 0;
}

template <CodecRuntime& Runtime, class Record>
[[gnu::cold, gnu::noinline]] uint32_t packSlowPath(const char* function, const PackTarget* target,
                                                   const Record* record, PackEntry<Record> entry) {
  if (target->buffer == nullptr || record == nullptr || *target->capacity < kMinimumLength) {
    return rejectPack<Runtime>(function, nullness(target->buffer), *target->capacity,
                               nullness(record));
  }
  return setUpAnd(Runtime, entry, target, record);
}

// anyLayout reads every layout that the format allows, whoever wrote it, and sets the hooks up if
// need be.
template <CodecRuntime& Runtime>
[[gnu::cold, gnu::noinline]] uintptr_t unpackSlowPath(const char* function, const void* bytes,
                                                      uint32_t length, void* record,
                                                      IdlUnpackFn anyLayout) {
  const auto signedLength = static_cast<int32_t>(length);
  if (bytes == nullptr || signedLength < static_cast<int32_t>(kMinimumLength) ||
      record == nullptr) {
    korvaLog(Runtime, kInvalid, function, "[KORVA]:Param invalid(%s, %d, %s)", nullness(bytes),
             signedLength, nullness(record));
    return 0;
  }
  return anyLayout(bytes, length, record);
}

// The layouts in which a message may be sent.
enum class Layouts : uint8_t { compact, compactAndFixed };

// Title is the message's name with its package, with which function names in log lines begin;
// Runtime is the unit's.
template <Name Title, class RecordType, Layouts Sent, CodecRuntime& Runtime>
class Codec {
 public:
  using Record = RecordType;

  // A packing routine is also given its own entry point: the first call of all sets the hooks up
  // and then starts over there. Whatever is unusual or fails is left to a tail call, so that no
  // value has to outlive a call. It would need a saved register, which costs as much as writing a
  // field. Typed is void or Record.
  template <class Typed>
  [[gnu::always_inline]] static uint32_t pack(const PackTarget* target, const Typed* typed,
                                              PackEntry<Typed> entry) {
    if (target == nullptr) {
      return size(static_cast<const Record*>(typed));
    }
    if constexpr (kOwnsMemory<Record>) {
      return packOutOfLine(target, typed, entry);
    } else {
      return packInto(target, typed, entry);
    }
  }

  [[gnu::always_inline]] static uintptr_t unpack(const void* bytes, uint32_t length,
                                                 void* untyped) {
    const reading::Source source = sourceOf(bytes, length);
    if (!canUnpack(source, untyped)) [[unlikely]] {
      return unpackSlowly(bytes, length, untyped);
    }
    if constexpr (Sent == Layouts::compactAndFixed) {
      if (source.load<uint32_t>(0) == fixed::kTablePosition) {
        return unpackFixed(bytes, length, untyped);
      }
    }
    auto& record = *static_cast<Record*>(untyped);
    if constexpr (kOwnsMemory<Record>) {
      // Before the comparison, although unpackAnyLayout clears it again: the other order takes more
      // instructions.
      clear(record);
      if (!reading::matchesOwnFront<Record>(source)) [[unlikely]] {
        return unpackSlowly(bytes, length, untyped);
      }
      if (!readOwnSlots(source, record)) [[unlikely]] {
        return giveUp(&record);
      }
    } else if (!readOwn(source, record)) [[unlikely]] {
      // Which also sees to what a failure leaves in the record.
      return unpackSlowly(bytes, length, untyped);
    }
    return reinterpret_cast<uintptr_t>(untyped);
  }

  [[gnu::always_inline]] static void release(void* record) {
    if constexpr (kOwnsMemory<Record>) {  // for any other record not even the hooks are set up
      if (!isReady(Runtime.memReady)) [[unlikely]] {
        return setUpAnd(Runtime, releaseOwned, static_cast<Record*>(record));
      }
      releaseOwned(static_cast<Record*>(record));
    }
  }

  [[gnu::always_inline]] static int32_t packFixed(uint8_t* buffer, const void* record,
                                                  IdlFixedPackFn entry) {
    static_assert(Sent == Layouts::compactAndFixed);
    if (!isReady(Runtime.memReady)) [[unlikely]] {
      return setUpAnd(Runtime, entry, buffer, record);
    }
    fixedPack(buffer, *static_cast<const Record*>(record));
    return 0;
  }

  [[gnu::always_inline]] static constexpr uint32_t fixedSize() { return kFixedSize<Record>; }

 private:
  template <class Typed>
  [[gnu::always_inline]] static uint32_t packInto(const PackTarget* target, const Typed* typed,
                                                  PackEntry<Typed> entry) {
    const auto* const record = static_cast<const Record*>(typed);
    uint8_t* buffer = target->buffer;
    uint32_t capacity = *target->capacity;
    if (buffer == nullptr || capacity < kMinimumLength || !isReady(Runtime.memReady) ||
        record == nullptr) [[unlikely]] {
      return packSlowPath<Runtime>(kPackName.text(), target, typed, entry);
    }
    compact::Survey<Record> survey;
    const uint64_t textsSize = compact::stringsSize(*record, survey.texts);
    if constexpr (countSlots<Record>(SlotKind::string) != 0) {
      // Loaded again: to outlive the scans, each would need a saved register.
      target = computedOnce(target);
      buffer = target->buffer;
      capacity = *target->capacity;
    }
    if (!compactFits(*record, textsSize, capacity, survey)) [[unlikely]] {
      return rejectPack<Runtime>(kPackName.text(), nullness(buffer), capacity, nullness(record));
    }
    return compactPack(buffer, *record, survey);
  }

  // For records with texts or entries, whose packing calls other routines or needs more registers
  // than are free. A function of its own, so that the size pass does not save registers for that.
  template <class Typed>
  [[gnu::noinline]] static uint32_t packOutOfLine(const PackTarget* target, const Typed* typed,
                                                  PackEntry<Typed> entry) {
    return packInto(target, typed, entry);
  }

  [[gnu::always_inline]] static bool readOwnSlots(const reading::Source& source, Record& record) {
    return reading::readSlots(source, source.bytes + kRootOffsetWidth, reading::kOwnTable<Record>,
                              record);
  }

  // Reads what our own packer has written. Returns false for anything else, which is left to
  // unpackAnyLayout.
  [[gnu::always_inline]] static bool readOwn(const reading::Source& source, Record& record) {
    if constexpr (small::SmallTable<Record>) {
      return source.load<uint32_t>(0) == reading::kOwnTable<Record> &&
             reading::readSmall(source, reading::kOwnTable<Record>, record);
    } else {
      return reading::matchesOwnFront<Record>(source) && readOwnSlots(source, record);
    }
  }

  // Reads a message whose root table lies where the fixed layout has it. A function of its own, so
  // that unpacking the compact form saves no registers for it.
  [[gnu::noinline]] static uintptr_t unpackFixed(const void* bytes, uint32_t length,
                                                 void* untyped) {
    const auto* const message = static_cast<const uint8_t*>(bytes);
    if (length < kFixedSize<Record> || !isFixed<Record>(message)) [[unlikely]] {
      return unpackSlowly(bytes, length, untyped);
    }
    auto& record = *static_cast<Record*>(untyped);
    reading::clearPadding(record);
    fixedUnpack(message, record);
    return reinterpret_cast<uintptr_t>(untyped);
  }

  static void releaseOwned(Record* record) { releaseRecord(Runtime, kReleaseName.text(), record); }

  [[gnu::always_inline]] static uint32_t size(const Record* record) {
    return record == nullptr ? 0 : compactSize(*record);
  }

  [[gnu::always_inline]] static reading::Source sourceOf(const void* bytes, uint32_t length) {
    return {static_cast<const uint8_t*>(bytes), length, kReader};
  }

  [[gnu::always_inline]] static bool canUnpack(const reading::Source& source, const void* record) {
    return source.bytes != nullptr && reading::hasRoomForOwnFront<Record>(source) &&
           isReady(Runtime.memReady) && record != nullptr;
  }

  [[gnu::always_inline]] static void clear(Record& record) {
    std::memset(static_cast<void*>(&record), 0, kRecordSize<Record>);
  }

  [[gnu::always_inline]] static uintptr_t unpackSlowly(const void* bytes, uint32_t length,
                                                       void* untyped) {
    return unpackSlowPath<Runtime>(kUnpackName.text(), bytes, length, untyped, unpackAnyLayout);
  }

  // Reads a message of any writer. A function of its own, so that the usual case saves no registers
  // for it. A record that owns memory is cleared first, even if the header is refused, since the
  // release routine must not meet a stale pointer; for any other, a refused header leaves the
  // record untouched and needs no hooks. If a slot is refused, the record holds what was read
  // before it, and zeros elsewhere.
  [[gnu::cold, gnu::noinline]] static uintptr_t unpackAnyLayout(const void* bytes, uint32_t length,
                                                                void* untyped) {
    auto& record = *static_cast<Record*>(untyped);
    const reading::Source source = sourceOf(bytes, length);
    if constexpr (kOwnsMemory<Record>) {
      clear(record);
    }
    reading::TableView view{};
    if (!reading::openRoot(source, view)) {
      return giveUp(&record);
    }
    if (!isReady(Runtime.memReady)) {
      KorvaMemInit(Runtime);
    }
    if constexpr (PlainTable<Record>) {
      clear(record);
    }
    if (!reading::readTable<Record, false>(source, view, record)) {
      return giveUp(&record);
    }
    return reinterpret_cast<uintptr_t>(untyped);
  }

  [[gnu::cold, gnu::noinline]] static uintptr_t giveUp(Record* record) {
    release(record);
    return 0;
  }

  static constexpr auto kPackName = Title + "_pack";
  static constexpr auto kUnpackName = Title + "_unpack";
  static constexpr auto kReleaseName = Title + "_free_unpacked";
  // A record that owns memory is read by a routine with a name of its own, which frees what it has
  // allocated if it fails.
  static constexpr auto kReadName = [] {
    if constexpr (kOwnsMemory<Record>) {
      return kUnpackName + "_non_root";
    } else {
      return kUnpackName;
    }
  }();
  static constexpr reading::Caller kReader{Runtime, kReadName.text()};
};

}  // namespace korva
