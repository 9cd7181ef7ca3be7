// SPDX-License-Identifier: Apache-2.0
// How a caller's requests are made and when one is tried again. A caller keeps one policy and
// passes it to every call; the bounds of a single call are set on a copy:
//
//   const RetryPolicy policy{.attempts = 5, .timeout_s = 10.0, .refusal_statuses = {401, 403}};
//   post_json(url, body, {.policy = policy.within(20s), ...});
#pragma once

#include <algorithm>
#include <concepts>
#include <cstddef>
#include <functional>
#include <initializer_list>
#include <limits>
#include <memory>
#include <optional>
#include <ranges>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "engines/http/export.h"
#include "engines/http/failure.h"
#include "engines/http/seconds.h"
#include "engines/http/stop_signal.h"
#include "engines/http/value_types.h"

namespace engines::http {

namespace detail {
/// Statuses in ascending order that outlive every set built from them, so that a set can be a
/// constant, ready before any dynamic initialisation.
struct ConstantStatuses {
  std::span<const StatusCode> statuses;
};
}  // namespace detail

/// An immutable set of statuses, in ascending order. Copies share the values.
class ENGINES_HTTP_EXPORT StatusSet {
 public:
  constexpr StatusSet() noexcept = default;
  // Copy only: a set that was moved from would be a span without its owner.
  StatusSet(const StatusSet&) noexcept = default;
  StatusSet& operator=(const StatusSet&) noexcept = default;
  /// The set of these statuses.
  /// @{
  constexpr explicit StatusSet(detail::ConstantStatuses constant) noexcept
      : statuses_(constant.statuses) {}
  StatusSet(std::initializer_list<StatusCode> statuses) { assign(statuses); }

  template <std::ranges::input_range Range>
  requires(!std::same_as<std::remove_cvref_t<Range>, StatusSet> &&
           std::convertible_to<std::ranges::range_reference_t<Range>, StatusCode>)
      StatusSet(Range&& range) {
    std::set<StatusCode> statuses;
    for (auto&& status : range) statuses.insert(status);
    assign(statuses);
  }
  /// @}

  /// Whether the status is among them.
  bool contains(StatusCode status) const noexcept {
    return std::ranges::binary_search(statuses_, status);
  }
  /// As in a standard container.
  /// @{
  auto begin() const noexcept { return statuses_.begin(); }
  auto end() const noexcept { return statuses_.end(); }
  std::size_t size() const noexcept { return statuses_.size(); }
  bool empty() const noexcept { return statuses_.empty(); }
  bool operator==(const StatusSet& other) const noexcept {
    return std::ranges::equal(statuses_, other.statuses_);
  }
  /// @}

 private:
  void assign(const std::set<StatusCode>& statuses);

  std::span<const StatusCode> statuses_;
  std::shared_ptr<const void> owner_;  // of statuses_; none for a constant table
};

/// The statuses worth another attempt by default: 408, 429 and 500 to 599.
extern ENGINES_HTTP_EXPORT const StatusSet TRANSIENT_STATUSES;

/// Monotonic seconds.
using Clock = std::function<double()>;

/// Waits `seconds`, or less where `should_stop` returns true, and returns whether it did. `retry`
/// ignores the result: it asks the stop signal itself.
using Wait = std::function<bool(double seconds, const StopSignal& should_stop)>;

/// Recognises a refusal by its body, whatever its status: returns what the body is ("an HTML
/// page"), and none or an empty text for any other. Takes the body's text and its content type;
/// `read_json` passes an empty content type.
using RefusalReason =
    std::function<std::optional<std::string>(std::string_view body, std::string_view content_type)>;

/// Seconds on the platform's monotonic clock.
ENGINES_HTTP_EXPORT double monotonic();

/// False, always: the stop signal of a call that nothing stops.
ENGINES_HTTP_EXPORT bool _never();

namespace detail {

/// A function; an empty one is replaced by `DEFAULT`.
template <class Function, const auto& DEFAULT>
class ENGINES_HTTP_EXPORT OrDefault : public Function {
 public:
  OrDefault() : Function(DEFAULT) {}

