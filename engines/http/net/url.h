// SPDX-License-Identifier: Apache-2.0
// URLs taken apart (RFC 3986): of a request, of a redirect, of a proxy.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace engines::http::net {

/// Scheme, host and port. Credentials are sent to one origin only.
struct Origin {
  std::string scheme;  // in lower case
  std::string host;    // in lower case; an IPv6 address in brackets
  std::string zone;    // of a link-local IPv6 address; empty: none (RFC 6874)
  std::string port;    // where the URL has none: 443 for https, 80 for http, 1080 for another proxy

  bool operator==(const Origin&) const = default;

  /// "host:port".
  std::string address() const { return host + ":" + port; }
  /// As in a `Host` header: the port only where it is not the scheme's own.
  std::string host_field() const;
};

struct Credentials {
  std::string user;
  std::string password;

  bool operator==(const Credentials&) const = default;
};

struct Url {
  std::string text;    // without userinfo; what a relative `Location` is relative to
  std::string target;  // path and query, as a request line has them (RFC 9112, section 3.2.1)
  Origin origin;
  std::optional<Credentials> credentials;  // the userinfo, percent-decoded; none: the URL has none

  bool operator==(const Url&) const = default;
};

/// Takes an absolute http or https URL apart. Throws `ValueError`, which names the part that cannot
/// be sent and quotes nothing of it: a missing or other scheme, no host, a bad port, white space,
/// control characters and characters outside ASCII (which a URL percent-encodes).
Url parse_url(std::string_view text);

/// The same for the URL of a proxy: http (where there is no scheme), https, socks4, socks4a, socks5
/// or socks5h. Where it has no port: 443 with https, else 1080.
Url parse_proxy_url(std::string_view text);

/// Where a `Location` leads from `base` (RFC 9110, section 10.2.2); none where that is no http or
/// https URL. Spaces and bytes outside ASCII, which servers send, are percent-encoded.
std::optional<Url> resolve(const Url& base, std::string_view location);

}  // namespace engines::http::net
