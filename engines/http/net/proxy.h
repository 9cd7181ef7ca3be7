// SPDX-License-Identifier: Apache-2.0
// Which proxy is used for an origin.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "engines/http/net/url.h"

namespace engines::http::net {

/// The proxy for requests to the origin; none: there is none. `option` is the URL of one for all
/// origins, empty for none; without it the environment decides:
///   http_proxy (in lower case alone: a CGI program gets HTTP_PROXY from its client), https_proxy
///   or HTTPS_PROXY; for both, all_proxy or ALL_PROXY; no_proxy or NO_PROXY: names whose hosts,
///   subdomains included, are connected to directly, addresses, and networks as 10.0.0.0/8;
///   separated by commas or spaces; "*": all.
/// Throws `ValueError`, which names the option or the variable and quotes nothing of the URL.
std::optional<Url> proxy_for(const Origin& origin, const std::optional<std::string>& option);

/// Whether a request to the origin is sent to the proxy itself, which forwards it. Otherwise the
/// proxy is a tunnel, which passes on the bytes of a connection to the origin.
bool is_forwarding(const Url& proxy, const Origin& origin);

/// Whether a list as in no_proxy covers the host, an IPv6 address being in brackets.
bool is_excluded(std::string_view no_proxy, std::string_view host);

}  // namespace engines::http::net
