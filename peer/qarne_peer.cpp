// What a KelSysdiagQarne client needs: its requests encoded, its replies decoded. Exported;
// kel_sys_diag/peer.h documents the functions.
#include <kel_sys_diag/peer.h>

#include "peer/peer_unit.hpp"
#include "schema/brd_part_info_messages.hpp"
#include "schema/disk_reset_mount_messages.hpp"
#include "schema/disk_threshold_messages.hpp"
#include "schema/disk_use_messages.hpp"
#include "schema/fd_proc_info_messages.hpp"
#include "schema/storage_messages.hpp"

using BrdPartInfoInputCodec = kel::PeerCodec<kel::message::BrdPartInfoInput>;
using BrdPartInfoCodec = kel::PeerCodec<kel::message::BrdPartInfo>;
using FdProcInfoInputCodec = kel::PeerCodec<kel::message::FdProcInfoInput>;
using FdProcInfoOutputCodec = kel::PeerCodec<kel::message::FdProcInfoOutput>;
using SysOvLoadDiskThresholdCodec = kel::PeerCodec<kel::message::SysOvLoadDiskThreshold>;
using OperResultCodec = kel::PeerCodec<kel::message::OperResult>;
using SysDiskUseInputCodec = kel::PeerCodec<kel::message::SysDiskUseInput>;
using SysDiskUseInfoResultCodec = kel::PeerCodec<kel::message::SysDiskUseInfoResult>;
using ResetDiskConditionCodec = kel::PeerCodec<kel::message::ResetDiskCondition>;
using ResetDiskResultCodec = kel::PeerCodec<kel::message::ResetDiskResult>;
using MountDiskInputCodec = kel::PeerCodec<kel::message::MountDiskInput>;
using MountDiskResultCodec = kel::PeerCodec<kel::message::MountDiskResult>;
using StorageEraseInfoInputCodec = kel::PeerCodec<kel::message::StorageEraseInfoInput>;
using StorageEraseInfoCodec = kel::PeerCodec<kel::message::StorageEraseInfo>;
using StorageBadBlockInfoInputCodec = kel::PeerCodec<kel::message::StorageBadBlockInfoInput>;
using StorageBadBlockInfoCodec = kel::PeerCodec<kel::message::StorageBadBlockInfo>;

uint32_t Kel_sys_diag_BrdPartInfoInput_pack(const PackTarget* target, const void* record) {
  return BrdPartInfoInputCodec::pack(target, record, Kel_sys_diag_BrdPartInfoInput_pack);
}

uint32_t Kel_sys_diag_FdProcInfoInput_pack(const PackTarget* target,
                                           const FdProcInfoInput* record) {
  return FdProcInfoInputCodec::pack(target, record, Kel_sys_diag_FdProcInfoInput_pack);
}

uint32_t Kel_sys_diag_SysOvLoadDiskThreshold_pack(const PackTarget* target,
                                                  const SysOvLoadDiskThreshold* record) {
  return SysOvLoadDiskThresholdCodec::pack(target, record,
                                           Kel_sys_diag_SysOvLoadDiskThreshold_pack);
}

uint32_t Kel_sys_diag_SysDiskUseInput_pack(const PackTarget* target,
                                           const SysDiskUseInput* record) {
  return SysDiskUseInputCodec::pack(target, record, Kel_sys_diag_SysDiskUseInput_pack);
}

uint32_t Kel_sys_diag_ResetDiskCondition_pack(const PackTarget* target,
                                              const ResetDiskCondition* record) {
  return ResetDiskConditionCodec::pack(target, record, Kel_sys_diag_ResetDiskCondition_pack);
}

uint32_t Kel_sys_diag_MountDiskInput_pack(const PackTarget* target, const MountDiskInput* record) {
  return MountDiskInputCodec::pack(target, record, Kel_sys_diag_MountDiskInput_pack);
}

uint32_t Kel_sys_diag_StorageEraseInfoInput_pack(const PackTarget* target,
                                                 const StorageEraseInfoInput* record) {
  return StorageEraseInfoInputCodec::pack(target, record, Kel_sys_diag_StorageEraseInfoInput_pack);
}

uint32_t Kel_sys_diag_StorageBadBlockInfoInput_pack(const PackTarget* target,
                                                    const StorageBadBlockInfoInput* record) {
  return StorageBadBlockInfoInputCodec::pack(target, record,
                                             Kel_sys_diag_StorageBadBlockInfoInput_pack);
}

uintptr_t Kel_sys_diag_BrdPartInfo_unpack(const void* bytes, uint32_t length, BrdPartInfo* record) {
  return BrdPartInfoCodec::unpack(bytes, length, record);
}

void Kel_sys_diag_BrdPartInfo_free_unpacked(BrdPartInfo* record) {
  BrdPartInfoCodec::release(record);
}

uintptr_t Kel_sys_diag_FdProcInfoOutput_unpack(const void* bytes, uint32_t length,
                                               FdProcInfoOutput* record) {
  return FdProcInfoOutputCodec::unpack(bytes, length, record);
}

void Kel_sys_diag_FdProcInfoOutput_free_unpacked(FdProcInfoOutput* record) {
  FdProcInfoOutputCodec::release(record);
}

uintptr_t Kel_sys_diag_OperResult_unpack(const void* bytes, uint32_t length, OperResult* record) {
  return OperResultCodec::unpack(bytes, length, record);
}

void Kel_sys_diag_OperResult_free_unpacked(OperResult* record) { OperResultCodec::release(record); }

uintptr_t Kel_sys_diag_SysDiskUseInfoResult_unpack(const void* bytes, uint32_t length,
                                                   SysDiskUseInfoResult* record) {
  return SysDiskUseInfoResultCodec::unpack(bytes, length, record);
}

void Kel_sys_diag_SysDiskUseInfoResult_free_unpacked(SysDiskUseInfoResult* record) {
  SysDiskUseInfoResultCodec::release(record);
}

uintptr_t Kel_sys_diag_ResetDiskResult_unpack(const void* bytes, uint32_t length,
                                              ResetDiskResult* record) {
  return ResetDiskResultCodec::unpack(bytes, length, record);
}

void Kel_sys_diag_ResetDiskResult_free_unpacked(ResetDiskResult* record) {
  ResetDiskResultCodec::release(record);
}

uintptr_t Kel_sys_diag_MountDiskResult_unpack(const void* bytes, uint32_t length,
                                              MountDiskResult* record) {
  return MountDiskResultCodec::unpack(bytes, length, record);
}

void Kel_sys_diag_MountDiskResult_free_unpacked(MountDiskResult* record) {
  MountDiskResultCodec::release(record);
}

uintptr_t Kel_sys_diag_StorageEraseInfo_unpack(const void* bytes, uint32_t length,
                                               StorageEraseInfo* record) {
  return StorageEraseInfoCodec::unpack(bytes, length, record);
}

void Kel_sys_diag_StorageEraseInfo_free_unpacked(StorageEraseInfo* record) {
  StorageEraseInfoCodec::release(record);
}

uintptr_t Kel_sys_diag_StorageBadBlockInfo_unpack(const void* bytes, uint32_t length,
                                                  StorageBadBlockInfo* record) {
  return StorageBadBlockInfoCodec::unpack(bytes, length, record);
}

void Kel_sys_diag_StorageBadBlockInfo_free_unpacked(StorageBadBlockInfo* record) {
  StorageBadBlockInfoCodec::release(record);
}
