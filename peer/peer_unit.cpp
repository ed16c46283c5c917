// The peer unit's one runtime record.
#include "peer/peer_unit.hpp"

namespace kel {

constinit korva::CodecRuntime peerRuntime;

}  // namespace kel
