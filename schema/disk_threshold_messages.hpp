// KelSysOvLoadDiskThresholdSet's request and reply.
// For the units and service/.
#pragma once

#include <kel_sys_diag/records.h>

#include "schema/package.hpp"

template <>
struct korva::Schema<SysOvLoadDiskThreshold>
    : korva::Slots<&SysOvLoadDiskThreshold::bytes50, &SysOvLoadDiskThreshold::value1> {};

template <>
struct korva::Schema<OperResult> : korva::Slots<&OperResult::result> {};

namespace kel::message {

using SysOvLoadDiskThreshold = Message<"SysOvLoadDiskThreshold", ::SysOvLoadDiskThreshold>;
using OperResult = Message<"OperResult", ::OperResult, korva::Layouts::compactAndFixed>;

}  // namespace kel::message
