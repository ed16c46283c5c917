// The unit of the messages of KelSysdiagQarne, as this library sends and receives them.
// For the server's messages' sources.
#pragma once

#include "schema/package.hpp"

namespace kel {

[[gnu::visibility("hidden")]] extern korva::CodecRuntime serverRuntime;

template <class Message>
using ServerCodec = PackageCodec<Message, serverRuntime>;

}  // namespace kel
