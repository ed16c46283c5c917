// KelGetSysDiskUseInfo's request and reply.
// For the units and service/.
#pragma once

#include <kel_sys_diag/records.h>

#include "schema/package.hpp"

template <>
struct korva::Schema<SysDiskUseInput> : korva::Slots<&SysDiskUseInput::bytes50> {};

template <>
struct korva::Schema<SysDiskUseInfoResult>
    : korva::Slots<&SysDiskUseInfoResult::bytes50a, &SysDiskUseInfoResult::bytes50b,
                   &SysDiskUseInfoResult::value1, &SysDiskUseInfoResult::value2,
                   &SysDiskUseInfoResult::value3, &SysDiskUseInfoResult::bytes32,
                   &SysDiskUseInfoResult::value4, &SysDiskUseInfoResult::value5> {};

namespace kel::message {

using SysDiskUseInput = Message<"SysDiskUseInput", ::SysDiskUseInput>;
using SysDiskUseInfoResult =
    Message<"SysDiskUseInfoResult", ::SysDiskUseInfoResult, korva::Layouts::compactAndFixed>;

}  // namespace kel::message
