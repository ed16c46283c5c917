// The nested record that the overload alarms and FdProcInfoQuery's entries share. For the headers
// of those messages.
#pragma once

#include <kel_sys_diag/records.h>

#include "codec/korva_schema.hpp"

template <>
struct korva::Schema<DiagSubRecord>
    : korva::Slots<&DiagSubRecord::value16, &DiagSubRecord::byte1, &DiagSubRecord::byte2,
                   &DiagSubRecord::byte3, &DiagSubRecord::byte4, &DiagSubRecord::byte5,
                   &DiagSubRecord::byte6, &DiagSubRecord::value32> {};
