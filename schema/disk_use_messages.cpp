// The disk use messages' routines in the server unit.
#include "schema/disk_use_messages.hpp"

#include "schema/server_routines.hpp"
#include "schema/server_unit.hpp"

using SysDiskUseInputCodec = kel::ServerCodec<kel::message::SysDiskUseInput>;
using SysDiskUseInfoResultCodec = kel::ServerCodec<kel::message::SysDiskUseInfoResult>;

uintptr_t Kel_sys_diag_SysDiskUseInput_unpack(const void* bytes, uint32_t length, void* record) {
  return SysDiskUseInputCodec::unpack(bytes, length, record);
}

uint32_t Kel_sys_diag_SysDiskUseInfoResult_pack(const PackTarget* target, const void* record) {
  return SysDiskUseInfoResultCodec::pack(target, record, Kel_sys_diag_SysDiskUseInfoResult_pack);
}

void Kel_sys_diag_SysDiskUseInfoResult_free_unpacked(void* record) {
  SysDiskUseInfoResultCodec::release(record);
}

int32_t Kel_sys_diag_SysDiskUseInfoResult_fixed_pack(uint8_t* buffer, const void* record) {
  return SysDiskUseInfoResultCodec::packFixed(buffer, record,
                                              Kel_sys_diag_SysDiskUseInfoResult_fixed_pack);
}

uint32_t Kel_sys_diag_SysDiskUseInfoResult_fixed_size() {
  return SysDiskUseInfoResultCodec::fixedSize();
}
