// SPDX-License-Identifier: Apache-2.0
// How long one call may wait, and what ends it early. A call is one use of a transport: with
// redirects it is several exchanges.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "engines/http/seconds.h"
#include "engines/http/stop_signal.h"
#include "engines/http/transport.h"

namespace engines::http::net {

using SteadyClock = std::chrono::steady_clock;
using Duration = SteadyClock::duration;
using TimePoint = SteadyClock::time_point;

/// Converts seconds: zero, negative values and NaN become zero, more than 1,000,000 s become that,
/// which overflows neither the clock nor a count of milliseconds.
Duration duration_of(double seconds);

/// Whole milliseconds, rounded up, for poll(2) and its like.
int milliseconds(Duration duration);

/// What a call is doing.
enum class Phase { connecting, sending, awaiting_head, reading_body };

/// The bounds of one call. Connecting, and waiting for the final head, have one budget each over
/// all redirects. The first read of the body has what these left of twice the timeout, but no more
/// than the timeout, which bounds every other wait.
class Limits {
 public:
  Limits(const TransportOptions& options, std::optional<Seconds> connect_timeout);

  /// How long a wait that begins now may take in this phase.
  Duration longest_wait(Phase phase) const;

  /// Counts a wait of connecting, or of waiting for a head, against its budget.
  void spend(Phase phase, Duration waited);

  /// Ends the first read of the body.
  void end_read() noexcept { has_read_ = true; }

  /// Throws `Stopped` once the stop signal returns true, and a timeout once the call's time is over
  /// or `until` has come. Otherwise returns how long to wait at most before the next check.
  Duration check(Phase phase, TimePoint until = TimePoint::max()) const;

  /// Throws the timeout of this phase.
  [[noreturn]] void time_out(Phase phase) const;

  /// The origin of the current request, "host:port", for the texts of timeouts.
  std::string origin;

 private:
  Duration timeout_;
  Duration connect_timeout_;
  Duration connecting_ = Duration::zero();     // spent on connecting so far
  Duration awaiting_head_ = Duration::zero();  // spent on waiting for heads so far
  bool has_read_ = false;                      // whether a read of the body has ended
  TimePoint end_ = TimePoint::max();           // of the whole call
  StopSignal should_stop_;
};

}  // namespace engines::http::net
