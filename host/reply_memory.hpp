// The memory of the replies' entries. It comes from and goes back to where the library's release
// routines would give it: the OS layer's allocator where the process offers one and wants it used,
// malloc and free otherwise. For qarne_methods.
#pragma once

#include <cstdint>

namespace kel::host {

// Aligned for any type. Throws std::bad_alloc. caller is static text.
void* allocateEntries(uint32_t size, const char* caller);

void releaseEntries(void* entries, const char* caller);  // null is allowed

}  // namespace kel::host
