// The process descriptor messages' routines in the server unit.
#include "schema/fd_proc_info_messages.hpp"

#include "schema/server_routines.hpp"
#include "schema/server_unit.hpp"

using FdProcInfoInputCodec = kel::ServerCodec<kel::message::FdProcInfoInput>;
using FdProcInfoOutputCodec = kel::ServerCodec<kel::message::FdProcInfoOutput>;

uintptr_t Kel_sys_diag_FdProcInfoInput_unpack(const void* bytes, uint32_t length, void* record) {
  return FdProcInfoInputCodec::unpack(bytes, length, record);
}

uint32_t Kel_sys_diag_FdProcInfoOutput_pack(const PackTarget* target, const void* record) {
  return FdProcInfoOutputCodec::pack(target, record, Kel_sys_diag_FdProcInfoOutput_pack);
}

void Kel_sys_diag_FdProcInfoOutput_free_unpacked(void* record) {
  FdProcInfoOutputCodec::release(record);
}
