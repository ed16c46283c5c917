// The release routine: frees what unpacking allocated for a record. For the codecs of any message.
#pragma once

#include "codec/korva_inlined.hpp"
#include "codec/korva_runtime.hpp"
#include "codec/korva_schema.hpp"

namespace korva {

// Frees in the name of caller and clears the pointers to what was freed; the record itself, and a
// vector's count, stay. The hooks must be set up.
template <class Record>
[[gnu::always_inline]] inline void releaseRecord(CodecRuntime& runtime, const char* caller,
                                                 Record* record) {
  if (record == nullptr) {
    return;
  }
  forEachSlot<Record>([&]<class Slot, size_t>() KORVA_INLINED {
    if constexpr (Slot::kind == SlotKind::string) {
      // Null is handed over too: the hooks accept it, as free does.
      auto*& text = Slot::get(*record);
      runtime.codecFree(const_cast<char*>(text), kModuleNumber, caller);
      text = nullptr;
    } else if constexpr (Slot::kind == SlotKind::vector) {
      if (auto*& elements = Slot::get(*record); elements != nullptr) {
        runtime.codecFree(elements, kModuleNumber, caller);
        elements = nullptr;
      }
    }
  });
}

}  // namespace korva
