// Channels and their arguments.
#include "host/channels.hpp"

#include <grpcpp/create_channel.h>
#include <grpcpp/security/credentials.h>
#include <grpcpp/support/channel_arguments.h>

namespace kel::host {
namespace {

// Often enough that a server which has stopped without a word is left out of the round soon.
constexpr int kKeepaliveMs = 10'000;
constexpr int kKeepaliveTimeoutMs = 5'000;
// A server that is back gets its share of calls again within this time.
constexpr int kLongestBackOffMs = 2'000;
// Without calls, connections are given up: to a server that greets and goes, gRPC would connect
// again and again.
constexpr int kIdleMs = 10'000;
// For a server to take a connection and greet. Less than calls wait, so that a machine that does
// not answer counts as unreachable.
constexpr int kConnectMs = 3'000;

}  // namespace

ChannelFactory::ChannelFactory(const CallSettings& settings)
    : settings_(settings),
      quota_(messageQuota(ServerLimits().calls, settings.messageBytes)),
      credentials_(channelCredentials(settings.security)) {}

std::shared_ptr<grpc::Channel> ChannelFactory::open(const std::string& target) const {
  const bool local = isUnixSocket(target);
  if (!local && credentials_ == nullptr) {
    return nullptr;
  }
  grpc::ChannelArguments arguments;
  arguments.SetLoadBalancingPolicyName("round_robin");
  // Of this factory alone; and connections are shared only where all arguments are equal.
  arguments.SetResourceQuota(*quota_);
  arguments.SetInt(GRPC_ARG_MAX_RECONNECT_BACKOFF_MS, kLongestBackOffMs);
  arguments.SetInt(GRPC_ARG_MIN_RECONNECT_BACKOFF_MS, kConnectMs);
  arguments.SetInt(GRPC_ARG_CLIENT_IDLE_TIMEOUT_MS, kIdleMs);
  // A request that a server says it has not looked at would be sent again, whatever the server has
  // done with it; and gRPC, waiting to try anew, ends the process at an answer without a status.
  arguments.SetInt(GRPC_ARG_ENABLE_RETRIES, 0);
  // The address record and the settings alone decide how calls go, not the environment or the DNS.
  arguments.SetInt(GRPC_ARG_ENABLE_HTTP_PROXY, 0);
  arguments.SetInt(GRPC_ARG_SERVICE_CONFIG_DISABLE_RESOLUTION, 1);
  arguments.SetInt(GRPC_ARG_KEEPALIVE_TIME_MS, kKeepaliveMs);
  arguments.SetInt(GRPC_ARG_KEEPALIVE_TIMEOUT_MS, kKeepaliveTimeoutMs);
  arguments.SetInt(GRPC_ARG_KEEPALIVE_PERMIT_WITHOUT_CALLS, 1);
  arguments.SetInt(GRPC_ARG_HTTP2_MAX_PINGS_WITHOUT_DATA, 0);
  arguments.SetMaxSendMessageSize(static_cast<int>(settings_.messageBytes));
  arguments.SetMaxReceiveMessageSize(static_cast<int>(settings_.messageBytes));
  // Messages are never compressed here, and one that is could grow beyond the limit.
  arguments.SetInt(GRPC_ARG_ENABLE_PER_MESSAGE_DECOMPRESSION, 0);
  if (!local && !settings_.serverName.empty()) {
    arguments.SetSslTargetNameOverride(settings_.serverName);
  }
  return grpc::CreateCustomChannel(
      target, local ? grpc::InsecureChannelCredentials() : credentials_, arguments);
}

}  // namespace kel::host
