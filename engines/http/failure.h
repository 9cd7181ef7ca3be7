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
// carries the transport's own error. Copies share their text, so copying never throws.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <typeinfo>

#include "engines/http/held.h"
#include "engines/http/required.h"

/// The HTTP client: the calls, the policy they are made under and the failures they end in.
namespace engines::http {

/// An HTTP status code (RFC 9110, section 15), or any other integer that a failure carries as one:
/// the library never checks its range.
using StatusCode = std::int64_t;

/// What a failure may carry beside its message.
struct FailureFields {
  /// Status of the reply that the failure came from; none when no reply came back.
  std::optional<StatusCode> status = std::nullopt;
  /// Redacted, bounded excerpt of the reply's body or of the transport's error text.
  std::string detail = {};
};

/// A request that failed. The base of every kind: a handler of `HttpFailure` catches them all.
class HttpFailure : public std::exception {
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

 private:
  struct Data;
  std::shared_ptr<const Data> data_;
};

/// A failure worth another attempt: a retry status of the policy, or a transient network failure.
class Retryable : public HttpFailure {
 public:
  using HttpFailure::HttpFailure;
};

/// The endpoint refused, by its status or by its body. Never retried.
class Refused : public HttpFailure {
 public:
  using HttpFailure::HttpFailure;
};

/// A reply that came back but cannot be used: not JSON, or longer than the policy reads.
class BadReply : public HttpFailure {
 public:
  using HttpFailure::HttpFailure;
};

/// A failure held as a value: shared, immutable, possibly none, and never sliced. It converts from
/// any failure kind:
///
///   catch (const Retryable& failure) { last = failure; }
///
/// A failure named by its own type is copied. One named through a base is kept itself when it is
/// the failure being handled; elsewhere only what the base shows can be kept.
class FailurePtr {
 public:
  FailurePtr() noexcept = default;
  /// None.
  /// @{
  FailurePtr(std::nullptr_t) noexcept {}
  FailurePtr(std::nullopt_t) noexcept {}
  /// @}

  /// Keeps this failure.
  template <std::derived_from<HttpFailure> Kind>
  FailurePtr(const Kind& failure) {
    if (typeid(failure) != typeid(Kind)) handled_ = detail::handling(failure);
    if (handled_) {
      failure_ = {std::make_shared<std::exception_ptr>(handled_), &failure};
    } else {
      failure_ = std::make_shared<const Kind>(failure);
      raise_ = [](const HttpFailure& held) { throw dynamic_cast<const Kind&>(held); };
    }
  }

  /// The failure, as a pointer shows it: it lives as long as a FailurePtr holds it.
  /// @{
  const HttpFailure* get() const noexcept { return failure_.get(); }
  const HttpFailure& operator*() const noexcept { return *failure_; }
  const HttpFailure* operator->() const noexcept { return failure_.get(); }
  explicit operator bool() const noexcept { return failure_ != nullptr; }
  bool operator==(std::nullptr_t) const noexcept { return failure_ == nullptr; }
  /// @}

  /// Throws the failure as the kind that it is. Needs a failure: not to be called on none.
  [[noreturn]] void raise() const;

 private:
  std::shared_ptr<const HttpFailure> failure_;
  std::exception_ptr handled_;                   // set when the failure is one that was caught,
  void (*raise_)(const HttpFailure&) = nullptr;  // else this throws a copy of it
};

/// What a failure that ends a call may carry.
struct EndedFields {
  /// The failure of the call's last attempt; none when there was none.
  FailurePtr last = nullptr;
};

/// What `Exhausted` carries: both must be given, though `last` may be none.
struct ExhaustedFields {
  /// How many attempts the call made.
  required<int> attempts;
  /// The failure of the last one.
  required<FailurePtr> last;
};

namespace detail {

/// The call ended without an answer. A base only: catch it, never throw it. Its status and detail
/// are those of `last()`.
class Ended : public HttpFailure {
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
class DeadlineExceeded : public detail::Ended {
 public:
  using Ended::Ended;
};

/// The policy's `should_stop` said so; no attempt starts after it.
class Stopped : public detail::Ended {
 public:
  using Ended::Ended;
};

/// Every attempt failed with a failure worth another one.
class Exhausted : public detail::Ended {
 public:
  /// Takes the status and the detail of `fields.last`.
  Exhausted(std::string message, const ExhaustedFields& fields);

  /// How many attempts the call made.
  int attempts() const noexcept { return attempts_; }

 private:
  int attempts_;
};

}  // namespace engines::http
