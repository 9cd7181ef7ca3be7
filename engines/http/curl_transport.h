// SPDX-License-Identifier: Apache-2.0
// The library's transports: `urlopen_transport`, which keeps nothing between calls, and
// `PooledTransport`, which keeps connections.
//
//   PooledTransport pool({.ca_file = "ca.pem", .max_idle = 4});
//   Json reply = post_json(url, body, {.policy = policy, .label = "embed", .transport = pool});
//
// Both connect with libcurl and speak HTTP/1.1 on the caller's thread; the body is received as it
// is read. They follow redirects by the usual rules, ask for gzip and decode it unless the request
// has an `Accept-Encoding` of its own, and never send a request a second time by themselves.
// docs/transport.md lists which situation ends in which failure.
#pragma once

#include <memory>

#include "engines/http/export.h"
#include "engines/http/pool_options.h"
#include "engines/http/transport.h"

namespace engines::http {

/// The default transport. Keeps no state: each call connects anew, with the defaults of
/// `PoolOptions`. Any number of threads may call it at once.
///
/// `options.timeout` bounds, in seconds: connecting (name lookup, proxy and TLS included) as a
/// whole, each wait while the request is sent, the wait for the reply's headers as a whole, and
/// each read of the body. Zero, a negative value and NaN time out at once; more than 1,000,000 s
/// counts as that. `options.time_left` and `options.should_stop` end any of these waits, and the
/// reads.
///
/// Throws the errors of transport.h, `Stopped`, and `ValueError` (`std::invalid_argument`): for a
/// request that cannot be sent as it is given, and for an environment variable that names an
/// unusable proxy or certificates that cannot be read; before anything is sent, unless a redirect
/// leads to where the variable counts. The reply must be used by one thread at a time.
ENGINES_HTTP_EXPORT std::shared_ptr<Response> urlopen_transport(const Request& request,
                                                                TransportOptions options);

namespace net {
class Pool;
}

/// A transport that keeps connections for later calls. A handle: copies share one pool, which lives
/// until the last copy and the last reply are gone. Any number of threads may call it at once, and
/// a child of a fork may go on using it, with connections of its own.
///
/// Bounds and failures are those of `urlopen_transport`. A connection serves another call once its
/// reply is closed and the whole body has arrived; one that the peer closed meanwhile is replaced,
/// and one that breaks during a request ends the attempt: whether to send the request again is for
/// the caller's policy.
class ENGINES_HTTP_EXPORT PooledTransport {
 public:
  /// Throws `ValueError`, which names the option, for certificates, a key or a proxy that cannot be
  /// used, and for a user agent that holds a control character.
  explicit PooledTransport(PoolOptions options = {});

  /// Throws as `urlopen_transport` does.
  std::shared_ptr<Response> operator()(const Request& request, TransportOptions options) const;

 private:
  std::shared_ptr<net::Pool> pool_;
};

}  // namespace engines::http
