// SPDX-License-Identifier: Apache-2.0
#include "engines/http/requests.h"

#include <optional>

#include "engines/http/reply.h"
#include "engines/http/retry.h"

namespace engines::http {

Json post_json(std::string_view url, const Body& body, const CallOptions& options) {
  return request_json("POST", url, body, options);
}

Json get_json(std::string_view url, const CallOptions& options) {
  return request_json("GET", url, {}, options);
}

Json request_json(std::string_view method, std::string_view url, const Body& body,
                  const CallOptions& options) {
  return _request_json(method, url, body, options.policy, *options.label, options.headers,
                       options.secrets, options.transport, options.inspect);
}

Json _request_json(std::string_view method, std::string_view url, const Body& body,
                   const RetryPolicy& policy, std::string_view label, const Headers& headers,
                   const Secrets& secrets, const Transport& transport, const Inspect& inspect) {
  // For the log and the last message; `send` collects its own.
  const Secrets hidden = detail::secrets_of_call(secrets, headers, url);
  const std::string verb(method);
  // One policy for the whole call: a copy would have its own state where its functions have some.
  const auto attempt = [&](double timeout) {
    std::optional<Json> value;
    detail::send(url, {policy, timeout, verb, body, headers, secrets, transport, inspect},
                 [&](Response& reply, const Secrets& of_attempt) {
                   value = read_json(reply, policy, of_attempt);
                 });
    return *std::move(value);
  };
  return retry(policy, attempt, {.label = std::string(label), .secrets = hidden});
}

}  // namespace engines::http
