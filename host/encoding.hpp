// How a record becomes a message, by the six functions that a library hands out. For both sides of
// the framework.
#pragma once

#include <kel_sys_diag/rpc.h>

#include <cstdint>
#include <cstring>

namespace kel::host {

class Encoding {
 public:
  // In the fixed layout where the message has one, unless compact. ops and record are needed as
  // long as this.
  Encoding(const IdlCodecOps& ops, const void* record, bool compact)
      : ops_(ops),
        record_(record),
        fixed_(ops.fixedPackFn != nullptr && !compact),
        size_(fixed_ ? ops.fixedSizeFn() : ops.packFn(nullptr, record)) {}

  // Of the message in bytes; 0 if the record cannot be encoded.
  [[nodiscard]] uint32_t size() const { return size_; }

  // Fills a buffer of size() bytes. False if the record changed meanwhile.
  [[nodiscard]] bool writeTo(uint8_t* buffer) const {
    if (fixed_) {
      // The fixed layout leaves bytes unwritten, which must not carry old memory away.
      std::memset(buffer, 0, size_);
      ops_.fixedPackFn(buffer, record_);
      return true;
    }
    const PackTarget target{buffer, &size_};
    return ops_.packFn(&target, record_) == size_;
  }

 private:
  const IdlCodecOps& ops_;
  const void* record_;
  bool fixed_;
  uint32_t size_;
};

}  // namespace kel::host
