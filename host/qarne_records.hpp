// What the served methods found out, in the records of their replies, as docs/fields.md has it.
// For qarne_methods.
#pragma once

#include <kel_sys_diag/records.h>

#include "host/block_devices.hpp"
#include "host/diagnostics.hpp"
#include "host/processes.hpp"

namespace kel::host {

BrdPartEntry recordOf(const BlockDevice& device);

FdProcEntry recordOf(const ProcessUse& use, const ProcessDetails& details, const timeval& counted);

SysDiskUseInfoResult recordOf(const Diagnostics::UseReport& report);

StorageEraseEntry recordOf(const Wear& wear);

StorageBadBlockEntry recordOf(const BadBlocks& badBlocks);

}  // namespace kel::host
