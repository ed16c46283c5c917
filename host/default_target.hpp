// Where the programs meet unless they are told otherwise. For all of them.
#pragma once

namespace kel::host {

inline constexpr char kDefaultTarget[] = "unix:/tmp/kel_sys_diag_master.sock";
inline constexpr char kDefaultQarneTarget[] = "unix:/tmp/kel_sys_diag_qarne.sock";

}  // namespace kel::host
