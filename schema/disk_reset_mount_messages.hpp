// The requests and replies of KelResetDiskMakeFS and KelMountDisk: four messages in two shapes that
// other messages have already.
// For the units and service/.
#pragma once

#include <kel_sys_diag/records.h>

#include "schema/disk_threshold_messages.hpp"
#include "schema/disk_use_messages.hpp"
#include "schema/package.hpp"

namespace kel::message {

using ResetDiskCondition = Message<"ResetDiskCondition", ::ResetDiskCondition>;
using ResetDiskResult =
    Message<"ResetDiskResult", ::ResetDiskResult, korva::Layouts::compactAndFixed>;
using MountDiskInput = Message<"MountDiskInput", ::MountDiskInput>;
using MountDiskResult =
    Message<"MountDiskResult", ::MountDiskResult, korva::Layouts::compactAndFixed>;

}  // namespace kel::message
