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
  /// A certificate for the host name; one that is `days` < 0 old has expired.
  Identity issue(const std::string& host, int days = 2) const;

 private:
  TemporaryDirectory directory_;
};

/// Runs a shell command; throws `std::runtime_error`, which quotes it, when it fails.
void run(const std::string& command);

}  // namespace engines::http::test
