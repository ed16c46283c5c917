// Certificates for tests, made on the spot by the openssl command and good for a day.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "host/credentials.hpp"

namespace kel::host::test {

// A certificate authority whose files lie in a folder.
class TestAuthority {
 public:
  TestAuthority(std::filesystem::path folder, const std::string& name);

  // A certificate for name, and the files that its bearer needs. Extensions are openssl's, such as
  // "subjectAltName=DNS:host". One that is good for minus one day has expired.
  [[nodiscard]] TlsFiles issue(const std::string& name, const std::string& extension = "",
                               int days = 1) const;

  [[nodiscard]] std::string file(const std::string& name, const char* suffix) const;

 private:
  std::filesystem::path folder_;
  std::string name_;
};

// What a program is given to bear them.
std::vector<std::string> optionsOf(const TlsFiles& files);

}  // namespace kel::host::test
