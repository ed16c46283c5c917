// A message's routines: what its named entry points consist of. For schema/ and peer/, which give
// each message its name, its record and its unit.
#pragma once

#include "codec/korva_compact_packer.hpp"
#include "codec/korva_fixed_layout.hpp"
#include "codec/korva_inlined.hpp"
#include "codec/korva_release.hpp"
#include "codec/korva_runtime.hpp"
#include "codec/korva_schema.hpp"
#include "codec/korva_unpacker.hpp"

namespace korva {

// What is not the usual case of packing or unpacking, for all of a unit's messages alike. Record is
// what an entry point calls its record, and may be void.

// Told what the log says of the pointers, which is known before a text is scanned: the record need
// not outlive that.
template <CodecRuntime& Runtime>
[[gnu::cold, gnu::noinline]] uint32_t rejectPack(const char* function, const char* buffer,
                                                 uint32_t capacity, const char* record) {
  korvaLog(Runtime, kInvalid, function, "[KORVA]:Param invalid(%s, %u, %s)", buffer, capacity,
           record);
  return 0;
}

template <CodecRuntime& Runtime, class Record>
[[gnu::cold, gnu::noinline]] uint32_t packOther(const char* function, const PackTarget* target,
                                                const Record* record,
                                                uint32_t (*entry)(const PackTarget*,
                                                                  const Record*)) {
  if (target->buffer == nullptr || record == nullptr || *target->capacity < kMinimumLength) {
    return rejectPack<Runtime>(function, nullness(target->buffer), *target->capacity,
                               nullness(record));
  }
  return setUpAnd(Runtime, entry, target, record);
}

// Messages that our own packer has not written come here as well; any reads them.
template <CodecRuntime& Runtime, class Record>
[[gnu::cold, gnu::noinline]] uintptr_t unpackOther(const char* function, const void* bytes,
                                                   uint32_t length, Record* record,
                                                   uintptr_t (*entry)(const void*, uint32_t,
                                                                      Record*),
                                                   uintptr_t (*any)(const void*, uint32_t, void*)) {
  const auto signedLength = static_cast<int32_t>(length);
  if (bytes == nullptr || signedLength < static_cast<int32_t>(kMinimumLength) ||
      record == nullptr) {
    korvaLog(Runtime, kInvalid, function, "[KORVA]:Param invalid(%s, %d, %s)", nullness(bytes),
             signedLength, nullness(record));
    return 0;
  }
  return isReady(Runtime.memReady) ? any(bytes, length, record)
                                   : setUpAnd(Runtime, entry, bytes, length, record);
}

// How a message may be sent.
enum class Layouts : uint8_t { compact, compactAndFixed };

// Title is the message's name with its package, as log lines begin their function names; Runtime is
// the unit's.
template <Name Title, class RecordType, Layouts Sent, CodecRuntime& Runtime>
class Codec {
 public:
  using Record = RecordType;

  // Records come untyped, as the slots of an IdlCodecOps hand them over. Each routine is also given
  // its own entry point, to begin again once the hooks are set up: whatever happens once or goes
  // wrong is the last call of its path, so that nothing has to outlive a call and no register to be
  // saved, which would cost as much as writing a field.
  template <class Typed>
  [[gnu::always_inline]] static uint32_t pack(const PackTarget* target, const void* untyped,
                                              uint32_t (*entry)(const PackTarget*, const Typed*)) {
    const auto* const record = static_cast<const Record*>(untyped);
    if (target == nullptr) {
      return size(record);
    }
    if constexpr (kOwnsMemory<Record>) {
      return packIntoApart(target, static_cast<const Typed*>(untyped), entry);
    } else {
      return packInto(target, static_cast<const Typed*>(untyped), entry);
    }
  }

  template <class Typed>
  [[gnu::always_inline]] static uintptr_t unpack(const void* bytes, uint32_t length, void* untyped,
                                                 uintptr_t (*entry)(const void*, uint32_t,
                                                                    Typed*)) {
    const auto other = [&]() KORVA_INLINED {
      return unpackOther<Runtime>(kUnpackName.text(), bytes, length, static_cast<Typed*>(untyped),
                                  entry, unpackAny);
    };
    const reading::Source source = sourceOf(bytes, length);
    if (!canUnpack(source, untyped)) [[unlikely]] {
      return other();
    }
    if constexpr (Sent == Layouts::compactAndFixed) {
      if (source.at<uint32_t>(0) == fixed::kTablePosition) {
        return unpackFixed(bytes, length, static_cast<Typed*>(untyped), entry);
      }
    }
    auto& record = *static_cast<Record*>(untyped);
    if constexpr (kOwnsMemory<Record>) {
      clear(record);
      if (!reading::hasOwnFront<Record>(source)) [[unlikely]] {
        return other();
      }
      if (!readOwnSlots(source, record)) [[unlikely]] {
        return giveUp(&record);
      }
    } else if (!readOwn(source, record)) [[unlikely]] {
      return other();  // leaves the record as a failure has to
    }
    return reinterpret_cast<uintptr_t>(untyped);
  }

