// The unit of the peer library: the other direction of every message, with a runtime of its own.
// For the peer library's sources.
#pragma once

#include "schema/package.hpp"

namespace kel {

[[gnu::visibility("hidden")]] extern korva::CodecRuntime peerRuntime;

template <class Message>
using PeerCodec = PackageCodec<Message, peerRuntime>;

}  // namespace kel
