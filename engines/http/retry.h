// SPDX-License-Identifier: Apache-2.0
// The retry loop alone, for a caller that makes its own attempt (a streamed reply, a service's
// client library). An attempt is any function of a socket timeout in seconds:
//
//   auto answer = retry(policy, [&](double timeout) { return ask(timeout); },
//                       {.label = "chat call"});
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <type_traits>

#include "engines/http/export.h"
#include "engines/http/failure.h"
#include "engines/http/policy.h"
#include "engines/http/redaction.h"
#include "engines/http/required.h"

namespace spdlog {
class logger;
}

namespace engines::http {

/// The logger registered as "engines.http". The library registers one when it loads; it writes to
/// the sinks of the application's default logger, regardless of that logger's level, or to standard
/// error while spdlog's built-in default logger is in place. To redirect the lines change its
/// sinks, or `spdlog::drop` it and register another under its name; to silence it set its level.
ENGINES_HTTP_EXPORT std::shared_ptr<spdlog::logger> logger();

/// The parameters of `retry` other than the policy and the attempt.
struct ENGINES_HTTP_EXPORT RetryOptions {
  /// Names the call in every message and in the log line, as in "decision call".
  required<std::string> label;
  /// Removed from what the loop logs and from the failure text that `Exhausted` quotes.
  Secrets secrets = {};
};

/// The socket timeout of the next attempt, in seconds, cut to what is left of the deadline. Throws
/// `DeadlineExceeded` when nothing is left.
ENGINES_HTTP_EXPORT double _attempt_timeout(const RetryPolicy& policy, const FailurePtr& last,
                                            std::string_view label);

/// Waits before another attempt, after `failed` attempts have failed, and logs one warning. Throws
/// `Stopped` when the call should end, `DeadlineExceeded` when the wait would reach the deadline.
ENGINES_HTTP_EXPORT void _back_off(const RetryPolicy& policy, int failed, const FailurePtr& last,
                                   std::string_view label, const Secrets& secrets);

namespace detail {

/// Throws `Stopped` once the stop signal returns true.
ENGINES_HTTP_EXPORT void check_stop(const RetryPolicy& policy, const FailurePtr& last,
                                    std::string_view label);

/// Every attempt has failed: throws `DeadlineExceeded` or `Exhausted`.
[[noreturn]] ENGINES_HTTP_EXPORT void give_up(const RetryPolicy& policy, const FailurePtr& last,
                                              std::string_view label, const Secrets& secrets);

}  // namespace detail

/// Calls `attempt` until it returns, and returns its result. Only a `Retryable` leads to another
/// attempt, after a backoff. Any other error passes through at once, unchanged; so a `Stopped` or
/// `DeadlineExceeded` that the attempt itself throws has no `last()`, even after earlier attempts.
/// Of its own it throws `Stopped`, `DeadlineExceeded` or `Exhausted`, whose `last()` is the failure
/// of the last attempt, or none before the first. What a function of the policy throws passes
/// through.
template <class Attempt>
std::invoke_result_t<Attempt&, double> retry(const RetryPolicy& policy, Attempt&& attempt,
                                             const RetryOptions& options) {
  FailurePtr last;
  for (int failed = 0; failed < policy.attempts; ++failed) {
    if (last) _back_off(policy, failed, last, *options.label, options.secrets);
    detail::check_stop(policy, last, *options.label);
    const double timeout = _attempt_timeout(policy, last, *options.label);
    try {
      return attempt(timeout);
    } catch (const Retryable& failure) {
      last = failure;
    }
  }
  detail::give_up(policy, last, *options.label, options.secrets);
}

}  // namespace engines::http
