// The unit of the messages of KelSysdiagMaster, as this library sends and receives them.
// For the client's messages' sources.
#pragma once

#include "schema/package.hpp"

namespace kel {

[[gnu::visibility("hidden")]] extern korva::CodecRuntime clientRuntime;

template <class Message>
using ClientCodec = PackageCodec<Message, clientRuntime>;

}  // namespace kel
