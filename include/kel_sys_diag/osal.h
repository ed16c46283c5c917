/* The optional OS layer of a host: a logger and a memory-cache allocator for the codecs.
 * For host authors; clean in C11 and C++11.
 *
 * The library is not linked against any of these functions. It looks up each one by name, at most
 * once per unit (client messages, served messages, peer library), and works without those that it
 * does not find. It looks in the process's global symbol scope. If a dlopen has loaded it, it also
 * looks in the objects that this dlopen has loaded, or a later one of something that needs it. So a
 * host that offers one of the functions must define it with default visibility, in the executable
 * (linked with -rdynamic) or in a library of global scope, before its first codec call. Since
 * nothing refers to it, a linker takes it from a static library only if told to
 * (-Wl,-u,QSV_OsalLogWrite and so on). The choice holds until the library is unloaded; loaded
 * again, it chooses anew, so release every record before you unload it. A look-up that finds
 * nothing replaces the error that dlerror would have returned.
 *
 * All must be thread-safe, and no exception or longjmp may leave them. The library holds none of
 * its locks while it calls them, except the flag function. The strings that they are given stay
 * valid as long as the library is loaded.
 *
 * The memory functions are looked up in a unit's first call that packs, unpacks, or releases a
 * record with pointers, unless its arguments are refused (a capacity of 4 or more that is too small
 * is refused only after the look-up) or, for a record without pointers, the header of its message.
 * The logger is looked up in the first call that writes a line, however late. A look-up holds a
 * lock of the library and waits for the loader's lock, which dlopen holds while it runs
 * constructors, and dlclose while it runs destructors. So no constructor or destructor may make a
 * codec call while another thread may be in a look-up: both would wait forever. A host that makes
 * such calls has to complete both look-ups of each unit before it starts threads: releaseFn(NULL)
 * of a message with pointers looks up the memory functions, and unpackFn(NULL, 0, NULL) the logger,
 * for the line that it writes. For served messages these are in the IdlCodecOps that a wrapper
 * fills. In the same way, a child that is forked during a look-up waits forever in its own. */
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

/* Writes one log line. A codec writes one when it refuses its arguments or a message's header, and
 * when an allocation fails. It writes none when a field behind the header is malformed, or when
 * packFn without a target returns 0: there the result alone tells. level is always 2; code is 22
 * (bad argument or malformed header) or 12 (failed allocation); file is ""; line has no meaning;
 * function is the codec's name, to which an unpacker whose record owns memory appends "_non_root"
 * once its arguments are checked; format and what follows are printf's. The result is ignored. */
typedef int32_t (*KorvaLogFn)(const KorvaLogDescriptor* descriptor, uint32_t level, uint32_t code,
                              const char* file, uint32_t line, const char* function,
                              const char* format, ...) __attribute__((format(printf, 7, 8)));

/* Returns size bytes aligned for any type, or null. moduleNumber is always 12; caller is the name
 * of the codec that asks, as log lines have it. */
typedef void* (*KorvaAllocFn)(uint32_t size, uint32_t moduleNumber, const char* caller);

/* Frees a block of the KorvaAllocFn that pairs with it; must accept null. caller is the name of the
 * release routine, also when an unpacker that fails frees what it had allocated. The result is
 * ignored. */
typedef int32_t (*KorvaFreeFn)(void* block, uint32_t moduleNumber, const char* caller);

#pragma GCC visibility push(default)

/* The logger. Absent: the codecs' log lines are dropped and nothing else changes. */
int32_t QSV_OsalLogWrite(const KorvaLogDescriptor* descriptor, uint32_t level, uint32_t code,
                         const char* file, uint32_t line, const char* function, const char* format,
                         ...) __attribute__((format(printf, 7, 8)));

/* Called with 12, under a lock: it must not call codecs, nor wait for a lock that is held elsewhere
 * during a codec call, and its thread must not be cancelled in it. With a result of exactly 1 the
 * codecs use the two functions below, if both are found; otherwise they use malloc and free. */
uint32_t QSV_OsalMemUseFlagGet(uint32_t moduleNumber);
void* QSV_OsalMemCacheAlloc(uint32_t size, uint32_t moduleNumber, const char* caller);
int32_t QSV_OsalMemFree(void* block, uint32_t moduleNumber, const char* caller);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
