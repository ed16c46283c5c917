// The served messages' replies in words and tables; docs/fields.md is the table behind them. Every
// text ends with a newline. For kel_query and tests.
#pragma once

#include <kel_sys_diag/records.h>

#include <cstddef>
#include <string>

namespace kel::host {

// Lists show so many entries and count the rest.
std::string tell(const BrdPartInfo& reply, size_t limit);
std::string tell(const FdProcInfoOutput& reply, size_t limit);
std::string tell(const StorageEraseInfo& reply, size_t limit);
std::string tell(const StorageBadBlockInfo& reply, size_t limit);

std::string tell(const OperResult& reply);  // also those of the other methods of this form
std::string tell(const SysDiskUseInfoResult& reply);

}  // namespace kel::host
