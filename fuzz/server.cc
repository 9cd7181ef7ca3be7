#include "fuzz/server.h"

#include <poll.h>
#include <signal.h>
#include <sys/socket.h>

#include <cstdlib>
#include <thread>
#include <utility>

#include "tests/support/fault_server.h"

namespace fuzz {
namespace {

// A client that waits for more than the input holds is left, so that a stall costs no timeout.
constexpr int PATIENCE_MS = 5;
constexpr int OWED_PATIENCE_MS = 2000;

int fd_of(BIO* io) { return static_cast<int>(BIO_get_fd(io, nullptr)); }

}  // namespace

std::string Link::receive(bool is_owed) {
  std::string bytes(16384, '\0');
  int got = 0;
  server_.set_waiting(true);
  // So is one that connects anew meanwhile.
  pollfd ready[] = {{fd_, POLLIN, 0}, {fd_of(server_.listener_), POLLIN, 0}};
  if (BIO_pending(io_) > 0 ||
      (poll(ready, is_owed ? 1 : 2, is_owed ? OWED_PATIENCE_MS : PATIENCE_MS) > 0 &&
       ready[0].revents != 0)) {
    got = BIO_read(io_, bytes.data(), static_cast<int>(bytes.size()));
  }
  server_.set_waiting(false);
  bytes.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
  return bytes;
}

void Link::send(std::string_view bytes) {
  if (!bytes.empty()) BIO_write(io_, bytes.data(), static_cast<int>(bytes.size()));
}

void Link::reset() {
  const linger now{.l_onoff = 1, .l_linger = 0};
  setsockopt(fd_, SOL_SOCKET, SO_LINGER, &now, sizeof now);
}

Server::Server(Play play, std::shared_ptr<SSL_CTX> tls)
    : play_(std::move(play)),
      tls_(std::move(tls)),
      listener_(engines::http::test::listen_on_loopback()),
      port_(std::atoi(BIO_get_accept_port(listener_))) {
  // A redirect may name any host: what would leave this one goes to a proxy that does not exist.
  for (const char* proxy : {"http_proxy", "https_proxy", "all_proxy"}) {
    setenv(proxy, "http://127.0.0.1:1", 1);
  }
  setenv("no_proxy", "127.0.0.1,localhost", 1);
  std::thread([this] { serve(); }).detach();
}

void Server::set_waiting(bool waiting) {
  const std::lock_guard lock(mutex_);
  waiting_ = waiting;
  changed_.notify_all();
}

void Server::serve() {
  sigset_t broken_pipe;
  sigemptyset(&broken_pipe);
  sigaddset(&broken_pipe, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &broken_pipe, nullptr);
  for (;;) {
    set_waiting(true);
    const bool accepted = BIO_do_accept(listener_) == 1;
    set_waiting(false);
    if (!accepted) continue;
    BIO* io = BIO_pop(listener_);
    const int fd = fd_of(io);
    BIO_set_tcp_ndelay(fd, 1);
    if (tls_) io = BIO_push(BIO_new_ssl(tls_.get(), 0), io);
    Link link(io, fd, *this);
    if (!tls_ || BIO_do_handshake(io) == 1) play_(link);
    BIO_free_all(io);
  }
}

}  // namespace fuzz
