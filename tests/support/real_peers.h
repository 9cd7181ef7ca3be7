// SPDX-License-Identifier: Apache-2.0
// Servers that others wrote, started by the script `real_peers` on free loopback ports with files
// in a directory that is removed with them.
#pragma once

#include <openssl/bio.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>

#include "tests/support/certificates.h"
#include "tests/support/fault_server.h"

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
  RealPeer(const std::string& name, const std::string& arguments) {
    if (process_ == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      const std::string command = "exec " REAL_PEERS " " + name + " " + directory_.file("") + " " +
                                  std::to_string(port_) + " " + std::to_string(tls_port_) + " " +
                                  arguments + " >/dev/null 2>&1";
      execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
      _exit(127);
    }
    for (int i = 0; i < 1000 && waitpid(process_, nullptr, WNOHANG) == 0; ++i) {
      if (listens()) return;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    kill(process_, SIGKILL);
    throw std::runtime_error(name + " is not installed, or does not start");
  }
  ~RealPeer() {
    kill(process_, SIGKILL);
    waitpid(process_, nullptr, 0);
  }

  std::string url(const std::string& path = "") const {
    return "http://127.0.0.1:" + std::to_string(port_) + path;
  }
  std::string tls_url(const std::string& path) const {
    return "https://localhost:" + std::to_string(tls_port_) + path;
  }

 private:
  bool listens() const {
    BIO* const connection = BIO_new_connect(("127.0.0.1:" + std::to_string(port_)).c_str());
    const bool connected = BIO_do_connect(connection) == 1;
    BIO_free_all(connection);
    return connected;
  }

  TemporaryDirectory directory_;
  int port_ = closed_port();
  int tls_port_ = closed_port();
  pid_t process_ = fork();
};

}  // namespace engines::http::test
