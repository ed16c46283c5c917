// The messages' routines.
#include "fuzz/messages.hpp"

#include <kel_sys_diag/client.h>
#include <kel_sys_diag/peer.h>
#include <kel_sys_diag/service.h>

#include <vector>

namespace kel::fuzz {
namespace {

// The peer library's routines take typed records; these take them as the slots do.
template <class>
struct Argument;
template <class Result, class Bytes, class Record>
struct Argument<Result (*)(Bytes, uint32_t, Record*)> {
  using Type = Record;
};
template <class Result, class Record>
struct Argument<Result (*)(const PackTarget*, const Record*)> {
  using Type = const Record;
};
template <class Record>
struct Argument<void (*)(Record*)> {
  using Type = Record;
};
template <auto Function>
using RecordOf = typename Argument<decltype(Function)>::Type;

template <auto Function>
uintptr_t unpackBy(const void* bytes, uint32_t length, void* record) {
  return Function(bytes, length, static_cast<RecordOf<Function>*>(record));
}
template <auto Function>
uint32_t packBy(const PackTarget* target, const void* record) {
  return Function(target, static_cast<RecordOf<Function>*>(record));
}
template <auto Function>
void releaseBy(void* record) {
  Function(static_cast<RecordOf<Function>*>(record));
}

template <auto Fill>
IdlCodecOps opsOf() {
  IdlCodecOps ops;
  Fill(&ops);
  return ops;
}
template <auto Wrapper>
IdlCodecOps servedOpsOf() {
  IdlCodecOps ops;
  Wrapper(0, 0, &ops);
  return ops;
}

class Catalogue {
 public:
  Catalogue() {
    const IdlCodecOps alarm = opsOf<KelSysdiagMaster_KelSendAlarmSetIdl>();
    const IdlCodecOps config = opsOf<KelSysdiagMaster_KelGetDiskOvLoadCfgInfoSetIdl>();
    sent<Kel_sys_diag_AlarmInput_unpack, Kel_sys_diag_AlarmInput_free_unpacked>(
        "AlarmInput", shape::alarmInput, alarm);
    sent<Kel_sys_diag_OverloadAlarmInput_unpack, Kel_sys_diag_OverloadAlarmInput_free_unpacked>(
        "OverloadAlarmInput", shape::overloadAlarmInput,
        opsOf<KelSysdiagMaster_KelSendOverloadAlarmSetIdl>());
    sent<Kel_sys_diag_OverloadDiskAlarmInput_unpack,
         Kel_sys_diag_OverloadDiskAlarmInput_free_unpacked>(
        "OverloadDiskAlarmInput", shape::overloadDiskAlarmInput,
        opsOf<KelSysdiagMaster_KelSendMobileDiskOverloadAlarmSetIdl>());
    sent<Kel_sys_diag_OvLoadDiskCtlInput_unpack, Kel_sys_diag_OvLoadDiskCtlInput_free_unpacked>(
        "OvLoadDiskCtlInput", shape::ovLoadDiskCtlInput, config);
    received<Kel_sys_diag_AlarmOutput_pack>("AlarmOutput", shape::alarmOutput, alarm,
                                            alarm.releaseFn);
    received<Kel_sys_diag_OvLoadDiskCtlOutput_pack>(
        "OvLoadDiskCtlOutput", shape::ovLoadDiskCtlOutput, config, config.releaseFn);

    const IdlCodecOps brd = servedOpsOf<KelBrdPartInfoQuery_wrapper>();
    received<Kel_sys_diag_BrdPartInfoInput_pack>("BrdPartInfoInput", shape::brdPartInfoInput, brd);
    sent<Kel_sys_diag_BrdPartInfo_unpack, Kel_sys_diag_BrdPartInfo_free_unpacked>(
        "BrdPartInfo", shape::brdPartInfo, brd);
    const IdlCodecOps fd = servedOpsOf<FdProcInfoQuery_wrapper>();
    received<Kel_sys_diag_FdProcInfoInput_pack>("FdProcInfoInput", shape::fdProcInfoInput, fd);
    sent<Kel_sys_diag_FdProcInfoOutput_unpack, Kel_sys_diag_FdProcInfoOutput_free_unpacked>(
        "FdProcInfoOutput", shape::fdProcInfoOutput, fd);
    const IdlCodecOps threshold = servedOpsOf<KelSysOvLoadDiskThresholdSet_wrapper>();
    received<Kel_sys_diag_SysOvLoadDiskThreshold_pack>("SysOvLoadDiskThreshold",
                                                       shape::sysOvLoadDiskThreshold, threshold);
    sent<Kel_sys_diag_OperResult_unpack, Kel_sys_diag_OperResult_free_unpacked>(
        "OperResult", shape::operResult, threshold);
    const IdlCodecOps use = servedOpsOf<KelGetSysDiskUseInfo_wrapper>();
    received<Kel_sys_diag_SysDiskUseInput_pack>("SysDiskUseInput", shape::sysDiskUseInput, use);
    sent<Kel_sys_diag_SysDiskUseInfoResult_unpack, Kel_sys_diag_SysDiskUseInfoResult_free_unpacked>(
        "SysDiskUseInfoResult", shape::sysDiskUseInfoResult, use);
    const IdlCodecOps reset = servedOpsOf<KelResetDiskMakeFS_wrapper>();
    received<Kel_sys_diag_ResetDiskCondition_pack>("ResetDiskCondition", shape::sysDiskUseInput,
                                                   reset);
    sent<Kel_sys_diag_ResetDiskResult_unpack, Kel_sys_diag_ResetDiskResult_free_unpacked>(
        "ResetDiskResult", shape::operResult, reset);
    const IdlCodecOps mount = servedOpsOf<KelMountDisk_wrapper>();
    received<Kel_sys_diag_MountDiskInput_pack>("MountDiskInput", shape::sysDiskUseInput, mount);
    sent<Kel_sys_diag_MountDiskResult_unpack, Kel_sys_diag_MountDiskResult_free_unpacked>(
        "MountDiskResult", shape::operResult, mount);
    const IdlCodecOps erase = servedOpsOf<KelQueryStorageEraseInfo_wrapper>();
    received<Kel_sys_diag_StorageEraseInfoInput_pack>("StorageEraseInfoInput",
                                                      shape::storageEraseInfoInput, erase);
    sent<Kel_sys_diag_StorageEraseInfo_unpack, Kel_sys_diag_StorageEraseInfo_free_unpacked>(
        "StorageEraseInfo", shape::storageEraseInfo, erase);
    const IdlCodecOps bad = servedOpsOf<KelQueryStorageBadBlockInfo_wrapper>();
    received<Kel_sys_diag_StorageBadBlockInfoInput_pack>("StorageBadBlockInfoInput",
                                                         shape::storageBadBlockInfoInput, bad);
    sent<Kel_sys_diag_StorageBadBlockInfo_unpack, Kel_sys_diag_StorageBadBlockInfo_free_unpacked>(
        "StorageBadBlockInfo", shape::storageBadBlockInfo, bad);
  }

  [[nodiscard]] std::span<const Message> messages() const { return messages_; }

 private:
  template <auto Unpack, auto Release>
  void sent(const char* name, const Shape& shape, const IdlCodecOps& ops) {
    messages_.push_back({name, &shape, Side::peer, unpackBy<Unpack>, releaseBy<Release>, ops.packFn,
                         ops.fixedPackFn, ops.fixedSizeFn});
  }
  template <auto Pack>
  void received(const char* name, const Shape& shape, const IdlCodecOps& ops,
                IdlReleaseFn release = nullptr) {
    messages_.push_back(
        {name, &shape, Side::library, ops.unpackFn, release, packBy<Pack>, nullptr, nullptr});
  }

  std::vector<Message> messages_;
};

}  // namespace

std::span<const Message> allMessages() {
  static const Catalogue catalogue;
  return catalogue.messages();
}

}  // namespace kel::fuzz
