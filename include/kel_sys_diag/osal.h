/* The optional OS layer of a host: a logger and a memory-cache allocator for the codecs.
 * For host authors; clean in C11 and C++11.
 *
 * None of these functions is linked. The library looks each one up by name, in the process's global
 * symbol scope and, unless the library was there when the program started, among what the dlopen
 * that brought it, or a later one of what needs it, has loaded; at most once per unit (client
 * messages, served messages, peer library). It works without any that it does not find. So a host
 * that offers one must define it with default visibility, in the executable (linked with -rdynamic)
 * or in a library of global scope, before its first codec call. Since nothing refers to it, a
 * linker takes it from a static library only if told to (-Wl,-u,QSV_OsalLogWrite and so on). The
 * choice holds until the library is unloaded; loaded again, it chooses anew, so release every
 * record before. A look-up that finds nothing takes the place of what dlerror had to tell.
 *
 * All must be thread-safe, and no exception or jump may leave them. None is called with a lock of
 * the library held, but for the flag function. The strings that they are given last as long as the
 * library is loaded.
 *
 * The memory functions are looked up in a unit's first call that packs, unpacks, or releases a
 * record with pointers, unless its arguments are refused (a packer refuses a capacity of 4 and more
 * that is too small only later) or, for a record without pointers, the header of its message; the
 * logger in the first one that writes a line, however late. Both happen under a lock of the
 * library, and looking up waits for the loader's, which dlopen holds while it runs constructors,
 * and dlclose while it runs destructors. So none of these may make a codec call while another
 * thread may be in a look-up: both would wait for good. A host with such calls has both look-ups of
 * each unit behind it before it starts threads: releaseFn(NULL) of a message with pointers looks up
 * the memory functions, unpackFn(NULL, 0, NULL) the logger, for the line that it writes; for served
 * messages these are in the IdlCodecOps that a wrapper fills. A child that is forked during a
 * look-up waits so in its own. */
#ifndef KEL_SYS_DIAG_OSAL_H
#define KEL_SYS_DIAG_OSAL_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Identifies the codecs to the logger. Static; the same address for every line of one unit. */
typedef struct KorvaLogDescriptor {
  const char* module;
  const char* subModule;
  uint32_t moduleId;
} KorvaLogDescriptor;

/* Writes one log line. There is one when a codec refuses its arguments or a message's header, and
 * when an allocation fails; a field that does not fit its message is refused without one, and a
 * size of 0 in the size pass as well: there the result alone tells. level is always 2; code is 22
 * (bad argument or malformed buffer) or 12 (failed allocation); file is ""; line carries no
 * meaning; function is the codec's name, to which an unpacker whose record owns memory appends
 * "_non_root" once it has checked the arguments; format and what follows are printf's. The result
 * is ignored. */
typedef int32_t (*KorvaLogFn)(const KorvaLogDescriptor* descriptor, uint32_t level, uint32_t code,
                              const char* file, uint32_t line, const char* function,
                              const char* format, ...) __attribute__((format(printf, 7, 8)));

/* Returns size bytes aligned for any type, or null. moduleNumber is always 12; caller is the name
 * of the codec that asks, as log lines have it. */
typedef void* (*KorvaAllocFn)(uint32_t size, uint32_t moduleNumber, const char* caller);

/* Takes back a block of the KorvaAllocFn that pairs with it; must accept null. caller is the name
 * of the release routine, also where an unpacker that fails gives back what it had. The result is
 * ignored. */
typedef int32_t (*KorvaFreeFn)(void* block, uint32_t moduleNumber, const char* caller);

#pragma GCC visibility push(default)

/* The logger. Absent: the codecs' log lines are dropped and nothing else changes. */
int32_t QSV_OsalLogWrite(const KorvaLogDescriptor* descriptor, uint32_t level, uint32_t code,
                         const char* file, uint32_t line, const char* function, const char* format,
                         ...) __attribute__((format(printf, 7, 8)));

/* Called with 12, under a lock: it must not call codecs, nor wait for a lock that is held elsewhere
 * during a codec call, and its thread must not be cancelled in it. A result of exactly 1 asks the
 * codecs to use the two functions below, which then serve only as a pair; anything else, or a
 * missing function, leaves them with malloc and free. */
uint32_t QSV_OsalMemUseFlagGet(uint32_t moduleNumber);
void* QSV_OsalMemCacheAlloc(uint32_t size, uint32_t moduleNumber, const char* caller);
int32_t QSV_OsalMemFree(void* block, uint32_t moduleNumber, const char* caller);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
