// SPDX-License-Identifier: Apache-2.0
// Which proxy is used for an origin, and where a connection leads with it.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "engines/http/net/url.h"

namespace engines::http::net {

/// The proxy for requests to the origin; none: connect directly. `option`, where given, is the URL
/// of the proxy for all origins, or empty for no proxy. Otherwise the environment decides:
///   - http: http_proxy (not HTTP_PROXY, which the client of a CGI program can set)
///   - https: https_proxy, HTTPS_PROXY
///   - both, where these are not set: all_proxy, ALL_PROXY
///   - no proxy for what no_proxy or NO_PROXY lists, separated by commas or spaces: domains with
///     their subdomains, addresses, networks such as 10.0.0.0/8, or "*" for all hosts
/// Throws `ValueError`, which names the option or the variable and quotes nothing of the URL.
std::optional<Url> proxy_for(const Origin& origin, const std::optional<std::string>& option);

/// Where a connection leads. Requests share a connection only where their routes are equal, origins
/// included: a forwarding proxy may send all that comes on one connection to the same server.
struct Route {
  Origin origin;                                   // what the requests are for
  std::optional<Url> proxy;                        // none: there is none
  std::optional<std::string> proxy_authorization;  // the caller's; none: the proxy URL's userinfo

  bool operator==(const Route&) const = default;
  /// The proxy, where the requests are sent to it and it forwards them; else null.
  const Url* forwarder() const;
  /// The proxy, where it passes on the bytes of a connection to the origin; else null.
  const Url* tunnel() const;
  /// Whom an exchange speaks to: the origin, or the proxy that forwards its requests.
  const Origin& peer() const { return forwarder() ? proxy->origin : origin; }
};

/// Whether the list of no_proxy covers the host. An IPv6 address is in brackets.
bool is_excluded(std::string_view no_proxy, std::string_view host);

}  // namespace engines::http::net
