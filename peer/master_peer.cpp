// What a KelSysdiagMaster server needs: its requests decoded, its replies encoded. Exported;
// kel_sys_diag/peer.h documents the functions.
#include <kel_sys_diag/peer.h>

#include "peer/peer_unit.hpp"
#include "schema/alarm_messages.hpp"
#include "schema/disk_overload_config_messages.hpp"
#include "schema/overload_alarm_messages.hpp"

using AlarmInputCodec = kel::PeerCodec<kel::message::AlarmInput>;
using OverloadAlarmInputCodec = kel::PeerCodec<kel::message::OverloadAlarmInput>;
using OverloadDiskAlarmInputCodec = kel::PeerCodec<kel::message::OverloadDiskAlarmInput>;
using OvLoadDiskCtlInputCodec = kel::PeerCodec<kel::message::OvLoadDiskCtlInput>;
using AlarmOutputCodec = kel::PeerCodec<kel::message::AlarmOutput>;
using OvLoadDiskCtlOutputCodec = kel::PeerCodec<kel::message::OvLoadDiskCtlOutput>;

uintptr_t Kel_sys_diag_AlarmInput_unpack(const void* bytes, uint32_t length, AlarmInput* record) {
  return AlarmInputCodec::unpack(bytes, length, record);
}

void Kel_sys_diag_AlarmInput_free_unpacked(AlarmInput* record) { AlarmInputCodec::release(record); }

uintptr_t Kel_sys_diag_OverloadAlarmInput_unpack(const void* bytes, uint32_t length,
                                                 OverloadAlarmInput* record) {
  return OverloadAlarmInputCodec::unpack(bytes, length, record);
}

void Kel_sys_diag_OverloadAlarmInput_free_unpacked(OverloadAlarmInput* record) {
  OverloadAlarmInputCodec::release(record);
}

uintptr_t Kel_sys_diag_OverloadDiskAlarmInput_unpack(const void* bytes, uint32_t length,
                                                     OverloadDiskAlarmInput* record) {
  return OverloadDiskAlarmInputCodec::unpack(bytes, length, record);
}

void Kel_sys_diag_OverloadDiskAlarmInput_free_unpacked(OverloadDiskAlarmInput* record) {
  OverloadDiskAlarmInputCodec::release(record);
}

uintptr_t Kel_sys_diag_OvLoadDiskCtlInput_unpack(const void* bytes, uint32_t length,
                                                 OvLoadDiskCtlInput* record) {
  return OvLoadDiskCtlInputCodec::unpack(bytes, length, record);
}

void Kel_sys_diag_OvLoadDiskCtlInput_free_unpacked(OvLoadDiskCtlInput* record) {
  OvLoadDiskCtlInputCodec::release(record);
}

uint32_t Kel_sys_diag_AlarmOutput_pack(const PackTarget* target, const AlarmOutput* record) {
  return AlarmOutputCodec::pack(target, record, Kel_sys_diag_AlarmOutput_pack);
}

uint32_t Kel_sys_diag_OvLoadDiskCtlOutput_pack(const PackTarget* target,
                                               const OvLoadDiskCtlOutput* record) {
  return OvLoadDiskCtlOutputCodec::pack(target, record, Kel_sys_diag_OvLoadDiskCtlOutput_pack);
}
