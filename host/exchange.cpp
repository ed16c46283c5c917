// The operations of an exchange, and what their ends amount to.
#include "host/exchange.hpp"

#include <grpc/byte_buffer_reader.h>
#include <grpc/support/alloc.h>

#include <array>
#include <cstdlib>
#include <cstring>

#include "host/hand_over.hpp"
#include "host/rpc_framework.hpp"

namespace kel::host {
namespace {

grpc_op receiving(grpc_byte_buffer*& message) {
  grpc_op op{};
  op.op = GRPC_OP_RECV_MESSAGE;
  op.data.recv_message.recv_message = &message;
  return op;
}

bool isKnown(int32_t status) {
  return status >= GRPC_STATUS_OK && status <= GRPC_STATUS_UNAUTHENTICATED;
}

}  // namespace

Exchange::Exchange() {
  grpc_metadata_array_init(&head_);
  grpc_metadata_array_init(&trailer_);
}

Exchange::~Exchange() {
  grpc_byte_buffer_destroy(request_);
  grpc_byte_buffer_destroy(reply_);
  grpc_byte_buffer_destroy(surplus_);
  grpc_slice_unref(detail_);
  grpc_metadata_array_destroy(&trailer_);
  grpc_metadata_array_destroy(&head_);
}

void Exchange::prepare(const std::shared_ptr<grpc::Channel>& channel, grpc::CompletionQueue& queue,
                       const std::string& path, const grpc::Slice& request,
                       std::chrono::milliseconds deadline) {
  channel_ = channel;
  context_.set_deadline(gpr_time_add(gpr_now(GPR_CLOCK_MONOTONIC),
                                     gpr_time_from_millis(deadline.count(), GPR_TIMESPAN)));
  stream_ = grpc::GenericStub(channel).PrepareCall(&context_, path, &queue);
  grpc_slice bytes = request.c_slice();
  request_ = grpc_raw_byte_buffer_create(&bytes, 1);
  grpc_slice_unref(bytes);
}

void Exchange::send() noexcept {
  std::array<grpc_op, 2> reply{};
  reply[0].op = GRPC_OP_RECV_INITIAL_METADATA;
  reply[0].data.recv_initial_metadata.recv_initial_metadata = &head_;
  reply[1] = receiving(reply_);
  begin(replied_, reply);

  std::array<grpc_op, 3> message{};
  message[0].op = GRPC_OP_SEND_INITIAL_METADATA;
  message[1].op = GRPC_OP_SEND_MESSAGE;
  message[1].data.send_message.send_message = request_;
  message[2].op = GRPC_OP_SEND_CLOSE_FROM_CLIENT;
  begin(written_, message);
}

Exchange* Exchange::sendAndTakeEnd(grpc::CompletionQueue& queue) noexcept {
  grpc_completion_queue_thread_local_cache_init(queue.cq());
  send();
  grpc_event end{GRPC_OP_COMPLETE, 0, nullptr};
  const int isThere =
      grpc_completion_queue_thread_local_cache_flush(queue.cq(), &end.tag, &end.success);
  return isThere != 0 ? takeEndOf(end) : nullptr;
}

Exchange& Exchange::nextEnded(grpc::CompletionQueue& queue) {
  for (;;) {
    const grpc_event end =
        grpc_completion_queue_next(queue.cq(), gpr_inf_future(GPR_CLOCK_MONOTONIC), nullptr);
    if (Exchange* const ended = takeEndOf(end)) {
      return *ended;
    }
  }
}

// Returns the exchange if none of its operations is left.
Exchange* Exchange::takeEndOf(const grpc_event& end) {
  handOver();
  Exchange& exchange = *static_cast<Operation*>(end.tag)->exchange;
  return exchange.takeEnd(end) ? &exchange : nullptr;
}

// Of one operation. Says whether there is none left, and so nobody else here.
bool Exchange::takeEnd(const grpc_event& end) {
  if (end.tag == &written_) {
    sent_ = end.success != 0;
  } else if (end.tag == &replied_) {
    awaitStatus();
  } else if (end.tag == &readOn_ && surplus_ != nullptr) {
    context_.TryCancel();
  }
  handOver();
  return --left_ == 0;
}

int32_t Exchange::decodeInto(void* output, const IdlCodecOps& ops) {
  if (surplus_ != nullptr) {
    return kTooManyReplies;
  }
  if (status() != GRPC_STATUS_OK) {
    return failure();
  }
  if (reply_ == nullptr || grpc_byte_buffer_length(reply_) == 0) {
    return kReplyEmpty;
  }
  const grpc::Slice bytes = received();
  return ops.unpackFn(bytes.begin(), static_cast<uint32_t>(bytes.size()), output) != 0
             ? kOk
             : kReplyNotDecoded;
}

std::unique_ptr<char, void (*)(void*)> Exchange::said() const {
  return {status() == GRPC_STATUS_OK ? nullptr : grpc_slice_to_c_string(detail_), gpr_free};
}

void Exchange::begin(Operation& operation, std::span<const grpc_op> ops) {
  grpc_call* const call = context_.c_call();  // nothing here is read once it is handed over
  handOver();
  if (grpc_call_start_batch(call, ops.data(), ops.size(), &operation, nullptr) != GRPC_CALL_OK) {
    std::abort();  // these operations are always in order
  }
}

void Exchange::awaitStatus() {
  left_ += reply_ == nullptr ? 1 : 2;
  // The end does not come before another reply has been read, if there is one.
  if (reply_ != nullptr) {
    const grpc_op more = receiving(surplus_);
    begin(readOn_, {&more, 1});
  }
  grpc_op status{};
  status.op = GRPC_OP_RECV_STATUS_ON_CLIENT;
  status.data.recv_status_on_client.trailing_metadata = &trailer_;
  status.data.recv_status_on_client.status = &status_;
  status.data.recv_status_on_client.status_details = &detail_;
  begin(ended_, {&status, 1});
}

// Shares the received block; only a reply in pieces has to be joined.
grpc::Slice Exchange::received() const {
  const grpc_slice_buffer& pieces = reply_->data.raw.slice_buffer;
  if (pieces.count == 1) {
    return {pieces.slices[0], grpc::Slice::ADD_REF};
  }
  grpc_byte_buffer_reader reader;
  grpc_byte_buffer_reader_init(&reader, reply_);
  grpc::Slice joined(grpc_byte_buffer_reader_readall(&reader), grpc::Slice::STEAL_REF);
  grpc_byte_buffer_reader_destroy(&reader);
  return joined;
}

int32_t Exchange::failure() const {
  switch (status()) {
    case GRPC_STATUS_UNAVAILABLE:
      return sent_ ? kConnectionLost : kUnreachable;
    case GRPC_STATUS_CANCELLED:  // by a server that stops
      return kConnectionLost;
    case GRPC_STATUS_DEADLINE_EXCEEDED:
      return sent_ ? kDeadlinePassed : kNotSent;
    case GRPC_STATUS_INVALID_ARGUMENT:
      return kRequestRejected;
    case GRPC_STATUS_UNIMPLEMENTED:
      return kMethodUnknown;
    case GRPC_STATUS_RESOURCE_EXHAUSTED:
      return kTooLarge;
    case GRPC_STATUS_PERMISSION_DENIED:
      return kNotPermitted;
    default:
      return kGrpcStatus + (isKnown(status()) ? status() : GRPC_STATUS_UNKNOWN);
  }
}

// A number, since gRPC hands on whatever the server has sent.
int32_t Exchange::status() const {
  int32_t number = 0;
  std::memcpy(&number, &status_, sizeof number);
  return number;
}

}  // namespace kel::host
