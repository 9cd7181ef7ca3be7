// The other end of the wire, on one thread of its own for the whole life of the fuzzer: it takes
// one connection at a time and plays it as the harness says.
#pragma once

#include <openssl/bio.h>
#include <openssl/ssl.h>

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

namespace fuzz {

class Server;

/// One accepted connection.
class Link {
 public:
  /// Some bytes; none: the client has gone, or waits itself. It is given longer where it has
  /// something to send for sure.
  std::string receive(bool is_owed);
  /// Nothing happens once the client has gone.
  void send(std::string_view bytes);
  /// Makes the end of the connection a reset.
  void reset();

 private:
  friend class Server;
  BIO* io_;
  int fd_;
  Server& server_;
  Link(BIO* io, int fd, Server& server) : io_(io), fd_(fd), server_(server) {}
};

class Server {
 public:
  /// Plays each connection, which ends with it.
  using Play = std::function<void(Link&)>;

  /// Over TLS where there is a context. It never ends.
  explicit Server(Play play, std::shared_ptr<SSL_CTX> tls = nullptr);
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  int port() const noexcept { return port_; }

  /// Calls `use` while the play stands still, having sent all that it wanted to send. What the
  /// play and the client share is touched by the client in here alone.
  template <class Use>
  void while_waiting(const Use& use) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return waiting_; });
    use();
  }

 private:
  friend class Link;
  [[noreturn]] void serve();
  void set_waiting(bool waiting);

  Play play_;
  std::shared_ptr<SSL_CTX> tls_;
  BIO* listener_;
  int port_;
  std::mutex mutex_;
  std::condition_variable changed_;
  bool waiting_ = false;
};

}  // namespace fuzz
