// SPDX-License-Identifier: Apache-2.0
#include "tests/support/certificates.h"

#include <cstdlib>
#include <filesystem>
#include <stdexcept>

namespace engines::http::test {
namespace {

void make(const std::string& arguments) {
  const std::string command = CERTIFICATES " " + arguments + " >/dev/null 2>&1";
  if (std::system(command.c_str()) != 0) throw std::runtime_error("failed: " + command);
}

}  // namespace

TemporaryDirectory::TemporaryDirectory()
    : path_(std::filesystem::temp_directory_path() / "engines-http-XXXXXX") {
  if (mkdtemp(path_.data()) == nullptr) throw std::runtime_error("no temporary directory");
}

TemporaryDirectory::~TemporaryDirectory() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

CertificateAuthority::CertificateAuthority() { make(directory_.file("")); }

Identity CertificateAuthority::issue(const std::string& host, int days) const {
  make(directory_.file("") + " " + host + " " + std::to_string(days));
  const std::string name = directory_.file(host + "-" + std::to_string(days));
  return {.certificate = name + ".pem", .key = name + ".key"};
}

}  // namespace engines::http::test
