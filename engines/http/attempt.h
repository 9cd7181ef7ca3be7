// One attempt: encodes the request, sends it through a transport, hands the open reply to the
// caller's reader and closes it. It never tries again; what it throws goes to the retry loop.
//
//   std::size_t bytes = send<std::size_t>(url, {.policy = policy,
//                                               .timeout = 30.0,
//                                               .read = [](Response& reply) { ... },
//                                               .body = request});
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>

#include "engines/http/body.h"
#include "engines/http/failure.h"
#include "engines/http/policy.h"
#include "engines/http/redaction.h"
#include "engines/http/required.h"
#include "engines/http/transport.h"

namespace engines::http {

/// What `send` is told beside the URL.
template <class Result>
struct SendOptions {
  /// How a failure is judged. Referred to, not copied: it must outlive the options.
  const RetryPolicy& policy;
  /// Socket timeout of the attempt, in seconds.
  required<Seconds> timeout;
  /// Takes the open reply; what it returns, `send` returns: a value that can be moved, a reference,
  /// or nothing. It can be copied, and does not close the reply.
  required<std::function<Result(Response& reply)>> read;
  /// Sent as it is given.
  std::string method = "POST";
  /// Sent as JSON; a null body is no body.
  Body body = {};
  /// Sent with the request. A body adds "Content-Type: application/json" unless it is among them.
  Headers headers = {};
  /// Removed from every message, together with those that the headers carry.
  Secrets secrets = {};
  /// Sends the request; none means `urlopen_transport`.
  Transport transport = nullptr;
};

namespace detail {

/// `SendOptions` without the result's type.
struct AttemptFields {
  const RetryPolicy& policy;
  double timeout;
  const std::string& method;
  const Body& body;
  const Headers& headers;
  const Secrets& secrets;
  const Transport& transport;
};

void send(std::string_view url, const AttemptFields& fields,
          const std::function<void(Response&)>& read);

/// Borrows everything that it is given.
template <class Result, class Read>
Result send_for(std::string_view url, const AttemptFields& fields, const Read& read) {
  if constexpr (std::is_void_v<Result>) {
    send(url, fields, std::cref(read));
  } else if constexpr (std::is_reference_v<Result>) {
    std::remove_reference_t<Result>* result = nullptr;
    send(url, fields, [&](Response& reply) { result = &read(reply); });
    return static_cast<Result>(*result);
  } else {
    std::optional<Result> result;
    send(url, fields, [&](Response& reply) { result.emplace(read(reply)); });
    return *std::move(result);
  }
}

}  // namespace detail

/// Makes one attempt and returns what the reader returns. Throws the failure that the transport's
/// or the reader's network error or error status becomes under the policy (see `classify`). What
/// the reader or the transport throws beyond that passes through unchanged, as does the
/// `ValueError` for a body that cannot be encoded. The reply is closed in every case; a failing
/// close replaces the outcome.
template <class Result>
Result send(std::string_view url, const SendOptions<Result>& options) {
  const detail::AttemptFields fields{options.policy,   *options.timeout, options.method,
                                     options.body,     options.headers,  options.secrets,
                                     options.transport};
  return detail::send_for<Result>(url, fields, *options.read);
}

/// What a transport did: the open reply, or the failure that its error became.
using ReplyOrFailure = std::variant<std::shared_ptr<Response>, FailurePtr>;

/// Calls the transport. An `HTTPError` whose code is among the policy's `error_replies` is the
/// reply itself; any other network or protocol failure is returned classified, never thrown.
ReplyOrFailure _reply_or_failure(const Transport& transport, const Request& request, double timeout,
                                 const RetryPolicy& policy, const Secrets& secrets);

}  // namespace engines::http
