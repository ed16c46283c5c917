/* What passes between libkel_sys_diag.so and the host's RPC framework.
 * For framework authors; clean in C11 and C++11.
 *
 * The library itself sends and receives nothing. For every call it gives the framework the method's
 * name and an IdlCodecOps, and the framework measures, encodes, decodes and releases messages
 * through its six slots. Every slot function may run on any thread, concurrently with any other, as
 * long as each call works on its own record and buffer, which must not overlap, and the library
 * stays loaded. Messages need no alignment; records need that of their types. No exception or
 * longjmp may leave a function of the framework. */
#ifndef KEL_SYS_DIAG_RPC_H
#define KEL_SYS_DIAG_RPC_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Where a packer writes. Both pointers belong to the caller; the packer only reads the capacity. */
typedef struct PackTarget {
  uint8_t* buffer;
  const uint32_t* capacity; /* bytes at buffer; never null */
} PackTarget;

/* Decodes length received bytes into record. They may lie at any address, in the compact or the
 * fixed layout or any other that the format allows. Every byte of the record is written, padding
 * included. What the record owned before is not freed: release it first. Returns record as an
 * integer. The record does not refer to bytes after the call.
 *
 * Returns 0 if bytes or record is null, length is below 4 or is 2^31 or more (though packFn can
 * write messages that long), the message is malformed, a list's array would take 2^32 bytes or
 * more, or an allocation fails. Then nothing that the unpacker allocated is left, and what the
 * record holds must not be used:
 *
 *   arguments refused          what it held before the call
 *   message's header refused   what it held before the call or, if it has pointers, all zeros
 *   anything deeper refused    fields that were read before, and zeros elsewhere; pointers are null
 *
 * The sender decides a message's length, and so which of these it is: after a 0, release the record
 * only if it was all zero before the call. */
typedef uintptr_t (*IdlUnpackFn)(const void* bytes, uint32_t length, void* record);

/* With a null target, returns the encoded size of record in bytes and touches nothing else (0 for a
 * null record or a size above 2^32 - 1; an encoding is never empty). With a target, writes the
 * encoding and returns the number of bytes written, the same as that size; returns 0, with the
 * buffer untouched, for a null buffer, a null record or a capacity below the size. */
typedef uint32_t (*IdlPackFn)(const PackTarget* target, const void* record);

/* Frees what the record owns and clears the pointers to it. Null is allowed. */
typedef void (*IdlReleaseFn)(void* record);

/* Writes the fixed layout of record into a buffer of at least fixedSizeFn() bytes; so many bytes
 * are the message. The fixed layout is faster than the compact one, which packFn writes, and never
 * smaller; a receiver takes either and need not be told which. Checks nothing; always returns 0.
 * Bytes that the layout does not use keep what the buffer held: clear it first if it may hold
 * something that the receiver must not see. */
typedef int32_t (*IdlFixedPackFn)(uint8_t* buffer, const void* record);

/* Returns the constant size in bytes of a message's fixed layout. */
typedef uint32_t (*IdlFixedSizeFn)(void);

/* A host function as the library sees it: an address. Its real signature is agreed between host and
 * framework. */
typedef void (*IdlHostFn)(void);

/* One method's codecs, as the side that holds the table needs them. unpackFn, packFn and releaseFn
 * are never null; fixedPackFn and fixedSizeFn are both set or both null, and null exactly when the
 * message that leaves this side holds a string or a vector. */
typedef struct IdlCodecOps {
  IdlUnpackFn unpackFn;       /* the message that arrives at this side */
  IdlPackFn packFn;           /* the message that leaves this side */
  IdlReleaseFn releaseFn;     /* the method's output message, on either side */
  IdlHostFn userFreeFn;       /* the host's <Method>_free; null on the client */
  IdlFixedPackFn fixedPackFn; /* the message that leaves this side, or null */
  IdlFixedSizeFn fixedSizeFn;
} IdlCodecOps;

/* Names a method. Both strings are static; the record itself lives only for the one call. */
typedef struct IdlMethodRef {
  const char* serviceName;
  const char* methodName;
} IdlMethodRef;

/* What an asynchronous call needs besides the input record. */
typedef struct IdlAsyncInfo {
  uint32_t inputSize;  /* bytes of the method's input record */
  uint32_t outputSize; /* bytes of the method's output record */
  uintptr_t userArg1;  /* the caller's values, unchanged */
  uintptr_t userArg2;
} IdlAsyncInfo;

/* What serves a method. The record that a wrapper hands over lives only for that call. */
typedef struct ServiceMethodBinding {
  IdlHostFn implementation; /* the host's <Method> */
  IdlHostFn hook;           /* the library's, one per method; does nothing, need not be called */
  uint64_t mode;            /* always 1 */
} ServiceMethodBinding;

/* A served method's entry point. Fills the six slots of ops, which the framework owns and which
 * must not be null, then calls RPC_IdlServiceWrapper with first, second and ops, and returns its
 * result. */
typedef int32_t (*IdlWrapperFn)(uintptr_t first, uintptr_t second, IdlCodecOps* ops);

/* One method of a served service. Entry 0 of a table stands for no method: its marker is 0xFFFFFFFF
 * and all else is zero. */
