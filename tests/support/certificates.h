// SPDX-License-Identifier: Apache-2.0
// A certificate authority of the test's own, in a directory that is removed with it.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>

namespace engines::http::test {

/// A directory of its own, removed at the end.
class TemporaryDirectory {
 public:
  TemporaryDirectory() {
    if (mkdtemp(path_.data()) == nullptr) throw std::runtime_error("no temporary directory");
  }
  ~TemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TemporaryDirectory(TemporaryDirectory&&) = delete;
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_ = std::filesystem::temp_directory_path() / "engines-http-XXXXXX";
};

/// A certificate and its key, in PEM files.
struct Identity {
  std::string certificate, key;
};

class CertificateAuthority {
 public:
  CertificateAuthority() { make(""); }

  /// The authority's own certificate (PEM).
  std::string file() const { return directory_.file("ca.pem"); }
  /// A directory that holds it under the hash of its subject, as OpenSSL looks for it.
  std::string directory() const { return directory_.file("hashed"); }
  /// A certificate for the host name, valid from now on. With 0 days it has expired.
  Identity issue(const std::string& host, int days = 2) const {
    make(host + " " + std::to_string(days));
    const std::string name = directory_.file(host + "-" + std::to_string(days));
    return {.certificate = name + ".pem", .key = name + ".key"};
  }

 private:
  /// Runs the script `certificates`.
  void make(const std::string& arguments) const {
    const std::string command =
        CERTIFICATES " " + directory_.file("") + " " + arguments + " >/dev/null 2>&1";
    if (std::system(command.c_str()) != 0) throw std::runtime_error("failed: " + command);
  }

  TemporaryDirectory directory_;
};

}  // namespace engines::http::test
