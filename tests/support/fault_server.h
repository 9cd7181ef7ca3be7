// SPDX-License-Identifier: Apache-2.0
// A server that misbehaves on purpose: each connection is played by a function of the test, on a
// thread of its own, over plain TCP or TLS, on a free loopback port.
#pragma once

#include <openssl/ssl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "tests/support/certificates.h"

namespace engines::http::test {

inline int fd_of(BIO* io) { return static_cast<int>(BIO_get_fd(io, nullptr)); }

/// A socket that listens on a free loopback port.
class Listener {
 public:
  Listener() {
    if (BIO_do_accept(io()) != 1) throw std::runtime_error("no loopback port");
  }
  BIO* io() const { return io_.get(); }
  int port() const { return std::atoi(BIO_get_accept_port(io())); }

 private:
  std::unique_ptr<BIO, decltype(&BIO_free_all)> io_{BIO_new_accept("127.0.0.1:0"), BIO_free_all};
};

/// A loopback port on which nothing listens.
inline int closed_port() { return Listener().port(); }

/// One accepted connection, as the play sees it. Every wait ends when the server is destroyed.
class Peer {
 public:
  Peer(BIO* io, class FaultServer& server) : io_(io), server_(server) {}

  /// Reads one request: its head, and as much body as its Content-Length says. Empty: none came.
  std::string request();
  /// Reads up to `amt` bytes of what comes, body or not.
  std::string receive(std::size_t amt) {
    std::string bytes(amt, '\0');
    const int got = BIO_read(io_, bytes.data(), static_cast<int>(amt));
    bytes.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
    return bytes;
  }
  /// False once the client has gone.
  bool send(std::string_view bytes) {
    std::size_t sent = 0;  // of no meaning where the write fails
    return bytes.empty() ||
           (BIO_write_ex(io_, bytes.data(), bytes.size(), &sent) == 1 && sent == bytes.size());
  }
  /// Does nothing for so long, or until the client has gone.
  void stall(int ms = -1) {
    pollfd gone{fd_of(io_), POLLRDHUP, 0};
    poll(&gone, 1, ms);
  }
  /// Makes the end of the connection a reset.
  void reset() {
    const linger now{1, 0};
    setsockopt(fd_of(io_), SOL_SOCKET, SO_LINGER, &now, sizeof now);
  }
  /// The TLS session, which ends without close_notify unless the play sends it; null without TLS.
  SSL* tls() {
    SSL* session = nullptr;
    BIO_get_ssl(io_, &session);
    return session;
  }

 private:
  BIO* io_;
  class FaultServer& server_;
};

class FaultServer {
 public:
  using Play = std::function<void(Peer&)>;

  /// Over TLS when an identity is given.
  explicit FaultServer(Play play, const Identity* identity = nullptr) : play_(std::move(play)) {
    if (identity != nullptr) {
      tls_context_.reset(SSL_CTX_new(TLS_server_method()), SSL_CTX_free);
      SSL_CTX_use_certificate_chain_file(tls_context_.get(), identity->certificate.c_str());
      SSL_CTX_use_PrivateKey_file(tls_context_.get(), identity->key.c_str(), SSL_FILETYPE_PEM);
      SSL_CTX_set_quiet_shutdown(tls_context_.get(), 1);  // the end of a play is a cut
    }
    acceptor_ = std::thread([this] { accept_all(); });
  }
  ~FaultServer() {
    shutdown(fd_of(listener_.io()), SHUT_RDWR);
    acceptor_.join();
    const std::lock_guard lock(mutex_);
    for (const int fd : open_) shutdown(fd, SHUT_RDWR);
  }

  int port() const { return listener_.port(); }
  std::string url(std::string_view path = "/") const {
    return (tls_context_ ? "https://localhost:" : "http://127.0.0.1:") + std::to_string(port()) +
           std::string(path);
  }
  int connections() const noexcept { return connections_; }
  /// The requests that `Peer::request` has read, whole or not: the first thousand.
  std::vector<std::string> requests() const {
    const std::lock_guard lock(mutex_);
    return requests_;
  }

 private:
  friend class Peer;

  void accept_all() {
    sigset_t broken_pipe;  // OpenSSL's writes raise it; the library under test must not
    sigemptyset(&broken_pipe);
    sigaddset(&broken_pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &broken_pipe, nullptr);  // on the plays' threads, too
    while (BIO_do_accept(listener_.io()) == 1) {
      ++connections_;
      BIO* const io = BIO_pop(listener_.io());
      BIO_set_tcp_ndelay(fd_of(io), 1);
      const std::lock_guard lock(mutex_);
      open_.insert(fd_of(io));
      std::erase_if(plays_, [](const auto& play) {
        return play.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
      });
      plays_.push_back(std::async(std::launch::async, &FaultServer::serve, this, io));
    }
  }
  void serve(BIO* io) {
    const int fd = fd_of(io);
    if (tls_context_) io = BIO_push(BIO_new_ssl(tls_context_.get(), 0), io);
    Peer peer(io, *this);
    if (!tls_context_ || BIO_do_handshake(io) == 1) play_(peer);
    const std::lock_guard lock(mutex_);
    open_.erase(fd);
    BIO_free_all(io);
  }

  Play play_;
  std::shared_ptr<SSL_CTX> tls_context_;
  Listener listener_;
  std::atomic<int> connections_ = 0;
  mutable std::mutex mutex_;
  std::set<int> open_;  // the connections' sockets
  std::vector<std::string> requests_;
  std::thread acceptor_;
  std::vector<std::future<void>> plays_;  // those that run, and some that have ended
};

inline std::string Peer::request() {
  std::string text;
  for (std::size_t size = std::string::npos; text.size() < size;) {
    const std::string piece = receive(65536);
    if (piece.empty()) break;
    text += piece;
    const std::size_t head_end = text.find("\r\n\r\n"), length = text.find("Content-Length: ");
    if (head_end == std::string::npos) continue;
    size = head_end + 4 + (length < head_end ? std::stoul(text.substr(length + 16)) : 0);
  }
  const std::lock_guard lock(server_.mutex_);
  if (!text.empty() && server_.requests_.size() < 1000) server_.requests_.push_back(text);
  return text;
}

}  // namespace engines::http::test
