// SPDX-License-Identifier: Apache-2.0
// Servers that others wrote, started by the script `real_peers` on free loopback ports with files
// in a directory that is removed with them.
#pragma once

#include <sys/types.h>

#include <string>

#include "tests/support/certificates.h"

namespace engines::http::test {

/// A server that runs until the object is destroyed.
///
/// "nginx", with a certificate, its key and the CA of client certificates: "/hello" names the
/// protocol and the connection, "/big" is 20 MB, "/chunked" a chunked page, "/fixed" a text in the
/// gzip coding with a length, "/upload" takes any body, "/who" says whether the client's
/// certificate is good; over HTTP and over TLS. A connection serves no more than 50 requests.
///
/// "tinyproxy", with a port: lets CONNECT through to that port only.
///
/// "exec", with a command, which is given the directory, the port and the port for TLS at its end.
class RealPeer {
 public:
  /// Starts it and waits until it listens. Throws `std::runtime_error` when it is not installed or
  /// does not come up within 10 s.
  RealPeer(const std::string& name, const std::string& arguments);
  ~RealPeer();

  std::string url(const std::string& path = "") const {
    return "http://127.0.0.1:" + std::to_string(port_) + path;
  }
  std::string tls_url(const std::string& path) const {
    return "https://localhost:" + std::to_string(tls_port_) + path;
  }

 private:
  TemporaryDirectory directory_;
  int port_;
  int tls_port_;
  pid_t process_;
};

}  // namespace engines::http::test