  template <class Given>
  requires(!std::same_as<std::remove_cvref_t<Given>, OrDefault> &&
           std::convertible_to<Given, Function>) OrDefault(Given&& given)
      : Function(std::forward<Given>(given)) {
    if (!*this) Function::operator=(DEFAULT);
  }
};

/// The longest step that `wait_unless_stopped` sleeps before it asks the stop signal again.
inline constexpr double STOP_POLL_S = 0.1;

/// Pauses the calling thread.
ENGINES_HTTP_EXPORT void sleep_for(double seconds);

}  // namespace detail

/// The optional parameters of `wait_unless_stopped`.
struct ENGINES_HTTP_EXPORT WaitOptions {
  /// Pauses the calling thread. An empty function is replaced by the default.
  detail::OrDefault<std::function<void(double seconds)>, detail::sleep_for> sleep = {};
  /// The longest single sleep, in seconds; greater than zero.
  Seconds poll_s = detail::STOP_POLL_S;
};

namespace detail {

/// A function object, so that it converts to `Wait` and also takes options.
struct ENGINES_HTTP_EXPORT WaitUnlessStopped {
  bool operator()(Seconds seconds, const StopSignal& should_stop,
                  const WaitOptions& options = {}) const;
};

}  // namespace detail

/// wait_unless_stopped(seconds, should_stop, {.sleep, .poll_s}): sleeps `seconds` in all, in steps
/// of at most `poll_s`, and calls `should_stop` before each step and once at the end. Returns true
/// as soon as that does; an empty one counts as false. What `should_stop` or `sleep` throws passes
/// through.
ENGINES_HTTP_EXPORT inline constexpr detail::WaitUnlessStopped wait_unless_stopped;

namespace detail {

/// The value, clamped to the range of `To`.
template <class To>
constexpr To saturated(Integer auto value) noexcept {
  if (std::in_range<To>(value)) return static_cast<To>(value);
  return value < 0 ? std::numeric_limits<To>::min() : std::numeric_limits<To>::max();
}

/// A count of attempts: at least one.
class ENGINES_HTTP_EXPORT AttemptCount {
 public:
  AttemptCount(Integer auto count) : count_(checked(saturated<int>(count))) {}  // throws ValueError
  constexpr operator int() const noexcept { return count_; }

 private:
  static int checked(int count);
  int count_;
};

/// A bound on a size; a negative number becomes 0.
class ENGINES_HTTP_EXPORT Bound {
 public:
  constexpr Bound(Integer auto bound) noexcept : bound_(saturated<std::size_t>(bound)) {}
  constexpr operator std::size_t() const noexcept { return bound_; }

 private:
  std::size_t bound_;
};

/// Leaves a field as it is.
struct ENGINES_HTTP_EXPORT Keep {};
inline constexpr Keep keep;

/// A field of `PolicyChanges`: a new value, or `keep`. It has no default constructor: for a status
/// set `{}` is the empty set, for any other field it does not compile.
template <class T>
class ENGINES_HTTP_EXPORT Change {
 public:
  constexpr Change(Keep) noexcept {}

  template <class U>
  requires(!std::same_as<std::remove_cvref_t<U>, Change> &&
           std::convertible_to<U, T>) constexpr Change(U&& value)
      : value_(std::in_place, std::forward<U>(value)) {}

  Change(std::initializer_list<StatusCode> values) requires
      std::constructible_from<T, std::initializer_list<StatusCode>>
      : value_(std::in_place, values) {}

  T value_or(const T& kept) const { return value_ ? *value_ : kept; }

 private:
  std::optional<T> value_;
};

}  // namespace detail

struct PolicyChanges;

/// An immutable record; every field has a default. Built in braces, by position or by name as above
/// (names in the order in which the fields are declared here); it can be copied but not assigned
/// to. Its functions are copied with it (`std::ref` shares one that has state), and what they refer
/// to must outlive it. Calls on several threads may share a policy whose functions may be called
/// concurrently. An empty clock, stop signal or wait is replaced by the default.
struct ENGINES_HTTP_EXPORT RetryPolicy {
  // Each field is also one of `PolicyChanges` and of `with`.