  [[gnu::always_inline]] static void release(void* record) {
    if constexpr (kOwnsMemory<Record>) {  // any other needs not even the set-up
      if (!isReady(Runtime.memReady)) [[unlikely]] {
        return setUpAnd(Runtime, releaseOwned, static_cast<Record*>(record));
      }
      releaseOwned(static_cast<Record*>(record));
    }
  }

  template <class Entry>
  [[gnu::always_inline]] static int32_t packFixed(uint8_t* buffer, const void* record,
                                                  Entry* entry) {
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
                                                  uint32_t (*entry)(const PackTarget*,
                                                                    const Typed*)) {
    const auto* const record = static_cast<const Record*>(typed);
    uint8_t* const buffer = target->buffer;
    const uint32_t capacity = *target->capacity;
    if (buffer == nullptr || capacity < kMinimumLength || !isReady(Runtime.memReady) ||
        record == nullptr) [[unlikely]] {
      return packOther<Runtime>(kPackName.text(), target, typed, entry);
    }
    compact::Survey<Record> survey;
    if (!compactFits(*record, capacity, survey)) [[unlikely]] {
      return rejectPack<Runtime>(kPackName.text(), nullness(buffer), capacity, nullness(record));
    }
    return compactPack(buffer, *record, survey);
  }

  // For records with texts or entries, which call other routines: so that the size pass need not
  // save the registers that those would overwrite.
  template <class Typed>
  [[gnu::noinline]] static uint32_t packIntoApart(const PackTarget* target, const Typed* typed,
                                                  uint32_t (*entry)(const PackTarget*,
                                                                    const Typed*)) {
    return packInto(target, typed, entry);
  }

  [[gnu::always_inline]] static bool readOwnSlots(const reading::Source& source, Record& record) {
    return reading::readSlots(source, source.bytes + kRootOffsetWidth, reading::kOwnTable<Record>,
                              record);
  }

  // Reads what our own packer has written. Whatever it says no to is to be read in another way.
  [[gnu::always_inline]] static bool readOwn(const reading::Source& source, Record& record) {
    if constexpr (small::SmallTable<Record>) {
      return source.at<uint32_t>(0) == reading::kOwnTable<Record> &&
             reading::readSmall(source, reading::kOwnTable<Record>, record);
    } else {
      return reading::hasOwnFront<Record>(source) && readOwnSlots(source, record);
    }
  }

  // What may be unpacked, and has its root table where the fixed layout has it. Apart, so that its
  // registers are not the business of the compact form.
  template <class Typed>
  [[gnu::noinline]] static uintptr_t unpackFixed(const void* bytes, uint32_t length, Typed* typed,
                                                 uintptr_t (*entry)(const void*, uint32_t,
                                                                    Typed*)) {
    const auto* const message = static_cast<const uint8_t*>(bytes);
    if (length < kFixedSize<Record> || !isFixed<Record>(message)) [[unlikely]] {
      return unpackOther<Runtime>(kUnpackName.text(), bytes, length, typed, entry, unpackAny);
    }
    auto& record = *static_cast<Record*>(typed);
    reading::clearPadding(record);
    fixedUnpack(message, record);
    return reinterpret_cast<uintptr_t>(typed);
  }

  static void releaseOwned(Record* record) { releaseRecord(Runtime, kReleaseName.text(), record); }

  [[gnu::noinline]] static uint32_t size(const Record* record) {
    return record == nullptr ? 0 : compactSize(*record);
  }

  [[gnu::always_inline]] static reading::Source sourceOf(const void* bytes, uint32_t length) {
    return {static_cast<const uint8_t*>(bytes), length, kReader};
  }

  [[gnu::always_inline]] static bool canUnpack(const reading::Source& source, const void* record) {
    return source.bytes != nullptr && reading::holdsOwnFront<Record>(source) &&
           isReady(Runtime.memReady) && record != nullptr;
  }

  [[gnu::always_inline]] static void clear(Record& record) {
    std::memset(static_cast<void*>(&record), 0, kRecordSize<Record>);
  }

  // Apart, so that its registers are not the business of the usual case. A record that owns memory
  // is cleared whatever happens, since the release must not meet a stale pointer; any other stays
  // untouched if the header is refused, and holds what comes before the first bad slot, and zeros
  // else, if that is refused.
  [[gnu::cold, gnu::noinline]] static uintptr_t unpackAny(const void* bytes, uint32_t length,
                                                          void* untyped) {
    auto& record = *static_cast<Record*>(untyped);
    const reading::Source source = sourceOf(bytes, length);
    reading::TableView view{};
    const bool isOpen = reading::openRoot(source, view);
    if (isOpen || kOwnsMemory<Record>) {
      clear(record);
    }
    if (!isOpen || !reading::readTable<Record, false>(source, view, record)) {
      return giveUp(&record);
    }
    return reinterpret_cast<uintptr_t>(untyped);
  }

  [[gnu::cold, gnu::noinline]] static uintptr_t giveUp([[maybe_unused]] Record* record) {
    if constexpr (kOwnsMemory<Record>) {
      releaseOwned(record);
    }
    return 0;
  }

  static constexpr auto kPackName = Title + "_pack";
  static constexpr auto kUnpackName = Title + "_unpack";
  static constexpr auto kReleaseName = Title + "_free_unpacked";
  // A record that owns memory is read by a routine of its own name, which releases what it had
  // allocated when it fails.
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
