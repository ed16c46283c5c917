// KelSysdiagQarne's tables. The library never changes them; they are writable since the framework
// takes them by pointers that are not const. Exported; kel_sys_diag/service.h documents them.
#include <kel_sys_diag/service.h>

#include <iterator>
#include <string_view>

#include "schema/brd_part_info_messages.hpp"
#include "schema/disk_reset_mount_messages.hpp"
#include "schema/disk_threshold_messages.hpp"
#include "schema/disk_use_messages.hpp"
#include "schema/fd_proc_info_messages.hpp"
#include "schema/storage_messages.hpp"

namespace {

namespace message = kel::message;

constexpr uint32_t kSentinelMarker = 0xFFFFFFFF;

struct MethodDescription {
  std::string_view name;
  IdlWrapperFn wrapper;
  uint32_t inputId;
  uint32_t outputId;
};

template <class Input, class Output>
consteval MethodDescription describe(std::string_view name, IdlWrapperFn wrapper) {
  return {name, wrapper, kel::messageId<Input>(), kel::messageId<Output>()};
}

constexpr MethodDescription kMethods[] = {
    describe<message::BrdPartInfoInput, message::BrdPartInfo>("KelBrdPartInfoQuery",
                                                              KelBrdPartInfoQuery_wrapper),
    describe<message::FdProcInfoInput, message::FdProcInfoOutput>("FdProcInfoQuery",
                                                                  FdProcInfoQuery_wrapper),
    describe<message::SysOvLoadDiskThreshold, message::OperResult>(
        "KelSysOvLoadDiskThresholdSet", KelSysOvLoadDiskThresholdSet_wrapper),
    describe<message::SysDiskUseInput, message::SysDiskUseInfoResult>("KelGetSysDiskUseInfo",
                                                                      KelGetSysDiskUseInfo_wrapper),
    describe<message::ResetDiskCondition, message::ResetDiskResult>("KelResetDiskMakeFS",
                                                                    KelResetDiskMakeFS_wrapper),
    describe<message::MountDiskInput, message::MountDiskResult>("KelMountDisk",
                                                                KelMountDisk_wrapper),
    describe<message::StorageEraseInfoInput, message::StorageEraseInfo>(
        "KelQueryStorageEraseInfo", KelQueryStorageEraseInfo_wrapper),
    describe<message::StorageBadBlockInfoInput, message::StorageBadBlockInfo>(
        "KelQueryStorageBadBlockInfo", KelQueryStorageBadBlockInfo_wrapper),
};

consteval IdlIntfEntry interfaceEntry(size_t method) {
  IdlIntfEntry entry{};
  entry.wrapper = kMethods[method].wrapper;
  entry.inputMsgId = kMethods[method].inputId;
  kMethods[method].name.copy(entry.methodName, sizeof entry.methodName - 1);
  return entry;
}

consteval IdlMsgDesc inputMessage(size_t method) { return {kMethods[method].inputId, {}}; }
consteval IdlMsgDesc outputMessage(size_t method) { return {kMethods[method].outputId, {}}; }

}  // namespace

constinit IdlIntfEntry intf_tbl_KelSysdiagQarne[] = {
    {kSentinelMarker, 0, nullptr, 0, 0, {}},
    interfaceEntry(0),
    interfaceEntry(1),
    interfaceEntry(2),
    interfaceEntry(3),
    interfaceEntry(4),
    interfaceEntry(5),
    interfaceEntry(6),
    interfaceEntry(7),
};

constinit IdlMsgDesc msgdesc_tbl_KelSysdiagQarne[] = {
    {0, {}},          inputMessage(0),  outputMessage(0), inputMessage(1),  outputMessage(1),
    inputMessage(2),  outputMessage(2), inputMessage(3),  outputMessage(3), inputMessage(4),
    outputMessage(4), inputMessage(5),  outputMessage(5), inputMessage(6),  outputMessage(6),
    inputMessage(7),  outputMessage(7),
};

constinit IdlModuleSpec __module_spec_KelSysdiagQarne = {
    "KelSysdiagQarne",
    std::size(intf_tbl_KelSysdiagQarne),
    std::size(msgdesc_tbl_KelSysdiagQarne),
    intf_tbl_KelSysdiagQarne,
    msgdesc_tbl_KelSysdiagQarne,
    {},
};
