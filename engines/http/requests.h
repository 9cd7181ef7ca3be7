// SPDX-License-Identifier: Apache-2.0
// Whole calls: make a request under a policy and return the parsed JSON reply, or throw one of the
// failure kinds.
//
//   const Json reply = post_json(url, request, {.policy = policy,
//                                               .label = "decision call",
//                                               .headers = {{"Authorization", "Bearer " + key}}});
#pragma once

#include <string>
#include <string_view>

#include "engines/http/attempt.h"
#include "engines/http/body.h"
#include "engines/http/export.h"
#include "engines/http/json.h"
#include "engines/http/policy.h"
#include "engines/http/redaction.h"
#include "engines/http/required.h"
#include "engines/http/transport.h"

namespace engines::http {

/// The fields of `CallOptions`; a template only so that options without a policy do not compile.
template <class Given = void>
struct ENGINES_HTTP_EXPORT CallFields {
  /// The attempts, the backoff, the statuses and the bounds. Must be given.
  RetryPolicy policy = detail::missing<RetryPolicy, Given>();
  /// Names the call in what is logged and thrown, as in "decision call".
  required<std::string> label;
  /// Sent with the request. The credentials among them are kept out of every message.
  Headers headers = {};
  /// Removed from every message and log line, together with those that the headers and the URL
  /// carry.
  Secrets secrets = {};
  /// Sends the request; none means `urlopen_transport`.
  Transport transport = nullptr;
  /// See `Inspect`.
  Inspect inspect = nullptr;
};

/// The parameters of a call other than the URL and the body, given by name, in this order. The
/// options own what they hold and may be kept and copied.
using CallOptions = CallFields<>;

/// POSTs `body` (see `Body`) and returns the parsed reply. A body in braces needs its type:
/// `Json{{...}}`, or `Json::object()` for an empty one; `{}` is no body. Throws an `HttpFailure` of
/// the kind that describes the failure, or `ValueError` for a request that cannot be sent.
ENGINES_HTTP_EXPORT Json post_json(std::string_view url, const Body& body,
                                   const CallOptions& options);

/// GETs `url` and returns the parsed reply. Throws as `post_json` does.
ENGINES_HTTP_EXPORT Json get_json(std::string_view url, const CallOptions& options);

/// The same with any method, such as PUT, PATCH or DELETE; `{}` is no body. Throws as `post_json`
/// does.
ENGINES_HTTP_EXPORT Json request_json(std::string_view method, std::string_view url,
                                      const Body& body, const CallOptions& options);

/// Implements the three functions above.
ENGINES_HTTP_EXPORT Json _request_json(std::string_view method, std::string_view url,
                                       const Body& body, const RetryPolicy& policy,
                                       std::string_view label, const Headers& headers,
                                       const Secrets& secrets, const Transport& transport,
                                       const Inspect& inspect = nullptr);

}  // namespace engines::http
