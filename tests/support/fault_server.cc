#include "tests/support/fault_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <stdexcept>

namespace engines::http::test {
namespace {

int listen_on_loopback(int& port) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), size) != 0 || listen(fd, 64) != 0 ||
      getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
    throw std::runtime_error("no loopback port");
  }
  port = ntohs(address.sin_port);
  return fd;
}

int select_alpn(SSL*, const unsigned char** out, unsigned char* out_size, const unsigned char* in,
                unsigned in_size, void* wanted) {
  const auto& name = *static_cast<const std::string*>(wanted);
  for (unsigned at = 0; at < in_size; at += in[at] + 1U) {
    if (std::string_view(reinterpret_cast<const char*>(in) + at + 1, in[at]) != name) continue;
    *out = in + at + 1;
    *out_size = in[at];
    return SSL_TLSEXT_ERR_OK;
  }
  return SSL_TLSEXT_ERR_NOACK;
}

std::shared_ptr<void> tls_context(const Identity& identity, std::string* alpn) {
  std::shared_ptr<SSL_CTX> context(SSL_CTX_new(TLS_server_method()), SSL_CTX_free);
  if (SSL_CTX_use_certificate_chain_file(context.get(), identity.certificate.c_str()) != 1 ||
      SSL_CTX_use_PrivateKey_file(context.get(), identity.key.c_str(), SSL_FILETYPE_PEM) != 1) {
    throw std::runtime_error("no certificate for the fault server");
  }
  if (!alpn->empty()) SSL_CTX_set_alpn_select_cb(context.get(), select_alpn, alpn);
  return context;
}

}  // namespace

// ---- Peer ---------------------------------------------------------------------------------------

bool Peer::readable(int timeout_ms) {
  if (tls_ != nullptr && SSL_pending(static_cast<SSL*>(tls_)) > 0) return true;
  pollfd fds[] = {{fd_, POLLIN, 0}, {server_.stop_[0], POLLIN, 0}};
  return poll(fds, 2, timeout_ms) > 0 && fds[1].revents == 0;
}

std::string Peer::receive(std::size_t amt) {
  std::string bytes(amt, '\0');
  if (!readable(-1)) return {};
  const auto got = tls_ != nullptr
                       ? SSL_read(static_cast<SSL*>(tls_), bytes.data(), static_cast<int>(amt))
                       : recv(fd_, bytes.data(), amt, 0);
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
    pollfd fds[] = {{fd_, POLLOUT, 0}, {server_.stop_[0], POLLIN, 0}};
    if (poll(fds, 2, -1) < 0 || fds[1].revents != 0) return false;
    const auto piece = bytes.substr(0, 65536);
    const auto sent = tls_ != nullptr ? SSL_write(static_cast<SSL*>(tls_), piece.data(),
                                                  static_cast<int>(piece.size()))
                                      : ::send(fd_, piece.data(), piece.size(), MSG_NOSIGNAL);
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
  pollfd stop{server_.stop_[0], POLLIN, 0};
  poll(&stop, 1, ms);
}

void Peer::stall() {
  pollfd fds[] = {{fd_, POLLRDHUP, 0}, {server_.stop_[0], POLLIN, 0}};
  poll(fds, 2, -1);
}

void Peer::reset() {
  const linger now{1, 0};
  setsockopt(fd_, SOL_SOCKET, SO_LINGER, &now, sizeof now);
}

void Peer::say_goodbye() { SSL_shutdown(static_cast<SSL*>(tls_)); }

// ---- FaultServer --------------------------------------------------------------------------------

FaultServer::FaultServer(Play play, const Identity* identity, std::string alpn)
    : play_(std::move(play)), alpn_(std::move(alpn)), listener_(listen_on_loopback(port_)) {
  if (identity != nullptr) tls_context_ = tls_context(*identity, &alpn_);
  if (pipe(stop_) != 0) throw std::runtime_error("no pipe");
  acceptor_ = std::thread([this] { accept_all(); });
}

FaultServer::~FaultServer() {
  close(stop_[1]);
  acceptor_.join();
  for (auto& thread : connection_threads_) thread.join();
  close(stop_[0]);
  close(listener_);
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
  for (;;) {
    pollfd fds[] = {{listener_, POLLIN, 0}, {stop_[0], POLLIN, 0}};
    if (poll(fds, 2, -1) < 0 || fds[1].revents != 0) return;
    const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) continue;
    const int at_once = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &at_once, sizeof at_once);
    ++connections_;
    connection_threads_.emplace_back([this, fd] { serve(fd); });
  }
}

void FaultServer::serve(int fd) {
  sigset_t broken_pipe;  // OpenSSL's writes raise it; the library under test must not
  sigemptyset(&broken_pipe);
  sigaddset(&broken_pipe, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &broken_pipe, nullptr);
  Peer peer(fd, *this);
  std::unique_ptr<SSL, decltype(&SSL_free)> tls(nullptr, SSL_free);
  bool ready = true;
  if (tls_context_) {
    tls.reset(SSL_new(static_cast<SSL_CTX*>(tls_context_.get())));
    SSL_set_fd(tls.get(), fd);
    ready = SSL_accept(tls.get()) == 1;
    peer.tls_ = tls.get();
  }
  if (ready) play_(peer);
  close(fd);
}

int closed_port() {
  int port = 0;
  close(listen_on_loopback(port));
  return port;
}

}  // namespace engines::http::test
