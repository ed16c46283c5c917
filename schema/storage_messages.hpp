// The requests and replies of KelQueryStorageEraseInfo and KelQueryStorageBadBlockInfo.
// For the units and service/.
#pragma once

#include <kel_sys_diag/records.h>

#include "schema/package.hpp"

template <>
struct korva::Schema<StorageEraseInfoInput> : korva::Slots<&StorageEraseInfoInput::value1> {};

template <>
struct korva::Schema<StorageEraseEntry>
    : korva::Slots<&StorageEraseEntry::value1, &StorageEraseEntry::value2> {};

template <>
struct korva::Schema<StorageEraseInfo>
    : korva::Slots<korva::vectorOf<&StorageEraseInfo::entryCount, &StorageEraseInfo::entries>> {};

template <>
struct korva::Schema<StorageBadBlockInfoInput> : korva::Slots<&StorageBadBlockInfoInput::bytes32> {
};

template <>
struct korva::Schema<StorageBadBlockEntry>
    : korva::Slots<&StorageBadBlockEntry::bytes32, &StorageBadBlockEntry::value1> {};

template <>
struct korva::Schema<StorageBadBlockInfo>
    : korva::Slots<
          korva::vectorOf<&StorageBadBlockInfo::entryCount, &StorageBadBlockInfo::entries>> {};

namespace kel::message {

using StorageEraseInfoInput = Message<"StorageEraseInfoInput", ::StorageEraseInfoInput>;
using StorageEraseInfo = Message<"StorageEraseInfo", ::StorageEraseInfo>;
using StorageBadBlockInfoInput = Message<"StorageBadBlockInfoInput", ::StorageBadBlockInfoInput>;
using StorageBadBlockInfo = Message<"StorageBadBlockInfo", ::StorageBadBlockInfo>;

}  // namespace kel::message
