// SPDX-License-Identifier: Apache-2.0
// How a call fails: one tree of eight kinds, named by what the caller can do next.
//
//   HttpFailure              the request failed, and no more specific kind applies
//   ├─ Retryable             another attempt may succeed (`retry` makes it)
//   ├─ Refused               the endpoint refused; an immediate retry would be refused too
//   ├─ BadReply              a reply came but cannot be used: not JSON, or too long
//   └─ detail::Ended         the call ended without an answer; `last()` is its last failure
//      ├─ DeadlineExceeded   the policy's deadline has passed, or a backoff would reach it
//      ├─ Stopped            the policy's `should_stop` returned true
//      └─ Exhausted          every attempt failed with a Retryable
//
// The library builds failures from redacted, bounded text only; a failure never holds the
// transport's own error. Failures are immutable: copies share their text, and copying never throws.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "engines/http/export.h"
#include "engines/http/held.h"
#include "engines/http/required.h"

/// The HTTP client: the calls, the policy they are made under and the failures they end in.
namespace engines::http {

/// An unusable argument, such as a policy that makes no attempt. Not a failure of a call.
using ValueError = std::invalid_argument;

/// An HTTP status code (RFC 9110, section 15). The library does not check its range.
using StatusCode = std::int64_t;

/// The optional parameters of a failure's constructor.
struct ENGINES_HTTP_EXPORT FailureFields {
  /// Status of the reply that the failure came from; none when no reply came back.
  std::optional<StatusCode> status = std::nullopt;
  /// Redacted, bounded excerpt of the reply's body or of the transport's error text.
  std::string detail = {};
};

/// A request that failed. The base of every kind: a handler of `HttpFailure` catches them all.
class ENGINES_HTTP_EXPORT HttpFailure : public std::exception {
 public:
  /// Every text is taken as it is: redact it first.
  explicit HttpFailure(std::string message, FailureFields fields = {});
  // No move, which would leave a failure without a text; no assignment, for failures never change.
  HttpFailure(const HttpFailure&) noexcept = default;
  HttpFailure& operator=(const HttpFailure&) = delete;
  ~HttpFailure() override;

  /// Exactly the message given at construction: neither status nor detail is appended.
  const char* what() const noexcept override;
  /// The same as `what()`.
  const std::string& message() const noexcept;
  /// See `FailureFields`.
  /// @{
  std::optional<StatusCode> status() const noexcept;
  const std::string& detail() const noexcept;
  /// @}

  /// A copy with the dynamic type. A kind of your own overrides it with exactly this line:
  ///
  ///   std::exception_ptr copy() const override { return std::make_exception_ptr(*this); }
  ///
  /// Without the override, a `FailurePtr` is made from it only by a reference of its own type, or
  /// while it is being handled.
  virtual std::exception_ptr copy() const;

 private:
  struct Data;
  std::shared_ptr<const Data> data_;
};

/// A failure worth another attempt: a retry status of the policy, or a transient network failure.
class ENGINES_HTTP_EXPORT Retryable : public HttpFailure {
 public:
  using HttpFailure::HttpFailure;
  std::exception_ptr copy() const override;
};

/// The endpoint refused, by its status or by its body. Never retried.
class ENGINES_HTTP_EXPORT Refused : public HttpFailure {
 public:
  using HttpFailure::HttpFailure;
  std::exception_ptr copy() const override;
};

/// A reply that came back but cannot be used: not JSON, or longer than the policy reads.
class ENGINES_HTTP_EXPORT BadReply : public HttpFailure {
 public:
  using HttpFailure::HttpFailure;
  std::exception_ptr copy() const override;
};

/// A failure held as a value: shared, immutable, may be empty, keeps the dynamic type. It converts
/// from any failure kind:
///
///   catch (const Retryable& failure) { last = failure; }
///
/// From a reference to a base class it keeps the exception itself while that is being handled, else
/// a copy made by `HttpFailure::copy`. Throws `std::logic_error` where that copy would slice.
class ENGINES_HTTP_EXPORT FailurePtr {
 public:
  FailurePtr() noexcept = default;
  /// None.
  /// @{
  FailurePtr(std::nullptr_t) noexcept {}
  FailurePtr(std::nullopt_t) noexcept {}
  /// @}

  /// Keeps this failure.
  template <std::derived_from<HttpFailure> Kind>
  FailurePtr(const Kind& failure) : held_(detail::hold<HttpFailure>(failure)) {}

  /// The failure, which lives as long as a FailurePtr holds it. `get` returns null when empty; `*`
  /// and `->` require a failure.
  /// @{
  const HttpFailure* get() const noexcept { return held_ ? held_->error : nullptr; }
  const HttpFailure& operator*() const noexcept { return *held_->error; }
  const HttpFailure* operator->() const noexcept { return held_->error; }
  explicit operator bool() const noexcept { return held_ != nullptr; }
  bool operator==(std::nullptr_t) const noexcept { return held_ == nullptr; }
  /// @}

  /// Throws the failure with its dynamic type. Precondition: not empty.
  [[noreturn]] void raise() const;

 private:
  std::shared_ptr<const detail::Held<HttpFailure>> held_;
};

/// What a failure that ends a call may carry.
struct ENGINES_HTTP_EXPORT EndedFields {
  /// The failure of the last failed attempt; none when no attempt had failed, or when the call
  /// ended within an attempt.
  FailurePtr last = nullptr;
};

/// What `Exhausted` carries: both must be given, though `last` may be none.
struct ENGINES_HTTP_EXPORT ExhaustedFields {
  /// How many attempts the call made.
  required<int> attempts;
  /// The failure of the last one.
  required<FailurePtr> last;
};

namespace detail {

/// The call ended without an answer: the base of the three kinds below. Its status and detail are
/// those of `last()`.
class ENGINES_HTTP_EXPORT Ended : public HttpFailure {
 public:
  explicit Ended(std::string message, EndedFields fields = {});

  /// The failure of the last failed attempt; empty when no attempt had failed, or when the call
  /// ended within an attempt.
  const FailurePtr& last() const noexcept { return last_; }

 private:
  FailurePtr last_;
};

}  // namespace detail

/// The policy's deadline passed before an attempt, while the reply was read, or by the time the
/// last attempt had failed; or the next backoff would reach it.
class ENGINES_HTTP_EXPORT DeadlineExceeded : public detail::Ended {
 public:
  using Ended::Ended;
  std::exception_ptr copy() const override;
};

/// The policy's `should_stop` returned true; no further attempt starts.
class ENGINES_HTTP_EXPORT Stopped : public detail::Ended {
 public:
  using Ended::Ended;
  std::exception_ptr copy() const override;
};

/// Every attempt failed with a `Retryable`, and the deadline had not passed.
class ENGINES_HTTP_EXPORT Exhausted : public detail::Ended {
 public:
  /// Takes the status and the detail of `fields.last`.
  Exhausted(std::string message, const ExhaustedFields& fields);
  std::exception_ptr copy() const override;

  /// How many attempts the call made.
  int attempts() const noexcept { return attempts_; }

 private:
  int attempts_;
};

}  // namespace engines::http
