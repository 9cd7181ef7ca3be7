// SPDX-License-Identifier: Apache-2.0
// A server that misbehaves on purpose: each connection is played by a function of the test, on a
// thread of its own, over plain TCP or TLS, on a free loopback port.
#pragma once

#include <openssl/bio.h>

#include <atomic>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "tests/support/certificates.h"

namespace engines::http::test {

/// One accepted connection, as the play sees it. Every wait ends when the server is destroyed.
class Peer {
 public:
  Peer(BIO* io, class FaultServer& server) : io_(io), server_(server) {}

  /// Reads one request: its head, and as much body as its Content-Length says. Empty: none came.
  std::string request();
  /// Reads up to `amt` bytes of what comes, body or not.
  std::string receive(std::size_t amt);
  /// False once the client has gone.
  bool send(std::string_view bytes);
  /// Does nothing for so long, or until the client has gone.
  void stall(int ms = -1);
  /// Makes the end of the connection a reset.
  void reset();
  /// The TLS session, which ends without close_notify unless the play sends it; null without TLS.
  SSL* tls();

 private:
  BIO* io_;
  class FaultServer& server_;
};

class FaultServer {
 public:
  using Play = std::function<void(Peer&)>;

  /// Over TLS when an identity is given.
  explicit FaultServer(Play play, const Identity* identity = nullptr);
  ~FaultServer();

  int port() const noexcept { return port_; }
  std::string url(std::string_view path = "/") const;
  int connections() const noexcept { return connections_; }
  /// The requests that `Peer::request` has read, whole or not: the first thousand.
  std::vector<std::string> requests() const;

 private:
  friend class Peer;
  void accept_all();
  void serve(BIO* io);

  Play play_;
  std::shared_ptr<SSL_CTX> tls_context_;
  BIO* listener_;
  int port_;
  std::atomic<int> connections_ = 0;
  mutable std::mutex mutex_;
  std::set<int> open_;  // the connections' sockets
  std::vector<std::string> requests_;
  std::vector<std::future<void>> plays_;  // those that run, and some that have ended
  std::thread acceptor_;
};

/// A loopback port on which nothing listens.
int closed_port();

}  // namespace engines::http::test
