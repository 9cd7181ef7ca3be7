// SPDX-License-Identifier: Apache-2.0
// A time span in seconds, for what takes a number or a duration. Does not include <chrono>: code
// that passes a duration has included it.
#pragma once

#include <type_traits>

#include "engines/http/export.h"

namespace engines::http {

/// A time span in seconds. Converts from a number and from any `std::chrono` duration, and to a
/// `double`.
class ENGINES_HTTP_EXPORT Seconds {
 public:
  /// A number of seconds, of more than one byte: no `bool` and no `char`.
  template <class Number>
  requires(std::is_arithmetic_v<Number> &&
           sizeof(Number) > 1) constexpr Seconds(Number seconds) noexcept
      : seconds_(static_cast<double>(seconds)) {}

  /// A duration, as those of std::chrono.
  template <class Duration>
  requires requires {
    typename Duration::rep;
    typename Duration::period;
  }
  constexpr Seconds(const Duration& span) noexcept
      : seconds_(static_cast<double>(span.count()) * Duration::period::num /
                 Duration::period::den) {}

  /// The number of seconds.
  constexpr operator double() const noexcept { return seconds_; }

 private:
  double seconds_;
};

}  // namespace engines::http
