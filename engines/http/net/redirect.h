// SPDX-License-Identifier: Apache-2.0
// The requests of one call: the first, checked before it is sent, and those that follow redirects.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "engines/http/net/url.h"
#include "engines/http/transport.h"

namespace engines::http::net {

struct Hop {
  Url url;
  /// The userinfo to send; none after a redirect to another origin, or where the headers hold an
  /// `Authorization`.
  std::optional<Credentials> credentials;
  std::string method;
  Headers headers;
  /// Borrowed from the request; none: no body is sent.
  std::optional<std::string_view> body;
};

/// Whether the text is a token, as methods and names of headers are (RFC 9110, section 5.6.2).
bool is_token(std::string_view text) noexcept;

/// Whether the character may not appear in a header's value (RFC 9110, section 5.5).
bool is_forbidden_in_value(char c) noexcept;

/// The first hop of a request. Throws `ValueError`, which names the part and quotes no value, for
/// what could not be sent as it is given:
///   - a URL that `parse_url` refuses;
///   - a method or a header name that is no token, or a control character in a header's value
///     (RFC 9110, sections 5.5, 5.6.2 and 9.1): they would start another header or request;
///   - a `Content-Length`, `Transfer-Encoding` or `Host` that contradicts the request, and the
///     method `CONNECT`: the peer would see another end of the message, or another request;
///   - `Expect`: a body is sent without waiting for 100 (Continue).
/// The request must outlive the hop, which borrows its body.
Hop first_hop(const Request& request);

/// What follows a reply with this status and `Location`; none where the reply is final (RFC 9110,
/// section 15.4). 307 and 308 repeat the request. 303 turns any method but GET and HEAD into a GET
/// without a body; 301 and 302 do so with a POST. Another origin gets no credentials and only
/// harmless headers. Userinfo in the `Location` is ignored.
std::optional<Hop> next_hop(const Hop& hop, StatusCode status,
                            const std::optional<std::string>& location);

}  // namespace engines::http::net
