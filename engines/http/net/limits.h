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

/// The bounds of one call. The timeout bounds each wait; connecting, and waiting for the final
/// head, have one budget each over all redirects. The first read of the body has what these left of
/// twice the timeout: a slow origin holds a call no longer than that.
class Limits {
 public:
  Limits(const TransportOptions& options, std::optional<Seconds> connect_timeout);

  /// Begins a wait in this phase. The time between two waits is part of no bound but the call's.
  void begin(Phase phase);

  /// Ends the wait, and subtracts its time from the budget of its phase.
  void end();

  /// Throws `Stopped` once the stop signal returns true, and a timeout once the time of the wait or
  /// of the call is over. Otherwise returns how long to wait at most before the next check.
  Duration check() const;

  /// The time that is left of the wait.
  Duration left() const { return until_ - SteadyClock::now(); }

  /// Throws the timeout of the wait.
  [[noreturn]] void time_out() const;

  /// The origin of the current request, "host:port", for the texts of timeouts.
  std::string origin;

 private:
  Duration timeout_;
  Duration connect_timeout_;
  TimePoint end_ = TimePoint::max();  // of the whole call
  StopSignal should_stop_;

  Duration connecting_ = Duration::zero();     // spent on connecting so far
  Duration awaiting_head_ = Duration::zero();  // spent on waiting for heads so far
  bool has_read_ = false;                      // whether a read of the body has begun

  // Of the current wait:
  Phase phase_ = Phase::connecting;
  TimePoint from_;
  TimePoint until_;
};

}  // namespace engines::http::net
