// The disk reset and mount messages' routines in the server unit.
#include "schema/disk_reset_mount_messages.hpp"

#include "schema/server_routines.hpp"
#include "schema/server_unit.hpp"

using ResetDiskConditionCodec = kel::ServerCodec<kel::message::ResetDiskCondition>;
using ResetDiskResultCodec = kel::ServerCodec<kel::message::ResetDiskResult>;
using MountDiskInputCodec = kel::ServerCodec<kel::message::MountDiskInput>;
using MountDiskResultCodec = kel::ServerCodec<kel::message::MountDiskResult>;

uintptr_t Kel_sys_diag_ResetDiskCondition_unpack(const void* bytes, uint32_t length, void* record) {
  return ResetDiskConditionCodec::unpack(bytes, length, record);
}

uint32_t Kel_sys_diag_ResetDiskResult_pack(const PackTarget* target, const void* record) {
  return ResetDiskResultCodec::pack(target, record, Kel_sys_diag_ResetDiskResult_pack);
}

void Kel_sys_diag_ResetDiskResult_free_unpacked(void* record) {
  ResetDiskResultCodec::release(record);
}

int32_t Kel_sys_diag_ResetDiskResult_fixed_pack(uint8_t* buffer, const void* record) {
  return ResetDiskResultCodec::packFixed(buffer, record, Kel_sys_diag_ResetDiskResult_fixed_pack);
}

uint32_t Kel_sys_diag_ResetDiskResult_fixed_size() { return ResetDiskResultCodec::fixedSize(); }

uintptr_t Kel_sys_diag_MountDiskInput_unpack(const void* bytes, uint32_t length, void* record) {
  return MountDiskInputCodec::unpack(bytes, length, record);
}

uint32_t Kel_sys_diag_MountDiskResult_pack(const PackTarget* target, const void* record) {
  return MountDiskResultCodec::pack(target, record, Kel_sys_diag_MountDiskResult_pack);
}

void Kel_sys_diag_MountDiskResult_free_unpacked(void* record) {
  MountDiskResultCodec::release(record);
}

int32_t Kel_sys_diag_MountDiskResult_fixed_pack(uint8_t* buffer, const void* record) {
  return MountDiskResultCodec::packFixed(buffer, record, Kel_sys_diag_MountDiskResult_fixed_pack);
}

uint32_t Kel_sys_diag_MountDiskResult_fixed_size() { return MountDiskResultCodec::fixedSize(); }
