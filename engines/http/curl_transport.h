// The transports over libcurl: `urlopen_transport`, which keeps nothing between calls, and
// `PooledTransport`, which keeps connections.
//
//   PooledTransport pool{PoolOptions{.ca_file = "ca.pem", .max_idle = 4}};
//   Json reply = post_json(url, body, {.policy = policy, .label = "embed", .transport = pool});
//
// Both pull the reply on the caller's thread as it is read, start no thread (libcurl's name lookup
// aside), follow redirects by the usual rules, and never send a request a second time by
// themselves. docs/transport.md says which situation ends in which failure.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>

#include "engines/http/seconds.h"
#include "engines/http/stop_signal.h"
#include "engines/http/transport.h"

namespace engines::http {

/// The highest version of HTTP that is offered to a peer.
enum class HttpVersion {
  http1_1,  ///< HTTP/1.1 only
  http2,    ///< HTTP/2 where the peer offers it over TLS, else HTTP/1.1
};

/// How a `PooledTransport` connects, and what it keeps.
struct PoolOptions {
  /// File of trusted CA certificates (PEM); empty: `SSL_CERT_FILE`, else the platform's.
  std::string ca_file = {};
  /// Directory of trusted CA certificates, hashed; empty: `SSL_CERT_DIR`, else the platform's.
  /// Where only one of `ca_file` and `ca_directory` is given, nothing else is trusted.
  std::string ca_directory = {};
  /// File of the client's own certificate (PEM); empty: none.
  std::string client_certificate = {};
  /// File of the private key of `client_certificate` (PEM); empty: in the same file.
  std::string client_key = {};
  /// URL of the proxy for every request; empty: no proxy; none: as the environment says.
  std::optional<std::string> proxy = std::nullopt;
  /// The highest version of HTTP that is offered to a peer. Default: HTTP/2.
  HttpVersion http_version = HttpVersion::http2;
  /// The `User-Agent`, unless the request has its own; empty: none.
  std::string user_agent = "engines-http";
  /// How many redirects one request follows, 0 or more. Default: 10.
  int max_redirects = 10;
  /// How many header lines a reply may have, trailers included. Default: 100.
  std::size_t max_headers = 100;
  /// How many bytes a reply's header lines may have together. Default, and the most: 300 KiB.
  std::size_t max_header_bytes = 307200;
  /// How many idle connections are kept. Default: 8.
  std::size_t max_idle = 8;
  /// How long an idle connection is kept, in seconds. Default: 60.
  Seconds max_idle_s = 60;
  /// Asked at least every 0.1 s while a call waits, and at each read: once it says true, the call
  /// or the read ends as `Stopped`. None: never asked.
  StopSignal should_stop = nullptr;
};

/// The default transport. Keeps no state: each call connects anew, over HTTP/1.1, with the defaults
/// of `PoolOptions`.
///
/// `options.timeout` bounds, in seconds: connecting (name lookup, proxy and TLS included) as a
/// whole, each wait while the body is sent, the wait for the reply's headers as a whole, and each
/// read of the body. Zero, a negative value or NaN has passed at once; from 1,000,000 s on it is
/// 1,000,000 s.
///
/// Throws the kinds of transport.h, and `std::invalid_argument` before anything is sent for a
/// request that cannot be sent as it is given. The reply must be used by one thread at a time.
std::shared_ptr<Response> urlopen_transport(const Request& request, TransportOptions options);

namespace detail {
class Pool;
}

/// A transport that keeps connections for later calls. A handle: copies share one pool, which lives
/// until the last copy and the last reply are gone. Any number of threads may call it at once, and
/// a child of a fork may go on using it, with connections of its own.
///
/// Bounds and failures are those of `urlopen_transport`. A connection serves another call only
/// after its reply has come whole and was closed; one that was closed by the peer meanwhile is
/// replaced unseen, and one that dies under a request ends the call: whether to send the request
/// again is for the caller's policy.
class PooledTransport {
 public:
  /// Throws `std::invalid_argument` for a user agent that holds a control character.
  explicit PooledTransport(PoolOptions options = {});

  /// Throws as `urlopen_transport` does, and `Stopped` once `should_stop` says so.
  std::shared_ptr<Response> operator()(const Request& request, TransportOptions options) const;

 private:
  std::shared_ptr<detail::Pool> pool_;
};

}  // namespace engines::http
