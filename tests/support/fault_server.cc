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

int select_alpn(SSL*, const unsigned char** out, unsigned char* out_size, const unsigned char* in,
                unsigned in_size, void* wanted) {
  const auto& name = *static_cast<const std::string*>(wanted);
  const std::string list = static_cast<char>(name.size()) + name;
  const int found = SSL_select_next_proto(const_cast<unsigned char**>(out), out_size, in, in_size,
                                          reinterpret_cast<const unsigned char*>(list.data()),
                                          static_cast<unsigned>(list.size()));
  return found == OPENSSL_NPN_NEGOTIATED ? SSL_TLSEXT_ERR_OK : SSL_TLSEXT_ERR_NOACK;
}

int fd_of(BIO* io) { return static_cast<int>(BIO_get_fd(io, nullptr)); }

int port_of(BIO* listener) { return std::atoi(BIO_get_accept_port(listener)); }

}  // namespace

std::shared_ptr<SSL_CTX> tls_context(const Identity& identity, std::string* alpn) {
  std::shared_ptr<SSL_CTX> context(SSL_CTX_new(TLS_server_method()), SSL_CTX_free);
  if (SSL_CTX_use_certificate_chain_file(context.get(), identity.certificate.c_str()) != 1 ||
      SSL_CTX_use_PrivateKey_file(context.get(), identity.key.c_str(), SSL_FILETYPE_PEM) != 1) {
    throw std::runtime_error("no certificate for the fault server");
  }
  SSL_CTX_set_quiet_shutdown(context.get(), 1);  // the end of a play is a cut
  if (!alpn->empty()) SSL_CTX_set_alpn_select_cb(context.get(), select_alpn, alpn);
  return context;
}

BIO* listen_on_loopback() {
  BIO* const listener = BIO_new_accept("127.0.0.1:0");
  if (BIO_do_accept(listener) != 1) throw std::runtime_error("no loopback port");
  return listener;
}

// ---- Peer ---------------------------------------------------------------------------------------

std::string Peer::receive(std::size_t amt) {
  std::string bytes(amt, '\0');
  const int got = BIO_read(io_, bytes.data(), static_cast<int>(amt));
  bytes.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
  return bytes;
}

std::string Peer::request() {
  std::string text;
  std::size_t size = std::string::npos;
  while (text.size() < size) {
    const std::string piece = receive(65536);
    text += piece;
    const std::size_t head_end = text.find("\r\n\r\n");
    if (head_end != std::string::npos && size == std::string::npos) {
      const std::size_t length = text.find("Content-Length: ");
      size = head_end + 4;
      if (length < head_end) size += std::strtoul(text.c_str() + length + 16, nullptr, 10);
    }
    if (piece.empty()) break;
  }
  if (!text.empty()) {
    const std::lock_guard lock(server_.mutex_);
    server_.requests_.push_back(text);
  }
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

void Peer::drip(std::string_view bytes, int pause_ms) {
  for (const char& byte : bytes) {
    if (!send({&byte, 1})) return;
    sleep(pause_ms);
  }
}

void Peer::sleep(int ms) {
  std::unique_lock lock(server_.mutex_);
  server_.stopped_.wait_for(lock, std::chrono::milliseconds(ms), [this] { return server_.stop_; });
}

void Peer::stall() {
  pollfd gone{fd_, POLLRDHUP, 0};
  poll(&gone, 1, -1);
}

void Peer::reset() {
  const linger now{1, 0};
  setsockopt(fd_, SOL_SOCKET, SO_LINGER, &now, sizeof now);
}

bool Peer::renew_key() {
  SSL* tls = nullptr;
  BIO_get_ssl(io_, &tls);
  return SSL_key_update(tls, SSL_KEY_UPDATE_NOT_REQUESTED) == 1 && SSL_do_handshake(tls) == 1;
}

void Peer::say_goodbye() {
  SSL* tls = nullptr;
  BIO_get_ssl(io_, &tls);
  SSL_set_quiet_shutdown(tls, 0);
  SSL_shutdown(tls);
  SSL_set_quiet_shutdown(tls, 1);
}

// ---- FaultServer --------------------------------------------------------------------------------

FaultServer::FaultServer(Play play, const Identity* identity, std::string alpn)
    : play_(std::move(play)),
      alpn_(std::move(alpn)),
      listener_(listen_on_loopback()),
      port_(port_of(listener_)) {
  if (identity != nullptr) tls_context_ = tls_context(*identity, &alpn_);
  acceptor_ = std::thread([this] { accept_all(); });
}

FaultServer::~FaultServer() {
  {
    const std::lock_guard lock(mutex_);
    stop_ = true;
    for (const int fd : open_) shutdown(fd, SHUT_RDWR);
  }
  stopped_.notify_all();
  shutdown(fd_of(listener_), SHUT_RDWR);
  acceptor_.join();
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
  while (BIO_do_accept(listener_) == 1) {
    ++connections_;
    std::erase_if(plays_, [](const auto& play) {
      return play.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
    });
    plays_.push_back(std::async(std::launch::async, &FaultServer::serve, this, BIO_pop(listener_)));
  }
}

void FaultServer::serve(BIO* io) {
  sigset_t broken_pipe;  // OpenSSL's writes raise it; the library under test must not
  sigemptyset(&broken_pipe);
  sigaddset(&broken_pipe, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &broken_pipe, nullptr);
  const int fd = fd_of(io);
  BIO_set_tcp_ndelay(fd, 1);
  {
    const std::lock_guard lock(mutex_);
    open_.insert(fd);
    if (stop_) shutdown(fd, SHUT_RDWR);
  }
  if (tls_context_) io = BIO_push(BIO_new_ssl(tls_context_.get(), 0), io);
  Peer peer(io, fd, *this);
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
