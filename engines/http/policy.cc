// SPDX-License-Identifier: Apache-2.0
#include "engines/http/policy.h"

#include <array>
#include <chrono>
#include <cmath>
#include <numeric>
#include <thread>
#include <vector>

namespace engines::http {

namespace {

constexpr auto TRANSIENT = [] {
  std::array<StatusCode, 102> statuses{408, 429};
  std::iota(statuses.begin() + 2, statuses.end(), 500);
  return statuses;
}();

}  // namespace

// Ready before any dynamic initialisation, so that a policy may be a global object.
constinit const StatusSet TRANSIENT_STATUSES{detail::ConstantStatuses{TRANSIENT}};

void StatusSet::assign(const std::set<StatusCode>& statuses) {
  const auto owned =
      std::make_shared<const std::vector<StatusCode>>(statuses.begin(), statuses.end());
  statuses_ = *owned;
  owner_ = owned;
}

double monotonic() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

bool _never() { return false; }

namespace detail {

void sleep_for(double seconds) {
  // At most a year: a longer sleep would overflow the clock.
  constexpr double YEAR = 365.0 * 24 * 3600;
  std::this_thread::sleep_for(std::chrono::duration<double>(std::min(seconds, YEAR)));
}

bool WaitUnlessStopped::operator()(Seconds seconds, const StopSignal& should_stop,
                                   const WaitOptions& options) const {
  const auto is_stopped = [&should_stop] { return should_stop && should_stop(); };
  // Subtracts each step that was asked for; reads no clock.
  for (double left = seconds; left > 0;) {
    if (is_stopped()) return true;
    const double step = std::min<double>(options.poll_s, left);
    options.sleep(step);
    left -= step;
  }
  return is_stopped();
}

int AttemptCount::checked(int count) {
  if (count < 1) throw ValueError("a retry policy makes at least one attempt");
  return count;
}

}  // namespace detail

std::string detail::refusal_of(const RetryPolicy& policy, std::string_view body,
                               std::string_view content_type) {
  if (!policy.refusal_reason) return {};
  return policy.refusal_reason(body, content_type).value_or("");
}

double RetryPolicy::backoff(int failed) const { return std::scalbn(backoff_s, failed - 1); }

RetryPolicy RetryPolicy::with(const PolicyChanges& changes) const {
  return {
      .attempts = changes.attempts.value_or(attempts),
      .backoff_s = changes.backoff_s.value_or(backoff_s),
      .timeout_s = changes.timeout_s.value_or(timeout_s),
      .retry_statuses = changes.retry_statuses.value_or(retry_statuses),
      .refusal_statuses = changes.refusal_statuses.value_or(refusal_statuses),
      .refusal_reason = changes.refusal_reason.value_or(refusal_reason),
      .error_replies = changes.error_replies.value_or(error_replies),
      .deadline = changes.deadline.value_or(deadline),
      .clock = changes.clock.value_or(clock),
      .should_stop = changes.should_stop.value_or(should_stop),
      .wait = changes.wait.value_or(wait),
      .detail_chars = changes.detail_chars.value_or(detail_chars),
      .max_body_bytes = changes.max_body_bytes.value_or(max_body_bytes),
  };
}

RetryPolicy RetryPolicy::within(Seconds span) const {
  const double end = clock() + span;
  return with({.deadline = std::min(end, deadline.value_or(end))});
}

}  // namespace engines::http
