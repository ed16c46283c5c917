// Local time in the records' nested form. For whoever fills records.
#pragma once

#include <kel_sys_diag/records.h>
#include <sys/time.h>

namespace kel::host {

DiagSubRecord calendarTime(const timeval& time);

}  // namespace kel::host
