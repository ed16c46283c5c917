#include "tests/host/test_authority.hpp"

#include <fmt/core.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <utility>

namespace kel::host::test {
namespace {

constexpr char kNewKey[] = "-newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes";

void openssl(const std::string& arguments) {
  ASSERT_EQ(std::system(fmt::format("openssl {} 2>/dev/null", arguments).c_str()), 0) << arguments;
}

}  // namespace

TestAuthority::TestAuthority(std::filesystem::path folder, const std::string& name)
    : folder_(std::move(folder)), name_(name) {
  openssl(fmt::format("req -x509 {} -days 1 -subj /CN={} -keyout {} -out {}", kNewKey, name,
                      file(name, "key"), file(name, "pem")));
}

TlsFiles TestAuthority::issue(const std::string& name, const std::string& extension,
                              int days) const {
  static int issued = 0;
  const std::string number = std::to_string(++issued);
  const std::string extensions = file(number, "extensions");
  std::ofstream(extensions) << extension << "\n";
  openssl(fmt::format("req {} -subj /CN={} -keyout {} -out {}", kNewKey, name, file(number, "key"),
                      file(number, "request")));
  openssl(
      fmt::format("x509 -req -days {} -in {} -CA {} -CAkey {} -CAcreateserial -extfile {} -out {}",
                  days, file(number, "request"), file(name_, "pem"), file(name_, "key"), extensions,
                  file(number, "pem")));
  return {file(name_, "pem"), file(number, "pem"), file(number, "key")};
}

std::string TestAuthority::file(const std::string& name, const char* suffix) const {
  return folder_ / fmt::format("{}.{}", name, suffix);
}

std::vector<std::string> optionsOf(const TlsFiles& files) {
  return {"--tls-ca",        files.authority, "--tls-certificate",
          files.certificate, "--tls-key",     files.key};
}

}  // namespace kel::host::test
