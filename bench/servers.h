// SPDX-License-Identifier: Apache-2.0
// What the calls are made to: nginx for static bodies, and a server that echoes what is posted.
#pragma once

#include <string>

#include "tests/support/certificates.h"
#include "tests/support/real_peers.h"

namespace bench {

/// Serves on the loopback port until it is killed. Each request over HTTP/1.1 is answered with its
/// own body, in one write; connections are kept.
[[noreturn]] void serve_echoes(int port);

class Servers {
 public:
  /// Starts this program once more as the echo server.
  Servers();

  /// "/small.json", "/large.bin" and "/embeddings.json", of 1 KB and twice 16 MiB.
  std::string get_url(const std::string& path) const { return nginx_.url(path); }
  std::string tls_url(const std::string& path) const { return nginx_.tls_url(path); }
  std::string echo_url() const { return echo_.url("/echo"); }
  std::string ca_file() const { return authority_.file(); }

 private:
  engines::http::test::CertificateAuthority authority_;
  engines::http::test::Identity identity_ = authority_.issue("localhost");
  engines::http::test::TemporaryDirectory directory_;
  engines::http::test::RealPeer nginx_;
  engines::http::test::RealPeer echo_;
};

}  // namespace bench
