// The storage messages' routines in the server unit.
#include "schema/storage_messages.hpp"

#include "schema/server_routines.hpp"
#include "schema/server_unit.hpp"

using StorageEraseInfoInputCodec = kel::ServerCodec<kel::message::StorageEraseInfoInput>;
using StorageEraseInfoCodec = kel::ServerCodec<kel::message::StorageEraseInfo>;
using StorageBadBlockInfoInputCodec = kel::ServerCodec<kel::message::StorageBadBlockInfoInput>;
using StorageBadBlockInfoCodec = kel::ServerCodec<kel::message::StorageBadBlockInfo>;

uintptr_t Kel_sys_diag_StorageEraseInfoInput_unpack(const void* bytes, uint32_t length,
                                                    void* record) {
  return StorageEraseInfoInputCodec::unpack(bytes, length, record);
}

uint32_t Kel_sys_diag_StorageEraseInfo_pack(const PackTarget* target, const void* record) {
  return StorageEraseInfoCodec::pack(target, record, Kel_sys_diag_StorageEraseInfo_pack);
}

void Kel_sys_diag_StorageEraseInfo_free_unpacked(void* record) {
  StorageEraseInfoCodec::release(record);
}

uintptr_t Kel_sys_diag_StorageBadBlockInfoInput_unpack(const void* bytes, uint32_t length,
                                                       void* record) {
  return StorageBadBlockInfoInputCodec::unpack(bytes, length, record);
}

uint32_t Kel_sys_diag_StorageBadBlockInfo_pack(const PackTarget* target, const void* record) {
  return StorageBadBlockInfoCodec::pack(target, record, Kel_sys_diag_StorageBadBlockInfo_pack);
}

void Kel_sys_diag_StorageBadBlockInfo_free_unpacked(void* record) {
  StorageBadBlockInfoCodec::release(record);
}
