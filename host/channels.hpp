// Opens gRPC channels as this process has been told to. For the RPC framework.
#pragma once

#include <memory>
#include <string>

#include "host/message_quota.hpp"
#include "host/rpc_framework.hpp"

namespace grpc {
class Channel;
}  // namespace grpc

namespace kel::host {

// Its channels to one target share their connections with each other, and with no other factory's.
class ChannelFactory {
 public:
  // Throws std::runtime_error with a sentence.
  explicit ChannelFactory(const CallSettings& settings = {});

  // Null if the target is no Unix socket and nothing has been said about protection.
  [[nodiscard]] std::shared_ptr<grpc::Channel> open(const std::string& target) const;

 private:
  CallSettings settings_;
  std::unique_ptr<grpc::ResourceQuota> quota_;
  std::shared_ptr<grpc::ChannelCredentials> credentials_;  // but for Unix sockets
};

}  // namespace kel::host
