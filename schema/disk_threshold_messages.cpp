// The disk threshold messages' routines in the server unit.
#include "schema/disk_threshold_messages.hpp"

#include "schema/server_routines.hpp"
#include "schema/server_unit.hpp"

using SysOvLoadDiskThresholdCodec = kel::ServerCodec<kel::message::SysOvLoadDiskThreshold>;
using OperResultCodec = kel::ServerCodec<kel::message::OperResult>;

uintptr_t Kel_sys_diag_SysOvLoadDiskThreshold_unpack(const void* bytes, uint32_t length,
                                                     void* record) {
  return SysOvLoadDiskThresholdCodec::unpack(bytes, length, record);
}

uint32_t Kel_sys_diag_OperResult_pack(const PackTarget* target, const void* record) {
  return OperResultCodec::pack(target, record, Kel_sys_diag_OperResult_pack);
}

void Kel_sys_diag_OperResult_free_unpacked(void* record) { OperResultCodec::release(record); }

int32_t Kel_sys_diag_OperResult_fixed_pack(uint8_t* buffer, const void* record) {
  return OperResultCodec::packFixed(buffer, record, Kel_sys_diag_OperResult_fixed_pack);
}

uint32_t Kel_sys_diag_OperResult_fixed_size() { return OperResultCodec::fixedSize(); }
