// Calls to a host that serves KelSysdiagQarne, made by the framework with the peer library's
// codecs. For diagnostics clients and tests; thread-safe.
#pragma once

#include <kel_sys_diag/peer.h>

#include <cstdint>
#include <string>
#include <utility>

#include "host/rpc_framework.hpp"

namespace kel::host {

// A reply's record; gives back what it owns.
template <class Record>
class Reply {
 public:
  explicit Reply(IdlReleaseFn release) : release_(release) {}
  ~Reply() { release_(&record_); }
  Reply(Reply&& other) noexcept
      : result_(other.result_),
        record_(std::exchange(other.record_, Record{})),
        release_(other.release_) {}
  Reply& operator=(Reply&&) = delete;

  [[nodiscard]] int32_t result() const { return result_; }  // as in rpc_framework.hpp
  const Record* operator->() const { return &record_; }
  const Record& operator*() const { return record_; }

 private:
  friend class QarneClient;

  int32_t result_ = kOk;
  Record record_{};  // all zero after a failure
  IdlReleaseFn release_;
};

struct NoFields {};

template <class InputRecord, class OutputRecord>
struct QarneMethod {
  using Input = InputRecord;
  using Output = OutputRecord;
  const char* name;
  IdlCodecOps ops;
};

extern const QarneMethod<NoFields, BrdPartInfo> kBrdPartInfoQuery;
extern const QarneMethod<FdProcInfoInput, FdProcInfoOutput> kFdProcInfoQuery;
extern const QarneMethod<SysOvLoadDiskThreshold, OperResult> kSysOvLoadDiskThresholdSet;
extern const QarneMethod<SysDiskUseInput, SysDiskUseInfoResult> kGetSysDiskUseInfo;
extern const QarneMethod<ResetDiskCondition, ResetDiskResult> kResetDiskMakeFS;
extern const QarneMethod<MountDiskInput, MountDiskResult> kMountDisk;
extern const QarneMethod<StorageEraseInfoInput, StorageEraseInfo> kQueryStorageEraseInfo;
extern const QarneMethod<StorageBadBlockInfoInput, StorageBadBlockInfo> kQueryStorageBadBlockInfo;

class QarneClient {
 public:
  // Throws std::runtime_error when the gRPC target is too long. For deadlineMs see
  // rpc_framework.hpp.
  explicit QarneClient(const std::string& target, uint32_t deadlineMs = 0);

  template <class Method>
  Reply<typename Method::Output> call(const Method& method,
                                      const typename Method::Input& input) const {
    Reply<typename Method::Output> reply(method.ops.releaseFn);
    reply.result_ = exchange(method.name, method.ops, &input, &reply.record_);
    if (reply.result_ != kOk) {
      reply.record_ = {};  // whatever a failed decoding left there is not to be released
    }
    return reply;
  }

 private:
  int32_t exchange(const char* method, const IdlCodecOps& ops, const void* input,
                   void* output) const;

  RpcServerAddr address_{};
  const uint32_t deadlineMs_;
};

}  // namespace kel::host
