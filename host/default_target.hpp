// Where master and host meet unless they are told otherwise. For both programs.
#pragma once

namespace kel::host {

inline constexpr char kDefaultTarget[] = "unix:/tmp/kel_sys_diag_master.sock";

}  // namespace kel::host
