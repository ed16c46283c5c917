// The host's RPC framework over gRPC: what its callers have to know besides kel_sys_diag/rpc.h,
// whose RPC_GetRpcInvoke, RPC_IdlSyncCallStub and RPC_IdlAsyncCallStub it defines.
// For host programs; replaceable by a framework of your own.
//
// Address. The first 96 bytes of the server address record hold a NUL-terminated gRPC target, such
// as "unix:/run/kel/master.sock". Fill it in before the first call. Methods are called at the path
// /<serviceName>/<methodName>. A target may name several servers, as in
// "ipv4:10.0.0.1:50051,10.0.0.2:50051": calls go round among those that can be reached, and a
// server that dies costs the calls that it was at work on. Servers on other machines need
// configureCalls.
//
// invokeArg is the call's deadline in milliseconds; 0 stands for kDefaultDeadline, and more than
// kLongestDeadline counts as that. The deadline covers everything from connecting to the last byte
// of the reply, so every call ends. A call to a server that is not there fails at once, and every
// call tries afresh, or joins an attempt to connect that is under way: nobody waits out a back-off
// after the server has come back, but an attempt that began before it was there fails the calls
// that have joined it. No request is ever sent twice.
//
// A synchronous call returns a result below. After kOk the output record belongs to the caller, who
// gives back its content with the releaseFn that SetIdl hands out. After anything else it holds
// nothing that would have to be released, and need not have been written.
//
// An asynchronous call takes a Completion as userArg1 and a value of the caller's as userArg2. The
// input record is needed until the call stub returns, no longer. If and only if that returns kOk,
// the completion runs exactly once, on a thread of the framework, maybe before the stub has
// returned. It may make calls of its own, but must not wait for other completions: they share a few
// threads. Call waitForCompletions before the process ends.
//
// A handle of RPC_GetRpcInvoke belongs to the one call that follows; null is allowed and makes that
// call fail.
#pragma once

#include <kel_sys_diag/rpc.h>

#include <chrono>
#include <cstdint>
#include <string>

#include "host/credentials.hpp"
#include "host/limits.hpp"

namespace kel::host {

inline constexpr std::chrono::milliseconds kDefaultDeadline = std::chrono::seconds(5);
inline constexpr std::chrono::milliseconds kLongestDeadline = std::chrono::hours(24);

// Results of calls.
enum RpcResult : int32_t {
  kOk = 0,
  kNoInvoker = 1,         // RPC_GetRpcInvoke had failed, for want of memory or of an address record
  kNoTarget = 2,          // the address record holds no NUL-terminated target that gRPC takes
  kBadArgument = 3,       // no output record, or no completion function
  kRequestNotPacked = 4,  // no input record, or one that is too large to encode
  kNoMemory = 5,          // or no thread
  kUnreachable = 6,       // nobody listens there, or not with gRPC; the request has not left
  kConnectionLost = 7,    // or the server stopped; the request was sent, and its fate is not known
  kDeadlinePassed = 8,    // the request was sent, and may or may not have been acted upon
  kReplyEmpty = 9,        // the server reported success with no reply, or with one of no bytes
  kReplyNotDecoded = 10,
  kTooManyReplies = 11,
  kRequestRejected = 12,  // the server could not decode the request
  kMethodUnknown = 13,
  kTooLarge = 14,      // a request or reply beyond a size limit, or a server out of means
  kNotProtected = 15,  // the target is no Unix socket, and configureCalls has not opened others
  kNotPermitted = 16,  // the server does not let this caller call the method
  kNotSent = 17,       // the deadline passed before the request had left
  kGrpcStatus = 100    // plus the gRPC status code, for any other failure that the server reported
};

// A sentence without its full stop, for people.
std::string describe(int32_t result);

// The same with what gRPC or the server said in brackets, a stranger's words made fit to be shown.
// Of the last call that ended on this thread: in a completion, of its own.
std::string explain(int32_t result);

// Called with the call's result and the decoded output record. The record is null on failure;
// otherwise it is valid until the completion returns, and the framework releases it then.
using Completion = void (*)(int32_t result, void* output, uintptr_t context);

// Waits until every asynchronous call has completed, its completion has returned and its output has
// been released; their deadlines bound that. Not for completions.
void waitForCompletions();

// Where calls by an address record go from now on; not while others call by it. Throws
// std::runtime_error with a sentence if the target is too long for the record.
void setTarget(RpcServerAddr& address, const std::string& target);

struct CallSettings {
  TransportSecurity security = {};
  // The name that servers' certificates must bear. Empty: the target's host, which several servers
  // at one target have no common one of.
  std::string serverName = {};
  uint32_t messageBytes = kDefaultMessageBytes;  // of a request or a reply at most
};

// How calls that start from now on reach their servers. For the process; before the first call.
// Throws std::runtime_error with a sentence.
void configureCalls(const CallSettings& settings);

// Throws std::runtime_error with a sentence if calls to a target can never be made as configured.
void checkTarget(const std::string& target);

// Whether requests that have a fixed layout are sent in the compact form all the same. For the
// process; off at first.
void setCompactAlways(bool compact);

}  // namespace kel::host
