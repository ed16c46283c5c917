// Chooses the entries' allocator once, by the rule that the library follows.
#include "host/reply_memory.hpp"

#include <dlfcn.h>
#include <kel_sys_diag/osal.h>

#include <cstdlib>
#include <new>

namespace kel::host {
namespace {

constexpr uint32_t kModule = 12;  // as the codecs call

struct Allocator {
  KorvaAllocFn allocate = nullptr;  // both, or neither
  KorvaFreeFn release = nullptr;
};

template <class Function>
Function find(const char* name) {
  return reinterpret_cast<Function>(dlsym(RTLD_DEFAULT, name));
}

const Allocator& allocator() {
  static const Allocator chosen = [] {
    const auto wanted = find<uint32_t (*)(uint32_t)>("QSV_OsalMemUseFlagGet");
    const Allocator offered = {find<KorvaAllocFn>("QSV_OsalMemCacheAlloc"),
                               find<KorvaFreeFn>("QSV_OsalMemFree")};
    const bool complete = offered.allocate != nullptr && offered.release != nullptr;
    return complete && wanted != nullptr && wanted(kModule) == 1 ? offered : Allocator{};
  }();
  return chosen;
}

}  // namespace

void* allocateEntries(uint32_t size, const char* caller) {
  const Allocator& from = allocator();
  void* const entries =
      from.allocate == nullptr ? std::malloc(size) : from.allocate(size, kModule, caller);
  if (entries == nullptr) {
    throw std::bad_alloc();
  }
  return entries;
}

void releaseEntries(void* entries, const char* caller) {
  const Allocator& to = allocator();
  if (to.release == nullptr) {
    std::free(entries);
  } else {
    to.release(entries, kModule, caller);
  }
}

}  // namespace kel::host