typedef struct IdlIntfEntry {
  uint32_t marker; /* 0 */
  uint32_t reserved1;
  IdlWrapperFn wrapper;
  /* 32-bit FNV-1a hash of "Kel_sys_diag." followed by the input message's name */
  uint32_t inputMsgId;
  uint32_t reserved2;
  char methodName[64]; /* NUL-padded */
} IdlIntfEntry;

/* One message of a served service: of the method in interface entry k, entry 2k - 1 is the input
 * message and entry 2k the output message. Entry 0 is all zero. */
typedef struct IdlMsgDesc {
  uint32_t msgId; /* made like IdlIntfEntry's inputMsgId */
  uint8_t reserved[12];
} IdlMsgDesc;

/* A served service. Both counts include the entry 0 of their tables. */
typedef struct IdlModuleSpec {
  char name[32]; /* NUL-padded */
  uint32_t intfCount;
  uint32_t msgDescCount;
  IdlIntfEntry* intfTable;
  IdlMsgDesc* msgDescTable;
  uint8_t reserved[64];
} IdlModuleSpec;

/* The address of a remote service. The library hands its address to RPC_GetRpcInvoke and touches
 * nothing in it; the host and the framework agree on what the endpoint bytes hold. */
typedef struct RpcServerAddr {
  uint8_t endpoint[96];    /* zero at load */
  const char* serviceName; /* set at load */
} RpcServerAddr;

/* Not by <assert.h>, which would replace an assert of the host's own. */
#ifdef __cplusplus
#define KEL_LAYOUT(holds) static_assert(holds, "layout")
#else
#define KEL_LAYOUT(holds) _Static_assert(holds, "layout")
#endif
KEL_LAYOUT(sizeof(PackTarget) == 16);
KEL_LAYOUT(sizeof(IdlCodecOps) == 48);
KEL_LAYOUT(sizeof(IdlMethodRef) == 16);
KEL_LAYOUT(sizeof(IdlAsyncInfo) == 24);
KEL_LAYOUT(offsetof(IdlAsyncInfo, userArg1) == 8);
KEL_LAYOUT(sizeof(ServiceMethodBinding) == 24);
KEL_LAYOUT(sizeof(IdlIntfEntry) == 88);
KEL_LAYOUT(offsetof(IdlIntfEntry, wrapper) == 8);
KEL_LAYOUT(offsetof(IdlIntfEntry, inputMsgId) == 16);
KEL_LAYOUT(offsetof(IdlIntfEntry, methodName) == 24);
KEL_LAYOUT(sizeof(IdlMsgDesc) == 16);
KEL_LAYOUT(sizeof(IdlModuleSpec) == 120);
KEL_LAYOUT(offsetof(IdlModuleSpec, intfCount) == 32);
KEL_LAYOUT(offsetof(IdlModuleSpec, intfTable) == 40);
KEL_LAYOUT(offsetof(IdlModuleSpec, reserved) == 56);
KEL_LAYOUT(sizeof(RpcServerAddr) == 104);
KEL_LAYOUT(offsetof(RpcServerAddr, serviceName) == 96);
#undef KEL_LAYOUT

/* The functions that the host's framework defines and the library calls. The library gives their
 * results to its own caller unchanged. */
#pragma GCC visibility push(default)

/* Returns a handle for the one call to server that follows. The library passes it on without
 * looking at it, null included, and does not keep it; whether and when it is freed is the
 * framework's business. invokeArg is the value that the host gave to the call stub. */
void* RPC_GetRpcInvoke(RpcServerAddr* server, uintptr_t invokeArg);

/* Encodes input with ops, performs the call and decodes the reply into output. method and ops are
 * on the library's stack and valid only during the call. */
int32_t RPC_IdlSyncCallStub(void* invoker, const void* input, void* output,
                            const IdlMethodRef* method, const IdlCodecOps* ops);

/* Starts a call and returns. input, method, ops and info are valid only until it returns: before
 * that, the framework encodes input, since a copy of the record would lack what the record points
 * to, and copies whatever else it needs later. The framework provides the output record, of
 * outputSize bytes, and has it released by releaseFn. */
int32_t RPC_IdlAsyncCallStub(void* invoker, const void* input, const IdlMethodRef* method,
                             const IdlCodecOps* ops, const IdlAsyncInfo* info);

/* Serves one request of a method. The framework provides an input record of inputRecordSize bytes
 * (0 for a message without fields; even then unpackFn must be given a non-null address) and an
 * output record of zeros (service.h has its size). It decodes into the input record, runs binding's
 * implementation, encodes the output record and has it released, also after a failure, all through
 * ops. Input records of served methods own nothing.
 *
 * An output record is released by userFreeFn, or by releaseFn if its entries came from the
 * allocator that pairs with the release hook of the library's served messages (osal.h). Both may be
 * called only if the first one clears the pointers that it frees, as releaseFn does.
 *
 * binding is valid only during the call; ops stays where the framework put it. first and second are
 * the framework's own values: through them it has to learn whatever else it needs, such as the
 * method and the size of its output record, since nothing else here names them. */
int32_t RPC_IdlServiceWrapper(uintptr_t first, uint32_t inputRecordSize, uintptr_t second,
                              IdlCodecOps* ops, const ServiceMethodBinding* binding);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
