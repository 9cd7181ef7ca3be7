// SPDX-License-Identifier: Apache-2.0
#include "tests/support/certificates.h"

#include <cstdlib>
#include <filesystem>
#include <stdexcept>

namespace engines::http::test {
namespace {

const std::string NEW_KEY =
    "openssl req -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -keyout ";

void run_in(const std::string& directory, const std::string& commands) {
  const std::string script = "cd " + directory + " && " + commands;
  if (std::system(("(" + script + ") >/dev/null 2>&1").c_str()) != 0) {
    throw std::runtime_error("failed: " + script);
  }
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

CertificateAuthority::CertificateAuthority() {
  run_in(directory_.file(""), NEW_KEY +
                                  "ca.key -x509 -days 2 -subj '/CN=Test CA' -out ca.pem && "
                                  "mkdir hashed && cp ca.pem hashed && openssl rehash hashed");
}

Identity CertificateAuthority::issue(const std::string& host, int days) const {
  const std::string name = host + std::to_string(days), key = name + ".key", pem = name + ".pem";
  run_in(directory_.file(""),
         NEW_KEY + key + " -subj /CN=" + host + " -addext subjectAltName=DNS:" + host +
             " -out csr && openssl x509 -req -in csr -copy_extensions copy -CA ca.pem"
             " -CAkey ca.key -days " +
             std::to_string(days) + " -out " + pem);
  return {.certificate = directory_.file(pem), .key = directory_.file(key)};
}

}  // namespace engines::http::test
