// The overload alarm messages' routines in the client unit.
#include "schema/overload_alarm_messages.hpp"

#include "schema/client_routines.hpp"
#include "schema/client_unit.hpp"

using OverloadAlarmInputCodec = kel::ClientCodec<kel::message::OverloadAlarmInput>;
using OverloadDiskAlarmInputCodec = kel::ClientCodec<kel::message::OverloadDiskAlarmInput>;

uint32_t Kel_sys_diag_OverloadAlarmInput_pack(const PackTarget* target, const void* record) {
  return OverloadAlarmInputCodec::pack(target, record, Kel_sys_diag_OverloadAlarmInput_pack);
}

int32_t Kel_sys_diag_OverloadAlarmInput_fixed_pack(uint8_t* buffer, const void* record) {
  return OverloadAlarmInputCodec::packFixed(buffer, record,
                                            Kel_sys_diag_OverloadAlarmInput_fixed_pack);
}

uint32_t Kel_sys_diag_OverloadAlarmInput_fixed_size() {
  return OverloadAlarmInputCodec::fixedSize();
}

uint32_t Kel_sys_diag_OverloadDiskAlarmInput_pack(const PackTarget* target, const void* record) {
  return OverloadDiskAlarmInputCodec::pack(target, record,
                                           Kel_sys_diag_OverloadDiskAlarmInput_pack);
}

int32_t Kel_sys_diag_OverloadDiskAlarmInput_fixed_pack(uint8_t* buffer, const void* record) {
  return OverloadDiskAlarmInputCodec::packFixed(buffer, record,
                                                Kel_sys_diag_OverloadDiskAlarmInput_fixed_pack);
}

uint32_t Kel_sys_diag_OverloadDiskAlarmInput_fixed_size() {
  return OverloadDiskAlarmInputCodec::fixedSize();
}
