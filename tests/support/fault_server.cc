// SPDX-License-Identifier: Apache-2.0
#include "tests/support/fault_server.h"

#include <openssl/ssl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>

#include <chrono>
#include <cstdlib>
#include <stdexcept>

namespace engines::http::test {
namespace {

int fd_of(BIO* io) { return static_cast<int>(BIO_get_fd(io, nullptr)); }

int port_of(BIO* listener) { return std::atoi(BIO_get_accept_port(listener)); }

BIO* listen_on_loopback() {
  BIO* const listener = BIO_new_accept("127.0.0.1:0");
  if (BIO_do_accept(listener) != 1) throw std::runtime_error("no loopback port");
  return listener;
}

}  // namespace

// ---- Peer ---------------------------------------------------------------------------------------

std::string Peer::receive(std::size_t amt) {
  std::string bytes(amt, '\0');
  const int got = BIO_read(io_, bytes.data(), static_cast<int>(amt));
  bytes.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
  return bytes;
}

std::string Peer::request() {
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

bool Peer::send(std::string_view bytes) {
  while (!bytes.empty()) {
    const auto piece = bytes.substr(0, 65536);
    const int sent = BIO_write(io_, piece.data(), static_cast<int>(piece.size()));
    if (sent <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(sent));
  }
  return true;
}

void Peer::stall(int ms) {
  pollfd gone{fd_of(io_), POLLRDHUP, 0};
  poll(&gone, 1, ms);
}

void Peer::reset() {
  const linger now{1, 0};
  setsockopt(fd_of(io_), SOL_SOCKET, SO_LINGER, &now, sizeof now);
}

SSL* Peer::tls() {
  SSL* session = nullptr;
  BIO_get_ssl(io_, &session);
  return session;
}

// ---- FaultServer --------------------------------------------------------------------------------

FaultServer::FaultServer(Play play, const Identity* identity)
    : play_(std::move(play)), listener_(listen_on_loopback()), port_(port_of(listener_)) {
  if (identity != nullptr) {
    tls_context_.reset(SSL_CTX_new(TLS_server_method()), SSL_CTX_free);
    SSL_CTX_use_certificate_chain_file(tls_context_.get(), identity->certificate.c_str());
    SSL_CTX_use_PrivateKey_file(tls_context_.get(), identity->key.c_str(), SSL_FILETYPE_PEM);
    SSL_CTX_set_quiet_shutdown(tls_context_.get(), 1);  // the end of a play is a cut
  }
  acceptor_ = std::thread([this] { accept_all(); });
}

FaultServer::~FaultServer() {
  shutdown(fd_of(listener_), SHUT_RDWR);
  acceptor_.join();
  {
    const std::lock_guard lock(mutex_);
    for (const int fd : open_) shutdown(fd, SHUT_RDWR);
  }
  plays_.clear();
  BIO_free_all(listener_);
}

std::string FaultServer::url(std::string_view path) const {
  return (tls_context_ ? "https://localhost:" : "http://127.0.0.1:") + std::to_string(port_) +
         std::string(path);
}

std::vector<std::string> FaultServer::requests() const {
  const std::lock_guard lock(mutex_);
  return requests_;
}

void FaultServer::accept_all() {
  sigset_t broken_pipe;  // OpenSSL's writes raise it; the library under test must not
  sigemptyset(&broken_pipe);
  sigaddset(&broken_pipe, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &broken_pipe, nullptr);  // on the plays' threads, too
  while (BIO_do_accept(listener_) == 1) {
    ++connections_;
    BIO* const io = BIO_pop(listener_);
    BIO_set_tcp_ndelay(fd_of(io), 1);
    const std::lock_guard lock(mutex_);
    open_.insert(fd_of(io));
    std::erase_if(plays_, [](const auto& play) {
      return play.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
    });
    plays_.push_back(std::async(std::launch::async, &FaultServer::serve, this, io));
  }
}

void FaultServer::serve(BIO* io) {
  const int fd = fd_of(io);
  if (tls_context_) io = BIO_push(BIO_new_ssl(tls_context_.get(), 0), io);
  Peer peer(io, *this);
  if (!tls_context_ || BIO_do_handshake(io) == 1) play_(peer);
  const std::lock_guard lock(mutex_);
  open_.erase(fd);
  BIO_free_all(io);
}

int closed_port() {
  BIO* const listener = listen_on_loopback();
  const int port = port_of(listener);
  BIO_free_all(listener);
  return port;
}

}  // namespace engines::http::test
