// SPDX-License-Identifier: Apache-2.0
// Which proxy is used for an origin.
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

/// Whether a request to the origin is sent to the proxy itself, which forwards it. Otherwise the
/// proxy is a tunnel, which passes on the bytes of a connection to the origin.
bool is_forwarding(const Url& proxy, const Origin& origin);

/// Whether the list of no_proxy covers the host. An IPv6 address is in brackets.
bool is_excluded(std::string_view no_proxy, std::string_view host);

}  // namespace engines::http::net
