// The messages' routines.
#include "fuzz/messages.hpp"

#include <kel_sys_diag/client.h>
#include <kel_sys_diag/peer.h>
#include <kel_sys_diag/service.h>

#include <vector>

#include "tests/support/codec_ops.hpp"

namespace kel::fuzz {
namespace {

using test::opsOf;

using BrdPartInfoInput = void;  // a record of no bytes

// The peer library's routines take typed records; the messages take them as the slots do.
#define KEL_SENT(message, itsShape, ops)                                                        \
  Message {                                                                                     \
    .name = #message, .shape = &shape::itsShape, .receiver = Side::peer,                        \
    .unpack =                                                                                   \
        [](const void* bytes, uint32_t length, void* record) {                                  \
          return Kel_sys_diag_##message##_unpack(bytes, length, static_cast<message*>(record)); \
        },                                                                                      \
    .release =                                                                                  \
        [](void* record) {                                                                      \
          Kel_sys_diag_##message##_free_unpacked(static_cast<message*>(record));                \
        },                                                                                      \
    .pack = ops.packFn, .fixedPack = ops.fixedPackFn, .fixedSize = ops.fixedSizeFn              \
  }
#define KEL_RECEIVED(message, itsShape, ops, itsRelease)                                     \
  Message {                                                                                  \
    .name = #message, .shape = &shape::itsShape, .receiver = Side::library,                  \
    .unpack = ops.unpackFn, .release = itsRelease,                                           \
    .pack =                                                                                  \
        [](const PackTarget* target, const void* record) {                                   \
          return Kel_sys_diag_##message##_pack(target, static_cast<const message*>(record)); \
        },                                                                                   \
    .fixedPack = nullptr, .fixedSize = nullptr                                               \
  }

std::vector<Message> catalogue() {
  const IdlCodecOps alarm = opsOf(KelSysdiagMaster_KelSendAlarmSetIdl);
  const IdlCodecOps overload = opsOf(KelSysdiagMaster_KelSendOverloadAlarmSetIdl);
  const IdlCodecOps disk = opsOf(KelSysdiagMaster_KelSendMobileDiskOverloadAlarmSetIdl);
  const IdlCodecOps config = opsOf(KelSysdiagMaster_KelGetDiskOvLoadCfgInfoSetIdl);
  const IdlCodecOps brd = opsOf(KelBrdPartInfoQuery_wrapper);
  const IdlCodecOps fd = opsOf(FdProcInfoQuery_wrapper);
  const IdlCodecOps threshold = opsOf(KelSysOvLoadDiskThresholdSet_wrapper);
  const IdlCodecOps use = opsOf(KelGetSysDiskUseInfo_wrapper);
  const IdlCodecOps reset = opsOf(KelResetDiskMakeFS_wrapper);
  const IdlCodecOps mount = opsOf(KelMountDisk_wrapper);
  const IdlCodecOps erase = opsOf(KelQueryStorageEraseInfo_wrapper);
  const IdlCodecOps bad = opsOf(KelQueryStorageBadBlockInfo_wrapper);
  return {
      KEL_SENT(AlarmInput, alarmInput, alarm),
      KEL_SENT(OverloadAlarmInput, overloadAlarmInput, overload),
      KEL_SENT(OverloadDiskAlarmInput, overloadDiskAlarmInput, disk),
      KEL_SENT(OvLoadDiskCtlInput, ovLoadDiskCtlInput, config),
      KEL_RECEIVED(AlarmOutput, alarmOutput, alarm, alarm.releaseFn),
      KEL_RECEIVED(OvLoadDiskCtlOutput, ovLoadDiskCtlOutput, config, config.releaseFn),
      KEL_RECEIVED(BrdPartInfoInput, brdPartInfoInput, brd, nullptr),
      KEL_SENT(BrdPartInfo, brdPartInfo, brd),
      KEL_RECEIVED(FdProcInfoInput, fdProcInfoInput, fd, nullptr),
      KEL_SENT(FdProcInfoOutput, fdProcInfoOutput, fd),
      KEL_RECEIVED(SysOvLoadDiskThreshold, sysOvLoadDiskThreshold, threshold, nullptr),
      KEL_SENT(OperResult, operResult, threshold),
      KEL_RECEIVED(SysDiskUseInput, sysDiskUseInput, use, nullptr),
      KEL_SENT(SysDiskUseInfoResult, sysDiskUseInfoResult, use),
      KEL_RECEIVED(ResetDiskCondition, sysDiskUseInput, reset, nullptr),
      KEL_SENT(ResetDiskResult, operResult, reset),
      KEL_RECEIVED(MountDiskInput, sysDiskUseInput, mount, nullptr),
      KEL_SENT(MountDiskResult, operResult, mount),
      KEL_RECEIVED(StorageEraseInfoInput, storageEraseInfoInput, erase, nullptr),
      KEL_SENT(StorageEraseInfo, storageEraseInfo, erase),
      KEL_RECEIVED(StorageBadBlockInfoInput, storageBadBlockInfoInput, bad, nullptr),
      KEL_SENT(StorageBadBlockInfo, storageBadBlockInfo, bad),
  };
}

}  // namespace

std::span<const Message> allMessages() {
  static const std::vector<Message> messages = catalogue();
  return messages;
}

}  // namespace kel::fuzz
