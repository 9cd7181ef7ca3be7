// SPDX-License-Identifier: Apache-2.0
#include "engines/http/net/limits.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <string_view>

#include "engines/http/failure.h"

namespace engines::http::net {
namespace {

constexpr double LONGEST_S = 1e6;

/// The longest wait between two calls of the stop signal: half of the 0.1 s that are promised.
constexpr Duration STOP_POLL = std::chrono::milliseconds(50);

std::string_view text_of(Phase phase) {
  constexpr std::array<std::string_view, 4> TEXTS = {"connecting", "sending the request",
                                                     "waiting for the headers of the reply",
                                                     "reading the body of the reply"};
  return TEXTS[static_cast<std::size_t>(phase)];
}

}  // namespace

Duration duration_of(double seconds) {
  if (!(seconds > 0)) return Duration::zero();
  return std::chrono::duration_cast<Duration>(
      std::chrono::duration<double>(std::min(seconds, LONGEST_S)));
}

int milliseconds(Duration duration) {
  return static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(duration).count());
}

Limits::Limits(const TransportOptions& options, std::optional<Seconds> connect_timeout)
    : timeout_(duration_of(options.timeout)),
      connect_timeout_(std::min(timeout_, duration_of(connect_timeout.value_or(LONGEST_S)))),
      should_stop_(options.should_stop) {
  if (options.time_left) end_ = SteadyClock::now() + duration_of(*options.time_left);
}

void Limits::begin(Phase phase) {
  Duration longest = timeout_;
  if (phase == Phase::connecting) longest = connect_timeout_ - connecting_;
  if (phase == Phase::awaiting_head) longest -= awaiting_head_;
  if (phase == Phase::reading_body && !has_read_) {
    longest = std::min(longest, 2 * timeout_ - connecting_ - awaiting_head_);
    has_read_ = true;
  }
  phase_ = phase;
  from_ = SteadyClock::now();
  until_ = from_ + longest;
}

void Limits::end() {
  const Duration waited = SteadyClock::now() - from_;
  if (phase_ == Phase::connecting) connecting_ += waited;
  if (phase_ == Phase::awaiting_head) awaiting_head_ += waited;
}

void Limits::time_out() const {
  const Duration timeout = phase_ == Phase::connecting ? connect_timeout_ : timeout_;
  const std::string bound =
      SteadyClock::now() < end_
          ? fmt::format("{:g} s", std::chrono::duration<double>(timeout).count())
          : std::string("all the time that was left for the call");
  // Until the request is sent, a failure is a `URLError`.
  const bool is_before_sent = phase_ == Phase::connecting || phase_ == Phase::sending;
  const std::string text = fmt::format("timed out after {} while {} {} {}", bound, text_of(phase_),
                                       is_before_sent ? "to" : "from", origin);
  if (is_before_sent) throw URLError(TimeoutError(text));
  throw TimeoutError(text);
}

Duration Limits::check() const {
  if (should_stop_ && should_stop_()) {
    // This text bypasses redaction, so it must not name the host, which a redirect may have chosen.
    throw Stopped("the transport was asked to stop while " + std::string(text_of(phase_)));
  }
  const Duration left = std::min(until_, end_) - SteadyClock::now();
  if (left <= Duration::zero()) time_out();
  return std::min(left, STOP_POLL);
}

}  // namespace engines::http::net
