// Sizes gRPC's quota by the limits.
#include "host/message_quota.hpp"

namespace kel::host {
namespace {

// For what connections take whatever the messages are: 1,500 of them were served with hardly more.
constexpr size_t kForConnections = 16U << 20U;

}  // namespace

std::unique_ptr<grpc::ResourceQuota> messageQuota(uint32_t calls, uint32_t messageBytes) {
  auto quota = std::make_unique<grpc::ResourceQuota>();
  quota->Resize(kForConnections + size_t{calls} * messageBytes);
  return quota;
}

}  // namespace kel::host
