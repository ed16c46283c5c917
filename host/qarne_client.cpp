// Binds KelSysdiagQarne's methods to the peer library's codecs.
#include "host/qarne_client.hpp"

#include <kel_sys_diag/rpc.h>

namespace kel::host {
namespace {

constexpr char kService[] = "KelSysdiagQarne";

// The codecs with their records' types taken off, as the slots have them.
template <auto kPack>
struct PackSlot;
template <class Record, uint32_t (*kPack)(const PackTarget*, const Record*)>
struct PackSlot<kPack> {
  static uint32_t call(const PackTarget* target, const void* record) {
    return kPack(target, static_cast<const Record*>(record));
  }
};

template <auto kUnpack>
struct UnpackSlot;
template <class Record, uintptr_t (*kUnpack)(const void*, uint32_t, Record*)>
struct UnpackSlot<kUnpack> {
  static uintptr_t call(const void* bytes, uint32_t length, void* record) {
    return kUnpack(bytes, length, static_cast<Record*>(record));
  }
};

template <auto kRelease>
struct ReleaseSlot;
template <class Record, void (*kRelease)(Record*)>
struct ReleaseSlot<kRelease> {
  static void call(void* record) { kRelease(static_cast<Record*>(record)); }
};

template <auto kPack, auto kUnpack, auto kRelease>
constexpr IdlCodecOps codecs() {
  return {UnpackSlot<kUnpack>::call,
          PackSlot<kPack>::call,
          ReleaseSlot<kRelease>::call,
          nullptr,
          nullptr,
          nullptr};
}

}  // namespace

constinit const QarneMethod<NoFields, BrdPartInfo> kBrdPartInfoQuery = {
    "KelBrdPartInfoQuery",
    codecs<Kel_sys_diag_BrdPartInfoInput_pack, Kel_sys_diag_BrdPartInfo_unpack,
           Kel_sys_diag_BrdPartInfo_free_unpacked>()};
constinit const QarneMethod<FdProcInfoInput, FdProcInfoOutput> kFdProcInfoQuery = {
    "FdProcInfoQuery",
    codecs<Kel_sys_diag_FdProcInfoInput_pack, Kel_sys_diag_FdProcInfoOutput_unpack,
           Kel_sys_diag_FdProcInfoOutput_free_unpacked>()};
constinit const QarneMethod<SysOvLoadDiskThreshold, OperResult> kSysOvLoadDiskThresholdSet = {
    "KelSysOvLoadDiskThresholdSet",
    codecs<Kel_sys_diag_SysOvLoadDiskThreshold_pack, Kel_sys_diag_OperResult_unpack,
           Kel_sys_diag_OperResult_free_unpacked>()};
constinit const QarneMethod<SysDiskUseInput, SysDiskUseInfoResult> kGetSysDiskUseInfo = {
    "KelGetSysDiskUseInfo",
    codecs<Kel_sys_diag_SysDiskUseInput_pack, Kel_sys_diag_SysDiskUseInfoResult_unpack,
           Kel_sys_diag_SysDiskUseInfoResult_free_unpacked>()};
constinit const QarneMethod<ResetDiskCondition, ResetDiskResult> kResetDiskMakeFS = {
    "KelResetDiskMakeFS",
    codecs<Kel_sys_diag_ResetDiskCondition_pack, Kel_sys_diag_ResetDiskResult_unpack,
           Kel_sys_diag_ResetDiskResult_free_unpacked>()};
constinit const QarneMethod<MountDiskInput, MountDiskResult> kMountDisk = {
    "KelMountDisk", codecs<Kel_sys_diag_MountDiskInput_pack, Kel_sys_diag_MountDiskResult_unpack,
                           Kel_sys_diag_MountDiskResult_free_unpacked>()};
constinit const QarneMethod<StorageEraseInfoInput, StorageEraseInfo> kQueryStorageEraseInfo = {
    "KelQueryStorageEraseInfo",
    codecs<Kel_sys_diag_StorageEraseInfoInput_pack, Kel_sys_diag_StorageEraseInfo_unpack,
           Kel_sys_diag_StorageEraseInfo_free_unpacked>()};
constinit const QarneMethod<StorageBadBlockInfoInput, StorageBadBlockInfo>
    kQueryStorageBadBlockInfo = {
        "KelQueryStorageBadBlockInfo",
        codecs<Kel_sys_diag_StorageBadBlockInfoInput_pack, Kel_sys_diag_StorageBadBlockInfo_unpack,
               Kel_sys_diag_StorageBadBlockInfo_free_unpacked>()};

QarneClient::QarneClient(const std::string& target, uint32_t deadlineMs) : deadlineMs_(deadlineMs) {
  setTarget(address_, target);
  address_.serviceName = kService;
}

int32_t QarneClient::exchange(const char* method, const IdlCodecOps& ops, const void* input,
                              void* output) const {
  RpcServerAddr address = address_;
  const IdlMethodRef reference{kService, method};
  return RPC_IdlSyncCallStub(RPC_GetRpcInvoke(&address, deadlineMs_), input, output, &reference,
                             &ops);
}

}  // namespace kel::host
