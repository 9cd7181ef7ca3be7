// SPDX-License-Identifier: Apache-2.0
// How a call fails: one tree of eight kinds, named by what the caller can do next.
//
//   HttpFailure              the request failed, and no more specific kind applies
//   ├─ Retryable             worth another attempt (`retry` makes it)
//   ├─ Refused               the endpoint refused; asked again at once it would refuse again
//   ├─ BadReply              a reply came but cannot be used: not JSON, or too long
//   └─ detail::Ended         the call ended without an answer; `last()` is its last failure
//      ├─ DeadlineExceeded   the policy's deadline passed
//      ├─ Stopped            the policy's `should_stop` said so
//      └─ Exhausted          every attempt failed with a Retryable
//
// Every text in a failure is redacted and bounded before the failure is built, and no failure
// carries the transport's own error. A failure never changes: copies share their text, copying
// never throws, and threads may share a failure or a FailurePtr that none of them assigns to.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <optional>
#include <string>

#include "engines/http/export.h"
#include "engines/http/held.h"
#include "engines/http/required.h"

/// The HTTP client: the calls, the policy they are made under and the failures they end in.
namespace engines::http {

/// An HTTP status code (RFC 9110, section 15), or any other integer that a failure carries as one:
/// the library never checks its range.
using StatusCode = std::int64_t;

/// What a failure may carry beside its message.
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
  // Copied, never moved from or assigned to: it keeps its text and fields for life.
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

  /// A copy of the failure as the kind that it is, through whichever base it is named. A kind of
  /// the caller's own overrides it in the same words as every kind of the library:
  ///
  ///   std::exception_ptr copy() const override { return std::make_exception_ptr(*this); }
  ///
  /// Without that, a `FailurePtr` keeps it by its own type and in its handler alone.
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

/// A failure held as a value: shared, immutable, possibly none, and always of its own kind. It
/// converts from any failure kind:
///
///   catch (const Retryable& failure) { last = failure; }
///
/// A failure that is being handled and named through a base is kept itself, any other is copied
/// (see `HttpFailure::copy`). Throws `std::logic_error` rather than copy a part of a failure.
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

  /// The failure, as a pointer shows it: it lives as long as a FailurePtr holds it.
  /// @{
  const HttpFailure* get() const noexcept { return held_ ? held_->error : nullptr; }
  const HttpFailure& operator*() const noexcept { return *held_->error; }
  const HttpFailure* operator->() const noexcept { return held_->error; }
  explicit operator bool() const noexcept { return held_ != nullptr; }
  bool operator==(std::nullptr_t) const noexcept { return held_ == nullptr; }
  /// @}

  /// Throws the failure as the kind that it is. Needs a failure: not to be called on none.
  [[noreturn]] void raise() const;

 private:
  std::shared_ptr<const detail::Held<HttpFailure>> held_;
};

/// What a failure that ends a call may carry.
struct ENGINES_HTTP_EXPORT EndedFields {
  /// The failure of the call's last attempt; none when there was none.
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

/// The call ended without an answer. A base only: catch it, never throw it. Its status and detail
/// are those of `last()`.
class ENGINES_HTTP_EXPORT Ended : public HttpFailure {
 public:
  explicit Ended(std::string message, EndedFields fields = {});

  /// The failure of the call's last attempt, or none. A field, not a cause.
  const FailurePtr& last() const noexcept { return last_; }

 private:
  FailurePtr last_;
};

}  // namespace detail

/// The policy's deadline passed: before an attempt or a backoff, while the reply was read, or by
/// the time the last attempt had failed.
class ENGINES_HTTP_EXPORT DeadlineExceeded : public detail::Ended {
 public:
  using Ended::Ended;
  std::exception_ptr copy() const override;
};

/// The policy's `should_stop` said so; no attempt starts after it.
class ENGINES_HTTP_EXPORT Stopped : public detail::Ended {
 public:
  using Ended::Ended;
  std::exception_ptr copy() const override;
};

/// Every attempt failed with a failure worth another one.
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
