// How a connection is protected: a Unix socket by its mode, anything else by mutual TLS, or by
// nothing if that has been asked for. For RpcServer, the RPC framework and whoever configures them.
#pragma once

#include <memory>
#include <string>

namespace grpc {
class ChannelCredentials;
class ServerCredentials;
}  // namespace grpc

namespace kel::host {

// Paths of PEM files: the authority that all peers' certificates are of, and this process's own
// certificate and key. All or none.
struct TlsFiles {
  std::string authority;
  std::string certificate;
  std::string key;
};

// What those files hold; empty: no TLS.
struct TlsIdentity {
  std::string authority;
  std::string certificate;
  std::string key;
};

// Reads each file once, so that a pipe will do. Throws std::runtime_error with a sentence if only
// some are named, or one cannot be used.
TlsIdentity readTlsFiles(const TlsFiles& files);

struct TransportSecurity {
  TlsIdentity tls = {};
  bool insecurePlainTcp = false;  // TCP that anybody may read, change and call
};

// Whether a gRPC target is a Unix socket in the file system, which has an owner and a mode.
bool isUnixSocket(const std::string& target);

// Both throw std::runtime_error with a sentence if security has both TLS and insecurePlainTcp; the
// first also for a target that is no Unix socket if it has neither.
std::shared_ptr<grpc::ServerCredentials> serverCredentials(const std::string& target,
                                                           const TransportSecurity& security);
// For every target but Unix sockets; null if nothing has been asked for.
std::shared_ptr<grpc::ChannelCredentials> channelCredentials(const TransportSecurity& security);

}  // namespace kel::host
