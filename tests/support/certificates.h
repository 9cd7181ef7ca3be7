// SPDX-License-Identifier: Apache-2.0
// A certificate authority of the test's own, in a directory that is gone with it.
#pragma once

#include <filesystem>
#include <string>

namespace engines::http::test {

/// A directory of its own, removed at the end.
class TemporaryDirectory {
 public:
  TemporaryDirectory();
  ~TemporaryDirectory();
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
  std::string file(const std::string& name) const { return (path_ / name).string(); }

 private:
  std::filesystem::path path_;
};

/// A certificate and its key, in PEM files.
struct Identity {
  std::string certificate;
  std::string key;
};

class CertificateAuthority {
 public:
  CertificateAuthority();

  /// The authority's own certificate (PEM).
  std::string file() const { return directory_.file("ca.pem"); }
  /// A directory that holds it under the hash of its subject, as OpenSSL looks for it.
  std::string directory() const { return directory_.file("hashed"); }
  /// A certificate for the host name, valid now; or one that expired long ago.
  /// @{
  Identity issue(const std::string& host) const { return issue(host, "30000101000000Z"); }
  Identity issue_expired(const std::string& host) const { return issue(host, "20200101000000Z"); }
  /// @}

 private:
  Identity issue(const std::string& host, const std::string& until) const;

  TemporaryDirectory directory_;
};

/// Runs a shell command; throws `std::runtime_error`, which quotes it, when it fails.
void run(const std::string& command);

}  // namespace engines::http::test
