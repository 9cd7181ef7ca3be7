// SPDX-License-Identifier: Apache-2.0
// How a pool of connections connects, and what it keeps.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "engines/http/export.h"
#include "engines/http/seconds.h"

namespace engines::http {

/// How a `PooledTransport` connects, and what it keeps.
struct ENGINES_HTTP_EXPORT PoolOptions {
  /// File of trusted CA certificates (PEM); empty: `SSL_CERT_FILE`, else the platform's.
  std::string ca_file = {};
  /// Directory of trusted CA certificates, hashed; empty: `SSL_CERT_DIR`, else the platform's.
  /// Where only one of `ca_file` and `ca_directory` is given, nothing else is trusted.
  std::string ca_directory = {};
  /// File of the client's own certificate (PEM); empty: none.
  std::string client_certificate = {};
  /// File of the private key of `client_certificate` (PEM, without a password); empty: in the same
  /// file.
  std::string client_key = {};
  /// URL of the proxy for every request: http, https, socks4, socks4a, socks5 or socks5h. Empty: no
  /// proxy; `nullopt`: from the environment.
  std::optional<std::string> proxy = std::nullopt;
  /// The longest that connecting may take in all, in seconds: name lookup, proxy and TLS included.
  /// None: the timeout of the call bounds it alone.
  std::optional<Seconds> connect_timeout_s = std::nullopt;
  /// The `User-Agent`, unless the request has its own; empty: none.
  std::string user_agent = "engines-http";
  /// How many redirects one request follows, 0 or more.
  int max_redirects = 10;
  /// How many header fields a reply may have, those of interim replies and trailers included.
  std::size_t max_headers = 100;
  /// How many bytes a reply's headers may have together. The most: 300 KiB.
  std::size_t max_header_bytes = 307200;
  /// How many idle connections are kept.
  std::size_t max_idle = 8;
  /// How long an idle connection is kept, in seconds.
  Seconds max_idle_s = 60;
};

}  // namespace engines::http
