// The public headers in C++11, the oldest that a host may be written in: they compile without a
// warning.
#include <kel_sys_diag/client.h>
#include <kel_sys_diag/osal.h>
#include <kel_sys_diag/peer.h>
#include <kel_sys_diag/records.h>
#include <kel_sys_diag/rpc.h>
#include <kel_sys_diag/service.h>

static_assert(__cplusplus == 201103L, "a newer language would take more");
