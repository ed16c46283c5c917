// Passes what one thread has done on to the thread that goes on with it. For users of gRPC's queues
// and reactors.
#pragma once

#include <atomic>
#include <cstdint>

namespace kel::host {

// Called before an operation is given to gRPC and again where its end arrives. gRPC orders the two
// itself, but by means that a race detector cannot see; this one it can.
inline void handOver() {
  static std::atomic<uint32_t> handOvers = 0;
  handOvers.fetch_add(1, std::memory_order_acq_rel);
}

}  // namespace kel::host
