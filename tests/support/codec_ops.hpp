// A method's codecs, as the library hands them out. For tests and fuzz programs.
#pragma once

#include <kel_sys_diag/rpc.h>

namespace kel::test {

inline IdlCodecOps opsOf(void (*setIdl)(IdlCodecOps*)) {
  IdlCodecOps ops;
  setIdl(&ops);
  return ops;
}

inline IdlCodecOps opsOf(IdlWrapperFn wrapper) {
  IdlCodecOps ops;
  wrapper(0, 0, &ops);
  return ops;
}

}  // namespace kel::test
