// The unit of the messages of KelSysdiagMaster, as this library sends and receives them.
// For the client messages' sources.
#pragma once

#include "schema/package.hpp"

namespace kel {

[[gnu::visibility("hidden")]] extern korva::CodecRuntime clientRuntime;

template <korva::Name Message, class Record>
using ClientCodec = PackageCodec<Message, Record, clientRuntime>;

}  // namespace kel
