// KelBrdPartInfoQuery's request, which has no fields, and its reply.
// For the units and service/.
#pragma once

#include <kel_sys_diag/records.h>

#include "schema/package.hpp"

// C has no empty records, so the public headers cannot hold this one.
struct BrdPartInfoInput {};

template <>
struct korva::Schema<BrdPartInfoInput> : korva::Slots<> {};

template <>
struct korva::Schema<BrdPartEntry>
    : korva::Slots<&BrdPartEntry::bytes50a, &BrdPartEntry::bytes50b, &BrdPartEntry::bytes32,
                   &BrdPartEntry::value1, &BrdPartEntry::value2, &BrdPartEntry::value3,
                   &BrdPartEntry::value4, &BrdPartEntry::bytes64> {};

template <>
struct korva::Schema<BrdPartInfo>
    : korva::Slots<korva::vectorOf<&BrdPartInfo::entryCount, &BrdPartInfo::entries>> {};

namespace kel::message {

using BrdPartInfoInput = Message<"BrdPartInfoInput", ::BrdPartInfoInput>;
using BrdPartInfo = Message<"BrdPartInfo", ::BrdPartInfo>;

}  // namespace kel::message
