// Records as msgpack arrays, for any packer that has packScalar for each width. For the msgpack
// candidates, which lie in files of their own because instances in one file keep each other from
// being inlined.
#pragma once

#include <cstring>
#include <msgpack.hpp>

#include "bench/fields.hpp"

namespace kel::bench {

template <class Packer, size_t Size>
void packBytes(Packer& packer, const uint8_t (&bytes)[Size]) {
  packer.pack_bin(Size);
  packer.pack_bin_body(reinterpret_cast<const char*>(bytes), Size);
}

template <class Packer>
void packText(Packer& packer, const char* text) {
  const auto length = static_cast<uint32_t>(std::strlen(text));
  packer.pack_str(length);
  packer.pack_str_body(text, length);
}

#define KEL_DECLARE(Record) \
  template <class Packer>   \
  void packRecord(Packer& packer, const Record& record);
KEL_FOR_EACH_RECORD(KEL_DECLARE)

template <class Packer, class Entry>
void packEntries(Packer& packer, const Entry* entries, uint32_t count) {
  packer.pack_array(count);
  for (uint32_t i = 0; i < count; ++i) packRecord(packer, entries[i]);
}

#define KEL_ONE(name, Name) +1
#define KEL_PACK_SCALAR(name, Name) packer.packScalar(record.name);
#define KEL_PACK_BYTES(name, Name) packBytes(packer, record.name);
#define KEL_PACK_TEXT(name, Name) packText(packer, record.name);
#define KEL_PACK_TABLE(name, Name) packRecord(packer, record.name);
#define KEL_PACK_ENTRIES(name, Name) packEntries(packer, record.name, record.entryCount);

#define KEL_DEFINE(Record)                                                                 \
  template <class Packer>                                                                  \
  inline void packRecord(Packer& packer, [[maybe_unused]] const Record& record) {          \
    packer.pack_array(0 KEL_FIELDS_##Record(KEL_ONE, KEL_ONE, KEL_ONE, KEL_ONE, KEL_ONE)); \
    KEL_FIELDS_##Record(KEL_PACK_SCALAR, KEL_PACK_BYTES, KEL_PACK_TEXT, KEL_PACK_TABLE,    \
                        KEL_PACK_ENTRIES)                                                  \
  }
KEL_FOR_EACH_RECORD(KEL_DEFINE)

}  // namespace kel::bench
