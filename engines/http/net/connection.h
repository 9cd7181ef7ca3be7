// SPDX-License-Identifier: Apache-2.0
// A connection to a peer, made by libcurl: name lookup, the choice among a host's addresses, a
// proxy's tunnel, SOCKS, TLS and its verification. `Exchange` speaks HTTP on it.
#pragma once

#include <curl/curl.h>
#include <openssl/types.h>

#include <exception>
#include <string>
#include <string_view>

#include "engines/http/net/limits.h"
#include "engines/http/net/proxy.h"
#include "engines/http/net/stream.h"
#include "engines/http/pool_options.h"

namespace engines::http::net {

/// Throws `ValueError`, which names the option, for certificates and keys of the options that
/// cannot be used.
void check_certificates(const PoolOptions& options);

class Connection final : public Stream {
 public:
  /// Connects, within the wait that the limits have begun. Throws a `URLError`, `Stopped`, or
  /// `ValueError`, which names the option or the variable, for certificates that cannot be used.
  Connection(Route route, const PoolOptions& options, const Limits& limits);
  ~Connection() override;

  const Route& route() const noexcept { return route_; }

  /// Whether this process made the connection. One that came through a fork shares its socket with
  /// the parent: anything done to it, closing included, would be seen by the parent's peer.
  bool is_ours() const noexcept;

  /// Whether the peer has neither ended the connection nor sent anything: what came unasked would
  /// be taken for the next reply.
  bool is_quiet();

  IoResult send(std::string_view bytes) override;
  IoResult receive(char* to, std::size_t room) override;
  void wait(bool to_send, Duration at_most) override;
  std::string reason() const override;

 private:
  /// Makes the handles and sets no options.
  explicit Connection(Route route);

  template <class Value>
  void set(CURLoption option, Value value);

  void set_up(const PoolOptions& options);
  void set_up_proxy();
  void set_up_tls(const PoolOptions& options);
  void connect(const Limits& limits);
  bool must_end(std::string_view proxy_line) noexcept;
  [[noreturn]] void fail() const;
  bool is_cut() const;
  int os_error() const;
  std::string quote() const;

  static CURLcode on_tls_context(CURL*, void* context, void* self) noexcept;
  static void on_tls_message(int, int, int, const void*, std::size_t, SSL* session,
                             void* self) noexcept;
  static std::size_t on_proxy_line(char* text, std::size_t, std::size_t size, void* self) noexcept;

  const Route route_;
  const unsigned fork_depth_;  // of the process that made the connection
  const bool is_secure_;       // whether the peer is spoken to over TLS
  curl_socket_t socket_ = CURL_SOCKET_BAD;
  long connect_errno_ = 0;     // CURLINFO_OS_ERRNO after connecting
  CURLcode error_ = CURLE_OK;  // of the last operation that failed
  char error_text_[CURL_ERROR_SIZE] = {};
  const Limits* limits_ = nullptr;  // null once connected
  std::exception_ptr failure_;      // of a callback; thrown by `connect`
  curl_slist* proxy_headers_ = nullptr;
  CURLM* const multi_;  // owns the connection
  CURL* const easy_;
};

}  // namespace engines::http::net
