// The alarm messages' routines in the client unit.
#include "schema/alarm_messages.hpp"

#include "schema/client_routines.hpp"
#include "schema/client_unit.hpp"

using AlarmInputCodec = kel::ClientCodec<kel::message::AlarmInput>;
using AlarmOutputCodec = kel::ClientCodec<kel::message::AlarmOutput>;

uint32_t Kel_sys_diag_AlarmInput_pack(const PackTarget* target, const void* record) {
  return AlarmInputCodec::pack(target, record, Kel_sys_diag_AlarmInput_pack);
}

uintptr_t Kel_sys_diag_AlarmOutput_unpack(const void* bytes, uint32_t length, void* record) {
  return AlarmOutputCodec::unpack(bytes, length, record);
}

void Kel_sys_diag_AlarmOutput_free_unpacked(void* record) { AlarmOutputCodec::release(record); }
