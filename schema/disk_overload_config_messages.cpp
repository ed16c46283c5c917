// The disk overload configuration messages' routines in the client unit.
#include "schema/disk_overload_config_messages.hpp"

#include "schema/client_routines.hpp"
#include "schema/client_unit.hpp"

using OvLoadDiskCtlInputCodec = kel::ClientCodec<kel::message::OvLoadDiskCtlInput>;
using OvLoadDiskCtlOutputCodec = kel::ClientCodec<kel::message::OvLoadDiskCtlOutput>;

uint32_t Kel_sys_diag_OvLoadDiskCtlInput_pack(const PackTarget* target, const void* record) {
  return OvLoadDiskCtlInputCodec::pack(target, record, Kel_sys_diag_OvLoadDiskCtlInput_pack);
}

int32_t Kel_sys_diag_OvLoadDiskCtlInput_fixed_pack(uint8_t* buffer, const void* record) {
  return OvLoadDiskCtlInputCodec::packFixed(buffer, record,
                                            Kel_sys_diag_OvLoadDiskCtlInput_fixed_pack);
}

uint32_t Kel_sys_diag_OvLoadDiskCtlInput_fixed_size() {
  return OvLoadDiskCtlInputCodec::fixedSize();
}

uintptr_t Kel_sys_diag_OvLoadDiskCtlOutput_unpack(const void* bytes, uint32_t length,
                                                  void* record) {
  return OvLoadDiskCtlOutputCodec::unpack(bytes, length, record);
}

void Kel_sys_diag_OvLoadDiskCtlOutput_free_unpacked(void* record) {
  OvLoadDiskCtlOutputCodec::release(record);
}
