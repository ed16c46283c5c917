// The one-time set-ups of a unit's hooks.
#include "codec/korva_runtime.hpp"

#include <dlfcn.h>

#include <cstdlib>

namespace korva {
namespace {

template <class Function>
Function* lookUp(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_DEFAULT, name));
}

// Whether the platform wants its own cache allocator to serve this module.
bool platformServesMemory() {
  const auto flagGet = lookUp<decltype(QSV_OsalMemUseFlagGet)>("QSV_OsalMemUseFlagGet");
  return flagGet != nullptr && flagGet(kModuleNumber) == 1;
}

void chooseAllocator(CodecRuntime& runtime) {
  if (!platformServesMemory()) {
    return;
  }
  const auto alloc = lookUp<decltype(QSV_OsalMemCacheAlloc)>("QSV_OsalMemCacheAlloc");
  const auto release = lookUp<decltype(QSV_OsalMemFree)>("QSV_OsalMemFree");
  // Blocks must go back where they came from, so the hooks change together or not at all.
  if (alloc != nullptr && release != nullptr) {
    runtime.codecAlloc = alloc;
    runtime.codecFree = release;
  }
}

template <class SetUp>
void once(pthread_mutex_t& mutex, uint32_t& ready, const SetUp& setUp) {
  pthread_mutex_lock(&mutex);
  if (ready == 0) {
    setUp();
    __atomic_store_n(&ready, 1, __ATOMIC_RELEASE);
  }
  pthread_mutex_unlock(&mutex);
}

}  // namespace

void* KorvaDefaultAlloc(uint32_t size, uint32_t /*moduleNumber*/, const char* /*caller*/) {
  return std::malloc(size);
}

int32_t KorvaDefaultFree(void* block, uint32_t /*moduleNumber*/, const char* /*caller*/) {
  std::free(block);
  return 0;
}

void KorvaMemInit(CodecRuntime& runtime) {
  once(runtime.memMutex, runtime.memReady, [&] { chooseAllocator(runtime); });
}

void KorvaLogInit(CodecRuntime& runtime) {
  once(runtime.logMutex, runtime.logReady,
       [&] { runtime.logWrite = lookUp<decltype(QSV_OsalLogWrite)>("QSV_OsalLogWrite"); });
}

}  // namespace korva
