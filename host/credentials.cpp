// Credentials of gRPC's own, from files.
#include "host/credentials.hpp"

#include <fmt/core.h>
#include <grpcpp/security/credentials.h>
#include <grpcpp/security/server_credentials.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <iterator>
#include <memory>
#include <stdexcept>

#include "host/whole_file.hpp"

namespace kel::host {
namespace {

std::string lastTlsError() {
  std::array<char, 256> text{};
  ERR_error_string_n(ERR_get_error(), text.data(), text.size());
  ERR_clear_error();
  return text.data();
}

// What a PEM text holds, one object after the other.
class PemReader {
 public:
  // Keeps no copy of the text.
  explicit PemReader(const std::string& pem)
      : rest_(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())), BIO_free) {}

  // Null at the end of the text. Nobody is asked for a pass-phrase.
  template <class Object>
  std::unique_ptr<Object, void (*)(Object*)> next(Object* (*readOne)(BIO*, Object**,
                                                                     pem_password_cb*, void*),
                                                  void (*release)(Object*)) {
    constexpr auto kNoPassPhrase = [](char*, int, int, void*) { return -1; };
    return {readOne(rest_.get(), nullptr, kNoPassPhrase, nullptr), release};
  }
  auto nextCertificate() { return next(PEM_read_bio_X509, X509_free); }

 private:
  std::unique_ptr<BIO, decltype(&BIO_free)> rest_;
};

// Null if nothing keeps it from being used.
const char* whyNotNow(const X509& certificate) {
  if (X509_cmp_current_time(X509_get0_notAfter(&certificate)) < 0) {
    return "has expired";
  }
  return X509_cmp_current_time(X509_get0_notBefore(&certificate)) > 0 ? "is not valid yet"
                                                                      : nullptr;
}

void demandThatItIsValidNow(const X509& certificate, const std::string& file) {
  if (const char* const fault = whyNotNow(certificate)) {
    throw std::runtime_error(fmt::format("the certificate in {} {}", file, fault));
  }
}

// While one certificate of an authority takes over from another, both are in its file.
void demandThatOneIsValidNow(const X509& first, PemReader& others, const std::string& file) {
  if (whyNotNow(first) == nullptr) {
    return;
  }
  while (const auto other = others.nextCertificate()) {
    if (whyNotNow(*other) == nullptr) {
      return;
    }
  }
  demandThatItIsValidNow(first, file);
}

// gRPC takes whatever the files hold, and only complains at every connection that then fails.
void check(const TlsFiles& files, const TlsIdentity& pems) {
  const auto demand = [](bool usable, const std::string& file, const std::string& what) {
    if (!usable) {
      throw std::runtime_error(fmt::format("cannot use {} as {}: {}", file, what, lastTlsError()));
    }
  };
  const std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> context(SSL_CTX_new(TLS_method()),
                                                                  SSL_CTX_free);
  PemReader authorities(pems.authority);
  const auto authority = authorities.nextCertificate();
  demand(authority != nullptr, files.authority, "the authority's certificate");
  demandThatOneIsValidNow(*authority, authorities, files.authority);
  const auto certificate = PemReader(pems.certificate).nextCertificate();
  demand(certificate && SSL_CTX_use_certificate(context.get(), certificate.get()) == 1,
         files.certificate, "a certificate");
  demandThatItIsValidNow(*certificate, files.certificate);
  const auto key = PemReader(pems.key).next(PEM_read_bio_PrivateKey, EVP_PKEY_free);
  demand(key && SSL_CTX_use_PrivateKey(context.get(), key.get()) == 1, files.key,
         fmt::format("the key of {}, without a pass-phrase", files.certificate));
}

// Connections are made until the process is gone, and so OpenSSL must not be given up as it ends.
// This counts only before all else that is done with OpenSSL.
void keepOpenSslToTheEnd() { OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr); }

enum class Protection : uint8_t { none, tls, plain };

Protection protectionOf(const TransportSecurity& security) {
  const bool tls = !security.tls.key.empty();
  if (tls && security.insecurePlainTcp) {
    throw std::runtime_error("mutual TLS and insecure plain TCP exclude each other");
  }
  if (security.insecurePlainTcp) {
    return Protection::plain;
  }
  return tls ? Protection::tls : Protection::none;
}

}  // namespace

TlsIdentity readTlsFiles(const TlsFiles& files) {
  const auto paths = {&files.authority, &files.certificate, &files.key};
  const auto named = std::ranges::count_if(paths, [](const auto* path) { return !path->empty(); });
  if (named == 0) {
    return {};
  }
  if (named != std::ssize(paths)) {
    throw std::runtime_error("mutual TLS needs three files: authority, certificate and key");
  }
  keepOpenSslToTheEnd();
  TlsIdentity pems{readWholeFile(files.authority), readWholeFile(files.certificate),
                   readWholeFile(files.key)};
  check(files, pems);
  return pems;
}

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
  const TlsIdentity& tls = security.tls;
  grpc::SslServerCredentialsOptions options(
      GRPC_SSL_REQUEST_AND_REQUIRE_CLIENT_CERTIFICATE_AND_VERIFY);
  options.pem_root_certs = tls.authority;
  options.pem_key_cert_pairs = {{tls.key, tls.certificate}};
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
  const TlsIdentity& tls = security.tls;
  return grpc::SslCredentials({tls.authority, tls.key, tls.certificate});
}

}  // namespace kel::host
