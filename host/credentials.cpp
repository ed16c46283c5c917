// Credentials of gRPC's own, from files.
#include "host/credentials.hpp"

#include <fmt/format.h>
#include <grpcpp/create_channel.h>
#include <grpcpp/security/credentials.h>
#include <grpcpp/security/server_credentials.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace kel::host {
namespace {

// gRPC takes whatever a file holds and only complains, call after call, once it is used.
std::string readPem(const std::string& path, const char* label) {
  std::ifstream file(path);
  const std::string pem{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  if (!file) {
    throw std::runtime_error(fmt::format("cannot read {}: {}", path, std::strerror(errno)));
  }
  if (pem.find(label) == std::string::npos) {
    throw std::runtime_error(fmt::format("{} holds no PEM block \"{}\"", path, label));
  }
  return pem;
}

struct Pems {
  std::string authority;
  std::string certificate;
  std::string key;
};

Pems readPems(const TlsFiles& files) {
  constexpr char kCertificate[] = "BEGIN CERTIFICATE";
  return {readPem(files.authority, kCertificate), readPem(files.certificate, kCertificate),
          readPem(files.key, "PRIVATE KEY")};
}

enum class Protection : uint8_t { none, tls, plain };

Protection protectionOf(const TransportSecurity& security) {
  const TlsFiles& tls = security.tls;
  const bool any = !tls.authority.empty() || !tls.certificate.empty() || !tls.key.empty();
  const bool all = !tls.authority.empty() && !tls.certificate.empty() && !tls.key.empty();
  if (any && !all) {
    throw std::runtime_error("mutual TLS needs three files: authority, certificate and key");
  }
  if (any && security.insecurePlainTcp) {
    throw std::runtime_error("mutual TLS and insecure plain TCP exclude each other");
  }
  if (security.insecurePlainTcp) {
    return Protection::plain;
  }
  return any ? Protection::tls : Protection::none;
}

}  // namespace

bool isUnixSocket(const std::string& target) { return target.starts_with("unix:"); }

std::shared_ptr<grpc::ServerCredentials> serverCredentials(const std::string& target,
                                                           const TransportSecurity& security) {
  const Protection protection = protectionOf(security);
  if (isUnixSocket(target) || protection == Protection::plain) {
    return grpc::InsecureServerCredentials();
  }
  if (protection == Protection::none) {
    throw std::runtime_error(fmt::format(
        "will not listen on {} unprotected: give --tls-ca, --tls-certificate and --tls-key, or "
        "--insecure-plain-tcp if anybody may read, change and call",
        target));
  }
  Pems pems = readPems(security.tls);
  grpc::SslServerCredentialsOptions options(
      GRPC_SSL_REQUEST_AND_REQUIRE_CLIENT_CERTIFICATE_AND_VERIFY);
  options.pem_root_certs = std::move(pems.authority);
  options.pem_key_cert_pairs = {{std::move(pems.key), std::move(pems.certificate)}};
  return grpc::SslServerCredentials(options);
}

std::shared_ptr<grpc::ChannelCredentials> channelCredentials(const TransportSecurity& security) {
  switch (protectionOf(security)) {
    case Protection::none:
      return nullptr;
    case Protection::plain:
      return grpc::InsecureChannelCredentials();
    case Protection::tls:
      break;
  }
  Pems pems = readPems(security.tls);
  auto credentials = grpc::SslCredentials(
      {std::move(pems.authority), std::move(pems.key), std::move(pems.certificate)});
  // A channel over credentials that do not fit together is dead from the start.
  const auto probe = grpc::CreateChannel("unix:/", credentials);
  if (probe->GetState(false) == GRPC_CHANNEL_SHUTDOWN) {
    throw std::runtime_error(fmt::format("{}, {} and {} cannot be used together for TLS",
                                         security.tls.authority, security.tls.certificate,
                                         security.tls.key));
  }
  return credentials;
}

}  // namespace kel::host
