// FdProcInfoQuery's request and reply.
// For the units and service/.
#pragma once

#include <kel_sys_diag/records.h>

#include "schema/diag_sub_record.hpp"
#include "schema/package.hpp"

template <>
struct korva::Schema<FdProcInfoInput>
    : korva::Slots<&FdProcInfoInput::value1, &FdProcInfoInput::value2> {};

template <>
struct korva::Schema<FdProcEntry>
    : korva::Slots<&FdProcEntry::value1, &FdProcEntry::value2, &FdProcEntry::sub1,
                   &FdProcEntry::sub2, &FdProcEntry::sub3, &FdProcEntry::bytes256> {};

template <>
struct korva::Schema<FdProcInfoOutput>
    : korva::Slots<korva::vectorOf<&FdProcInfoOutput::entryCount, &FdProcInfoOutput::entries>> {};

namespace kel::message {

using FdProcInfoInput = Message<"FdProcInfoInput", ::FdProcInfoInput>;
using FdProcInfoOutput = Message<"FdProcInfoOutput", ::FdProcInfoOutput>;

}  // namespace kel::message
