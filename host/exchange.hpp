// One request and its reply on gRPC's C interface. For rpc_framework.
#pragma once

#include <grpc/byte_buffer.h>
#include <grpc/grpc.h>
#include <grpc/slice.h>
#include <grpcpp/channel.h>
#include <grpcpp/client_context.h>
#include <grpcpp/completion_queue.h>
#include <grpcpp/generic/generic_stub.h>
#include <grpcpp/support/slice.h>
#include <kel_sys_diag/rpc.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

namespace kel::host {

// Operations that need not wait for each other do not; they end in any order, on any thread, even
// two at the same time.
//
// gRPC's C interface, because the C++ classes for a single reply would wait for the deadline if
// there were another one, and those for streams give every operation an end of its own.
class Exchange {
 public:
  Exchange();
  ~Exchange();
  Exchange(const Exchange&) = delete;
  Exchange& operator=(const Exchange&) = delete;

  void prepare(const std::shared_ptr<grpc::Channel>& channel, grpc::CompletionQueue& queue,
               const std::string& path, const grpc::Slice& request,
               std::chrono::milliseconds deadline);

  // Once it has been prepared. From then on this belongs to whoever waits on the queue.
  void send() noexcept;

  // The same, and takes the first end that this thread comes upon meanwhile, often that of sending
  // itself, so that nobody has to be woken for it. Returns the exchange on the queue that has ended
  // thereby, which is then the caller's alone, or null.
  [[nodiscard]] Exchange* sendAndTakeEnd(grpc::CompletionQueue& queue) noexcept;

  // Waits until an exchange on the queue has ended, which is then the caller's alone. Several
  // threads may wait on one queue.
  static Exchange& nextEnded(grpc::CompletionQueue& queue);

  // The rest is for one that has ended.

  // Returns the result of the call. With kOk, output holds the reply.
  int32_t decodeInto(void* output, const IdlCodecOps& ops);

  // What gRPC or the server said if it failed, or null. Copied by gRPC: it may be another thread's
  // text, handed over where a race detector cannot see.
  [[nodiscard]] std::unique_ptr<char, void (*)(void*)> said() const;

 private:
  // Its address is what the queue gives back.
  struct Operation {
    Exchange* exchange;
  };

  void begin(Operation& operation, std::span<const grpc_op> ops);
  [[nodiscard]] static Exchange* takeEndOf(const grpc_event& end);
  [[nodiscard]] bool takeEnd(const grpc_event& end);
  void awaitStatus();
  [[nodiscard]] grpc::Slice received() const;
  [[nodiscard]] int32_t failure() const;
  [[nodiscard]] int32_t status() const;

  // To be given up after the context, and so not by gRPC's code, into which a race detector cannot
  // see.
  std::shared_ptr<grpc::Channel> channel_;
  grpc::ClientContext context_;
  std::unique_ptr<grpc::GenericClientAsyncReaderWriter> stream_;
  Operation ended_{this};
  Operation replied_{this};
  Operation written_{this};
  Operation readOn_{this};
  std::atomic<int> left_ = 2;  // operations whose ends have not been taken
  bool sent_ = false;
  grpc_byte_buffer* request_ = nullptr;
  grpc_metadata_array head_;
  grpc_byte_buffer* reply_ = nullptr;
  grpc_byte_buffer* surplus_ = nullptr;
  grpc_metadata_array trailer_;
  grpc_status_code status_ = GRPC_STATUS_UNKNOWN;
  grpc_slice detail_ = grpc_empty_slice();
};

}  // namespace kel::host
