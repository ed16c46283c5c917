// Every message with its routines, by the entry points that ship: the library's through its codec
// tables, the peer library's by name. For fuzz programs and tests.
#pragma once

#include <kel_sys_diag/rpc.h>

#include <span>
#include <string>

#include "fuzz/shapes.hpp"

namespace kel::fuzz {

enum class Side : uint8_t { library, peer };

struct Message {
  std::string name;
  const Shape* shape;
  Side receiver;  // whose unpacker it is; the packer is the other side's
  IdlUnpackFn unpack;
  IdlReleaseFn release;  // the receiver's; null where only the sender has one
  IdlPackFn pack;
  IdlFixedPackFn fixedPack;  // null without a fixed layout
  IdlFixedSizeFn fixedSize;
};

std::span<const Message> allMessages();

}  // namespace kel::fuzz
