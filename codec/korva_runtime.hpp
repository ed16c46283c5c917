// The codecs' per-unit runtime: the log and allocator hooks, found by name once and then fixed.
// For the codecs; a unit is a set of messages that share one CodecRuntime record.
#pragma once

#include <kel_sys_diag/osal.h>
#include <pthread.h>

#include <cerrno>
#include <cstdint>

namespace korva {

// This module's number in every allocation and release.
inline constexpr uint32_t kModuleNumber = 12;

// The level of every log line, and the codes.
inline constexpr uint32_t kLogLevel = 2;
inline constexpr uint32_t kInvalid = EINVAL;
inline constexpr uint32_t kNoMemory = ENOMEM;

// The allocator hooks of a process that offers none of its own: malloc and free.
void* KorvaDefaultAlloc(uint32_t size, uint32_t moduleNumber, const char* caller);
int32_t KorvaDefaultFree(void* block, uint32_t moduleNumber, const char* caller);

// Constant-initialised, one static record a unit, never destroyed. A hook may be read without a
// lock by a thread that has seen its flag set.
struct CodecRuntime {
  KorvaLogDescriptor logDescriptor{"KORVA", "KORVA_TEMBRIX_SERIAL", 0x6200};
  pthread_mutex_t logMutex = PTHREAD_MUTEX_INITIALIZER;
  KorvaLogFn logWrite = nullptr;
  uint32_t logReady = 0;
  pthread_mutex_t memMutex = PTHREAD_MUTEX_INITIALIZER;
  uint32_t memReady = 0;
  KorvaAllocFn codecAlloc = KorvaDefaultAlloc;
  KorvaFreeFn codecFree = KorvaDefaultFree;
};

// The flags are published with release order after the hooks, so that whoever sees one set also
// sees the hooks; from then on the set-ups cost this one read.
[[gnu::always_inline]] inline bool isReady(const uint32_t& flag) {
  return __atomic_load_n(&flag, __ATOMIC_ACQUIRE) != 0;
}

// Makes codecAlloc and codecFree final, once.
[[gnu::cold]] void KorvaMemInit(CodecRuntime& runtime);

// Does so for a routine that has found the hooks not set up, and then calls that routine.
template <class Routine, class... Arguments>
[[gnu::cold, gnu::noinline]] auto setUpAnd(CodecRuntime& runtime, Routine* routine,
                                           Arguments... arguments) {
  KorvaMemInit(runtime);
  return routine(arguments...);
}

// Makes logWrite final, once.
[[gnu::cold]] void KorvaLogInit(CodecRuntime& runtime);

// Writes one line through the unit's log hook, if the process has one.
template <class... Arguments>
[[gnu::cold, gnu::noinline]] void korvaLog(CodecRuntime& runtime, uint32_t code,
                                           const char* function, const char* format,
                                           Arguments... arguments) {
  if (!isReady(runtime.logReady)) {
    KorvaLogInit(runtime);
  }
  if (runtime.logWrite != nullptr) {
    runtime.logWrite(&runtime.logDescriptor, kLogLevel, code, "", 0, function, format,
                     arguments...);
  }
}

// How log lines print a pointer argument.
constexpr const char* nullness(const void* pointer) {
  return pointer == nullptr ? "null" : "nonNull";
}

}  // namespace korva
