// The Kel_sys_diag package: what describes a message, how its codec is named in log lines, and its
// id. For schema/, service/ and peer/.
#pragma once

#include "codec/korva_codec.hpp"
#include "codec/korva_name.hpp"

namespace kel {

// A message: its name, its record and how it may be sent. Two messages may share a record, and with
// it a schema.
template <korva::Name MessageName, class RecordType,
          korva::Layouts LayoutsSent = korva::Layouts::compact>
struct Message {
  static constexpr auto kName = MessageName;
  static constexpr auto kLayouts = LayoutsSent;
  using Record = RecordType;
};

// The codecs of one message in one unit; function names in log lines read
// Kel_sys_diag_<Message>_...
template <class Message, korva::CodecRuntime& Runtime>
using PackageCodec = korva::Codec<korva::Name("Kel_sys_diag_") + Message::kName,
                                  typename Message::Record, Message::kLayouts, Runtime>;

// How the framework tells messages apart: FNV-1a over the package, a full stop and the name.
template <class Message>
consteval uint32_t messageId() {
  constexpr auto qualified = korva::Name("Kel_sys_diag.") + Message::kName;
  uint32_t hash = 2166136261;
  for (const char character : qualified.view()) {
    hash = (hash ^ static_cast<uint8_t>(character)) * 16777619;
  }
  return hash;
}

}  // namespace kel
