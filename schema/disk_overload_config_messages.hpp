// KelGetDiskOvLoadCfgInfo's request and reply. For the units.
#pragma once

#include <kel_sys_diag/records.h>

#include "schema/package.hpp"

template <>
struct korva::Schema<OvLoadDiskCtlInput>
    : korva::Slots<&OvLoadDiskCtlInput::bytes32a, &OvLoadDiskCtlInput::bytes32b,
                   &OvLoadDiskCtlInput::bytes50> {};

template <>
struct korva::Schema<OvLoadDiskCtlOutput>
    : korva::Slots<&OvLoadDiskCtlOutput::bytes32a, &OvLoadDiskCtlOutput::bytes32b,
                   &OvLoadDiskCtlOutput::value1, &OvLoadDiskCtlOutput::value2,
                   &OvLoadDiskCtlOutput::bytes50> {};

namespace kel::message {

using OvLoadDiskCtlInput =
    Message<"OvLoadDiskCtlInput", ::OvLoadDiskCtlInput, korva::Layouts::compactAndFixed>;
using OvLoadDiskCtlOutput = Message<"OvLoadDiskCtlOutput", ::OvLoadDiskCtlOutput>;

}  // namespace kel::message
