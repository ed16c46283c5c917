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

  // Records come untyped, as the slots of an IdlCodecOps hand them over.
  [[gnu::always_inline]] static uint32_t pack(const PackTarget* target, const void* untyped) {
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
    KorvaMemInit(Runtime);
    compact::Survey<Record> survey;
    if (!compactFits(*record, capacity, survey)) [[unlikely]] {
      return reject(buffer, capacity, record);
    }
    return compactPack(buffer, *record, survey);
  }

  [[gnu::always_inline]] static uintptr_t unpack(const void* bytes, uint32_t length, void* record) {
    const auto signedLength = static_cast<int32_t>(length);
    if (bytes == nullptr || signedLength < static_cast<int32_t>(kMinimumLength) ||
        record == nullptr) [[unlikely]] {
      korvaLog(Runtime, kInvalid, kUnpackName.text(), "[KORVA]:Param invalid(%s, %d, %s)",
               nullness(bytes), signedLength, nullness(record));
      return 0;
    }
    const reading::Source source{static_cast<const uint8_t*>(bytes), length, Runtime,
                                 kReadName.text()};
    if (!reading::readMessage(source, static_cast<Record*>(record))) {
      release(record);
      return 0;
    }
    return reinterpret_cast<uintptr_t>(record);
  }

  [[gnu::always_inline]] static void release(void* record) {
    releaseRecord(Runtime, kReleaseName.text(), static_cast<Record*>(record));
  }

  [[gnu::always_inline]] static int32_t packFixed(uint8_t* buffer, const void* record) {
    KorvaMemInit(Runtime);
    fixedPack(buffer, *static_cast<const Record*>(record));
    return 0;
  }

  [[gnu::always_inline]] static uint32_t fixedSize() { return kFixedSize<Record>; }

 private:
  // Apart from pack, which then has fewer registers to save.
  [[gnu::noinline]] static uint32_t size(const Record* record) {
    return record == nullptr ? 0 : compactSize(*record);
  }

  [[gnu::cold, gnu::noinline]] static uint32_t reject(const uint8_t* buffer, uint32_t capacity,
                                                      const Record* record) {
    korvaLog(Runtime, kInvalid, kPackName.text(), "[KORVA]:Param invalid(%s, %u, %s)",
             nullness(buffer), capacity, nullness(record));
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
