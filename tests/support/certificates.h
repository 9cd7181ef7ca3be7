// SPDX-License-Identifier: Apache-2.0
// A certificate authority of the test's own, in a directory that is removed with it.
#pragma once

#include <string>

namespace engines::http::test {

/// A directory of its own, removed at the end.
class TemporaryDirectory {
 public:
  TemporaryDirectory();
  ~TemporaryDirectory();
  TemporaryDirectory(TemporaryDirectory&&) = delete;
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
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
  /// A certificate for the host name, valid from now on. With 0 days it has expired.
  Identity issue(const std::string& host, int days = 2) const;

 private:
  TemporaryDirectory directory_;
};

}  // namespace engines::http::test
