// A message's routines: what its named entry points consist of. For schema/ and peer/, which give
// each message its name, its record and its unit.
#pragma once

#include "codec/korva_compact_packer.hpp"
#include "codec/korva_fixed_packer.hpp"
#include "codec/korva_release.hpp"
#include "codec/korva_runtime.hpp"
#include "codec/korva_schema.hpp"
#include "codec/korva_unpacker.hpp"

namespace korva {

// Title is the message's name with its package, as log lines begin their function names; Runtime is
// the unit's.
template <Name Title, class RecordType, CodecRuntime& Runtime>
class Codec {
 public:
  using Record = RecordType;

  // Records come untyped, as the slots of an IdlCodecOps hand them over. Each routine is also given
  // its own entry point, to begin again once the hooks are set up: whatever happens once or goes
  // wrong is the last call of its path, so that nothing has to outlive a call and no register to be
  // saved, which would cost as much as writing a field.
  template <class Entry>
  [[gnu::always_inline]] static uint32_t pack(const PackTarget* target, const void* untyped,
                                              Entry* entry) {
    const auto* const record = static_cast<const Record*>(untyped);
    if (target == nullptr) {
      return size(record);
    }
    uint8_t* const buffer = target->buffer;
    const uint32_t capacity = *target->capacity;
    if (buffer == nullptr || record == nullptr || capacity < kSmallestCompactSize<Record>)
        [[unlikely]] {
      return reject(buffer, capacity, record);
    }
    if (!isReady(Runtime.memReady)) [[unlikely]] {
      return setUpAnd(Runtime, entry, target, record);
    }
    compact::Survey<Record> survey;
    if (!compactFits(*record, capacity, survey)) [[unlikely]] {
      return reject(buffer, capacity, record);
    }
    return compactPack(buffer, *record, survey);
  }

  template <class Entry>
  [[gnu::always_inline]] static uintptr_t unpack(const void* bytes, uint32_t length, void* record,
                                                 Entry* entry) {
    const auto signedLength = static_cast<int32_t>(length);
    if (bytes == nullptr || signedLength < static_cast<int32_t>(kMinimumLength) ||
        record == nullptr) [[unlikely]] {
      return reject(bytes, signedLength, record);
    }
    if (!isReady(Runtime.memReady)) [[unlikely]] {
      return setUpAnd(Runtime, entry, bytes, length, static_cast<Record*>(record));
    }
    auto& typed = *static_cast<Record*>(record);
    if constexpr (kOwnsMemory<Record>) {
      typed = {};  // before anything can fail, since the release must not meet a stale pointer
    }
    const reading::Source source = sourceOf(bytes, length);
    if (!reading::hasOwnHeader<Record>(source)) [[unlikely]] {
      return unpackAny(bytes, length, typed);
    }
    if (!reading::readSlots(source, source.bytes + kRootOffsetWidth, reading::kOwnTable<Record>,
                            typed)) [[unlikely]] {
      return giveUp(&typed);
    }
    return reinterpret_cast<uintptr_t>(record);
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
    if (!isReady(Runtime.memReady)) [[unlikely]] {
      return setUpAnd(Runtime, entry, buffer, record);
    }
    fixedPack(buffer, *static_cast<const Record*>(record));
    return 0;
  }

  [[gnu::always_inline]] static constexpr uint32_t fixedSize() { return kFixedSize<Record>; }

 private:
  static void releaseOwned(Record* record) { releaseRecord(Runtime, kReleaseName.text(), record); }

  [[gnu::noinline]] static uint32_t size(const Record* record) {
    return record == nullptr ? 0 : compactSize(*record);
  }

  [[gnu::cold, gnu::noinline]] static uint32_t reject(const uint8_t* buffer, uint32_t capacity,
                                                      const Record* record) {
    korvaLog(Runtime, kInvalid, kPackName.text(), "[KORVA]:Param invalid(%s, %u, %s)",
             nullness(buffer), capacity, nullness(record));
    return 0;
  }

  [[gnu::cold, gnu::noinline]] static uintptr_t reject(const void* bytes, int32_t length,
                                                       const void* record) {
    korvaLog(Runtime, kInvalid, kUnpackName.text(), "[KORVA]:Param invalid(%s, %d, %s)",
             nullness(bytes), length, nullness(record));
    return 0;
  }

  [[gnu::always_inline]] static reading::Source sourceOf(const void* bytes, uint32_t length) {
    return {static_cast<const uint8_t*>(bytes), length, Runtime, kReadName.text()};
  }

  // Apart, so that its registers are not the business of the usual case.
  [[gnu::cold, gnu::noinline]] static uintptr_t unpackAny(const void* bytes, uint32_t length,
                                                          Record& record) {
    const reading::Source source = sourceOf(bytes, length);
    reading::TableView view{};
    if (!reading::openRoot(source, view) || !reading::readTable(source, view, record)) {
      return giveUp(&record);
    }
    return reinterpret_cast<uintptr_t>(&record);
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
};

}  // namespace korva
