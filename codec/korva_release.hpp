// The release routine: gives back what unpacking put into a record. For the codecs of any message.
#pragma once

#include "codec/korva_runtime.hpp"
#include "codec/korva_schema.hpp"

namespace korva {

// Frees in the name of caller and clears the pointers to what was freed; the record itself, and a
// vector's count, stay. A record that owns nothing needs not even the set-up.
template <class Record>
[[gnu::always_inline]] inline void releaseRecord(CodecRuntime& runtime, const char* caller,
                                                 Record* record) {
  if constexpr (kOwnsMemory<Record>) {
    KorvaMemInit(runtime);
    if (record == nullptr) {
      return;
    }
    forEachSlot<Record>([&]<class Slot, size_t>() __attribute__((always_inline)) {
      if constexpr (Slot::kind == SlotKind::string) {
        // Null is handed over too: the hooks accept it, as free does.
        runtime.codecFree(const_cast<char*>(Slot::get(*record)), kModuleNumber, caller);
        Slot::get(*record) = nullptr;
      } else if constexpr (Slot::kind == SlotKind::vector) {
        if (Slot::get(*record) != nullptr) {
          runtime.codecFree(Slot::get(*record), kModuleNumber, caller);
          Slot::get(*record) = nullptr;
        }
      }
    });
  }
}

}  // namespace korva
