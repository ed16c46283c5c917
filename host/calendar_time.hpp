// Local time in the records' nested form. For whoever fills records or shows them.
#pragma once

#include <kel_sys_diag/records.h>
#include <sys/time.h>

#include <string>

namespace kel::host {

DiagSubRecord calendarTime(const timeval& time);

// To the second.
std::string calendarText(const DiagSubRecord& at);

}  // namespace kel::host
