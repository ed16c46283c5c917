// How the framework calls the host's functions that serve a method, and what becomes of what they
// return. For service_framework and whoever defines such functions.
//
// A method <Method> with the records Input and Output is two functions with C linkage:
//
//   extern "C" int32_t <Method>(const Input* input, Output* output);
//   extern "C" void <Method>_free(Output* output);
//
// <Method> finds a decoded input record (any valid address for a message without fields) and an
// output record whose bytes are all zero. It returns kServed, or another MethodResult, which ends
// the call with the gRPC status INTERNAL; the output record then travels nowhere. It runs on any
// number of threads at once and must not throw.
//
// <Method>_free gives back what the output record owns. The framework calls it exactly once for
// every call of <Method>, after the reply has been encoded or given up, also after a failure; so it
// must cope with a record that is only half filled or still all zero. Where there is no
// <Method>_free, the library's release routine is called instead; never both. Entries must
// therefore come from where either can give them back to: see reply_memory.hpp.
//
// Input records own nothing, and are not released.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kel::host {

enum MethodResult : int32_t {
  kServed = 0,
  kMethodNotReady = 1,  // the host is not set up to serve it
  kMethodOutOfMemory = 2,
  kMethodUnreadable = 3,  // the machine's state cannot be read
};

// The framework knows no message, so that every output record gets the same room, aligned for any
// type.
inline constexpr size_t kLargestOutputRecord = 256;

}  // namespace kel::host
