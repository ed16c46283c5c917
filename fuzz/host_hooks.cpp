// The accounting OS layer.
#include "fuzz/host_hooks.hpp"

#include <cstdarg>
#include <cstdlib>
#include <cstring>

namespace kel::fuzz {
HostHooks host;
}  // namespace kel::fuzz

using kel::fuzz::host;

uint32_t QSV_OsalMemUseFlagGet(uint32_t moduleNumber) { return moduleNumber == 12 ? 1 : 0; }

void* QSV_OsalMemCacheAlloc(uint32_t size, uint32_t, const char*) {
  ++host.requests;
  host.requested += size;
  if (host.refuseAllocations) return nullptr;
  ++host.blocks;
  return std::malloc(size);
}

int32_t QSV_OsalMemFree(void* block, uint32_t, const char* caller) {
  ++host.releases;
  host.releaser = caller;
  if (block != nullptr) --host.blocks;
  std::free(block);
  return 0;
}

int32_t QSV_OsalLogWrite(const KorvaLogDescriptor* descriptor, uint32_t, uint32_t code, const char*,
                         uint32_t, const char* function, const char* format, ...) {
  ++host.logLines;
  host.logDescriptor = descriptor;
  host.logCode = code;
  host.logFunction = function;
  host.logFormat = format;
  if (std::strstr(format, "%s") == nullptr) {
    va_list arguments;
    va_start(arguments, format);
    for (uint32_t& number : host.logNumbers) {
      number = va_arg(arguments, uint32_t);
      if (code == 12) break;  // a failed allocation has one number
    }
    va_end(arguments);
  }
  return 0;
}