  /// Tries in all; 1 means no retry. Less than 1 throws `ValueError`.
  const detail::AttemptCount attempts = 3;
  /// Seconds to wait after the first failed attempt; each later wait doubles it.
  const Seconds backoff_s = 1.0;
  /// Socket timeout of an attempt, in seconds, cut to what is left of the deadline.
  const Seconds timeout_s = 30.0;
  /// Statuses worth another attempt.
  const StatusSet retry_statuses = TRANSIENT_STATUSES;
  /// Statuses of a refusal, never retried.
  const StatusSet refusal_statuses = {};
  /// Recognises a refusal by its body, whatever its status; see `html_page`.
  const RefusalReason refusal_reason = nullptr;
  /// Error statuses whose reply is read as the answer, before the other two sets are asked.
  const StatusSet error_replies = {};
  /// When the call ends: an instant on `clock`, not a duration. It covers every attempt, every
  /// backoff and the reading of the reply. None: the call ends when its attempts end.
  const std::optional<double> deadline = std::nullopt;
  /// Monotonic seconds, for the deadline.
  const detail::OrDefault<Clock, monotonic> clock = {};
  /// True once the call should end. Called before every attempt, every backoff and every read of
  /// `lines` and `events`, and, while they wait, by the library's transports and the default
  /// `wait`.
  const detail::OrDefault<StopSignal, _never> should_stop = {};
  /// Waits out a backoff.
  const detail::OrDefault<Wait, wait_unless_stopped> wait = {};
  /// The most characters of a body that a failure quotes.
  const detail::Bound detail_chars = 300;
  /// The longest reply that is read, in bytes (16 MiB).
  const detail::Bound max_body_bytes = 16777216;

  /// Seconds to wait after `failed` attempts have failed: `backoff_s` × 2^(failed − 1).
  double backoff(int failed) const;

  /// A copy with the given fields replaced, checked like any new policy.
  RetryPolicy with(const PolicyChanges& changes) const;

  /// A copy whose deadline is `span` from now on `clock`, or this policy's deadline where that is
  /// earlier.
  RetryPolicy within(Seconds span) const;

  /// Whether the deadline has come. Without one, reads no clock.
  bool is_past_deadline() const { return deadline && clock() >= *deadline; }

// Deleted explicitly for a short error message. Clang 13 to 19 then warns that the implicit copy
// constructor is deprecated, and an aggregate cannot declare one: remove the pragmas when it stops.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-copy"
  RetryPolicy& operator=(const RetryPolicy&) = delete;
#pragma GCC diagnostic pop
};

namespace detail {

/// What the policy's `refusal_reason` takes the body for; empty: no refusal.
std::string refusal_of(const RetryPolicy& policy, std::string_view body,
                       std::string_view content_type);

}  // namespace detail

/// The fields to replace in a copy, in the order in which they are declared. A field that is not
/// named is kept; `.deadline = std::nullopt` and `.refusal_reason = nullptr` replace by none, and
/// an empty clock, stop signal or wait replaces by the default.
struct ENGINES_HTTP_EXPORT PolicyChanges {
  /// The field of this name in `RetryPolicy`.
  /// @{
  detail::Change<detail::AttemptCount> attempts = detail::keep;
  detail::Change<Seconds> backoff_s = detail::keep;
  detail::Change<Seconds> timeout_s = detail::keep;
  detail::Change<StatusSet> retry_statuses = detail::keep;
  detail::Change<StatusSet> refusal_statuses = detail::keep;
  detail::Change<RefusalReason> refusal_reason = detail::keep;
  detail::Change<StatusSet> error_replies = detail::keep;
  detail::Change<std::optional<double>> deadline = detail::keep;
  detail::Change<Clock> clock = detail::keep;
  detail::Change<StopSignal> should_stop = detail::keep;
  detail::Change<Wait> wait = detail::keep;
  detail::Change<detail::Bound> detail_chars = detail::keep;
  detail::Change<detail::Bound> max_body_bytes = detail::keep;
  /// @}
};

}  // namespace engines::http
