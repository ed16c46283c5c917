// The Kel_sys_diag package: what all of its messages' codecs are called by.
// For schema/ and peer/.
#pragma once

#include "codec/korva_codec.hpp"

namespace kel {

// The codecs of one message in one unit; function names in log lines read
// Kel_sys_diag_<Message>_...
template <korva::Name Message, class Record, korva::CodecRuntime& Runtime>
using PackageCodec = korva::Codec<korva::Name("Kel_sys_diag_") + Message, Record, Runtime>;

}  // namespace kel
