// The whole of it: make a request under a policy and return the parsed JSON reply, or throw one of
// the failure kinds.
//
//   const Json reply = post_json(url, request, {.policy = policy,
//                                               .label = "decision call",
//                                               .headers = {{"Authorization", "Bearer " + key}}});
#pragma once

#include <string>
#include <string_view>

#include "engines/http/body.h"
#include "engines/http/json.h"
#include "engines/http/policy.h"
#include "engines/http/redaction.h"
#include "engines/http/required.h"
#include "engines/http/transport.h"

namespace engines::http {

/// What a call is told beside the URL and the body.
struct CallOptions {
  /// The attempts, the backoff, the statuses and the bounds. Referred to, not copied: it must
  /// outlive the options.
  const RetryPolicy& policy;
  /// Names the call in what is logged and thrown, as in "decision call".
  required<std::string> label;
  /// Sent with the request. The credentials among them are kept out of every message.
  Headers headers = {};
  /// Removed from every message and log line, together with those that the headers carry.
  Secrets secrets = {};
  /// Sends the request; none means `urlopen_transport`.
  Transport transport = nullptr;
};

/// POSTs `body` as JSON and returns the parsed reply. A body in braces needs its type:
/// `Json{{...}}`, or `Json::object()` for an empty one; `{}` is no body. Throws an `HttpFailure` of
/// the kind that says how the call failed, or `ValueError` for a request that cannot be sent.
Json post_json(std::string_view url, const Body& body, const CallOptions& options);

/// GETs `url` and returns the parsed reply. Throws as `post_json` does.
Json get_json(std::string_view url, const CallOptions& options);

/// What both are: a call by this method under this policy.
Json _request_json(std::string_view method, std::string_view url, const Body& body,
                   const RetryPolicy& policy, std::string_view label, const Headers& headers,
                   const Secrets& secrets, const Transport& transport);

}  // namespace engines::http
