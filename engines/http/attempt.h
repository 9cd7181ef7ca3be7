// SPDX-License-Identifier: Apache-2.0
// One attempt: builds the request, sends it through a transport, hands the open reply to the
// caller's reader and closes it. It never tries again; what it throws goes to the retry loop.
//
//   Json answer = send<Json>(url, {.policy = policy,
//                                  .timeout = 30.0,
//                                  .read = read_json,
//                                  .body = request});
#pragma once

#include <concepts>
#include <functional>
#include <memory>
#include <optional>
#include <ranges>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>

#include "engines/http/body.h"
#include "engines/http/export.h"
#include "engines/http/failure.h"
#include "engines/http/policy.h"
#include "engines/http/redaction.h"
#include "engines/http/required.h"
#include "engines/http/transport.h"

namespace engines::http {

/// Called with each open reply, error replies included, before its body is read; may use `status()`
/// and `headers()`. What it throws passes through `send` unchanged; `retry` repeats a `Retryable`.
using Inspect = std::function<void(const Response& reply)>;

namespace detail {

/// A number that may not fit, such as a double returned as an int.
template <class From, class To>
concept Narrows = std::is_arithmetic_v<To> && !requires(From from) {
  To{static_cast<From>(from)};
};

/// A reference or view that would point into the reader's temporary result.
template <class From, class To>
concept Dangles = !std::is_reference_v<From> && !std::same_as<From, To> &&
                  (std::is_reference_v<To> || std::ranges::enable_borrowed_range<To>);

template <class From, class To>
concept ReturnsAs = std::is_void_v<To> ||
    (std::is_convertible_v<From, To> && !Narrows<From, To> && !Dangles<From, To>);

/// Whether `Read` can be called with a reply and these, and returns a `Result`.
template <class Read, class Result, class... More>
concept Reads = std::invocable<Read&, Response&, const More&...> &&
    ReturnsAs<std::invoke_result_t<Read&, Response&, const More&...>, Result>;

}  // namespace detail

/// Reads an open reply. It converts from any function that takes the reply and after it, where the
/// function wants them, the policy, the secrets that the attempt hides, or both, in this order:
///
///   [](Response& reply) { ... }
///   [](Response& reply, const Secrets& hidden) { ... }
///   read_json, read_body
///
/// A function that quotes what the peer sent must quote it by `excerpt(text, hidden)`.
template <class Result>
class ENGINES_HTTP_EXPORT Reader
    : public std::function<Result(Response&, const RetryPolicy&, const Secrets& hidden)> {
 public:
  /// Calls this function, taken by value.
  template <class Read>
  requires(!std::same_as<Read, Reader> &&
           (detail::Reads<Read, Result, RetryPolicy, Secrets> ||
            detail::Reads<Read, Result, Secrets> || detail::Reads<Read, Result, RetryPolicy> ||
            detail::Reads<Read, Result>)) Reader(Read read)
      : Reader::function([read = std::move(read)](Response& reply, const RetryPolicy& policy,
                                                  const Secrets& hidden) mutable -> Result {
          if constexpr (detail::Reads<Read, Result, RetryPolicy, Secrets>) {
            return static_cast<Result>(read(reply, policy, hidden));
          } else if constexpr (detail::Reads<Read, Result, Secrets>) {
            return static_cast<Result>(read(reply, hidden));
          } else if constexpr (detail::Reads<Read, Result, RetryPolicy>) {
            return static_cast<Result>(read(reply, policy));
          } else {
            return static_cast<Result>(read(reply));
          }
        }) {}
};

/// The parameters of `send` other than the URL, given by name, in this order. The options own what
/// they hold and may be kept and copied.
template <class Result>
struct ENGINES_HTTP_EXPORT SendOptions {
  /// Judges failures and bounds the exchange; its attempts, backoff, timeout and wait are for
  /// `retry`. Must be given.
  RetryPolicy policy = detail::missing<RetryPolicy, Result>();
  /// Socket timeout of the attempt, in seconds.
  required<Seconds> timeout;
  /// Reads the reply and does not close it. What it returns, `send` returns: a value that can be
  /// moved, a reference, or nothing.
  required<Reader<Result>> read;
  /// Sent as it is given.
  std::string method = "POST";
  /// See `Body`; none by default.
  Body body = {};
  /// Sent with the request. A body adds its content type unless a Content-Type is among them.
  Headers headers = {};
  /// Removed from every message, together with those that the headers and the URL carry.
  Secrets secrets = {};
  /// Sends the request; none means `urlopen_transport`.
  Transport transport = nullptr;
  /// See `Inspect`.
  Inspect inspect = nullptr;
};

namespace detail {

/// `SendOptions` without the reader, borrowed.
struct ENGINES_HTTP_EXPORT AttemptFields {
  const RetryPolicy& policy;
  double timeout;
  const std::string& method;
  const Body& body;
  const Headers& headers;
  const Secrets& secrets;
  const Transport& transport;
  const Inspect& inspect;
};

/// Reads the reply; the secrets are those that the attempt hides.
using Use = std::function<void(Response& reply, const Secrets& hidden)>;

ENGINES_HTTP_EXPORT void send(std::string_view url, const AttemptFields& fields, const Use& use);

}  // namespace detail

/// Makes one attempt and returns what the reader returns. Throws the failure that the transport's
/// or the reader's network error or error status becomes under the policy (see `classify`). What
/// the reader or the transport throws beyond that passes through unchanged, as does the
/// `ValueError` for a request that cannot be sent. The reply is closed in every case; a failing
/// close replaces the outcome.
template <class Result>
Result send(std::string_view url, const SendOptions<Result>& options) {
  const detail::AttemptFields fields{options.policy,    *options.timeout, options.method,
                                     options.body,      options.headers,  options.secrets,
                                     options.transport, options.inspect};
  const auto read = [&](Response& reply, const Secrets& hidden) -> Result {
    return (*options.read)(reply, options.policy, hidden);
  };
  if constexpr (std::is_void_v<Result>) {
    detail::send(url, fields, read);
  } else if constexpr (std::is_reference_v<Result>) {
    std::remove_reference_t<Result>* result = nullptr;
    detail::send(url, fields,
                 [&](Response& reply, const Secrets& hidden) { result = &read(reply, hidden); });
    return *result;
  } else {
    std::optional<Result> result;
    detail::send(url, fields, [&](Response& reply, const Secrets& hidden) {
      result.emplace(read(reply, hidden));
    });
    return *std::move(result);
  }
}

/// What a transport did: the open reply, or the failure that its error became.
using ReplyOrFailure = std::variant<std::shared_ptr<Response>, FailurePtr>;

/// Calls the transport. An `HTTPError` whose code is among the policy's `error_replies` is the
/// reply itself; any other network or protocol error of the transport is returned classified.
/// `inspect` is called with the error replies that are classified.
ENGINES_HTTP_EXPORT ReplyOrFailure _reply_or_failure(const Transport& transport,
                                                     const Request& request, double timeout,
                                                     const RetryPolicy& policy,
                                                     const Secrets& secrets,
                                                     const Inspect& inspect = nullptr);

}  // namespace engines::http
