// SPDX-License-Identifier: Apache-2.0
// Classifies an error of a transport or of another library: the HTTP status it carries, whether
// another attempt may succeed, and the failure kind that it becomes under a policy. The functions
// keep no state, and any thread may call them at any time.
//
//   FailurePtr failure;
//   try {
//     return service.complete(prompt);
//   } catch (const ServiceError& error) {
//     failure = classify(error, policy, secrets);
//   }
//   failure.raise();  // outside the handler: the service's error is gone
#pragma once

#include <array>
#include <concepts>
#include <cstddef>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <typeinfo>

#include "engines/http/export.h"
#include "engines/http/failure.h"
#include "engines/http/foreign.h"
#include "engines/http/policy.h"
#include "engines/http/redaction.h"
#include "engines/http/transport.h"
#include "engines/http/value_types.h"

namespace engines::http {

namespace detail {

/// What holds an error and is none itself.
template <class E>
concept ErrorHandle = Handle<E> || std::is_pointer_v<E> || std::same_as<E, std::exception_ptr> ||
    is_a<E, std::reference_wrapper>;

}  // namespace detail

/// A base for errors that show their status and headers even to code that knows them only as
/// `std::exception`. Where the error's own type is known, a member or accessor named `status_code`
/// (an integer) and one named `headers` (with `get(name)`) are enough.
class ENGINES_HTTP_EXPORT CarriesStatus {
 public:
  virtual ~CarriesStatus() = default;
  /// The HTTP status; none where the error has none.
  virtual std::optional<StatusCode> status_code() const = 0;
  /// The reply's headers, owned by the error; null where it has none.
  virtual const Headers* headers() const { return nullptr; }
};

/// A view of any error or reply, valid while the object lives. Handles (pointers, optionals,
/// `exception_ptr`, `FailurePtr`) do not compile.
class ENGINES_HTTP_EXPORT ErrorRef {
 public:
  /// A view of this object.
  template <class E>
  requires(!std::same_as<E, ErrorRef>) ErrorRef(const E& error)
      : object_(std::addressof(error)),
        type_(&typeid(error)),
        as_os_error_(cast<OSError>(error)),
        as_http_exception_(cast<HTTPException>(error)),
        as_carrier_(cast<CarriesStatus>(error)),
        message_([](const void* object) { return detail::foreign::message_of(as<E>(object)); }),
        status_code_(
            [](const void* object) { return detail::foreign::status_code_of(as<E>(object)); }),
        header_([](const void* object, const char* name) {
          return detail::foreign::header_in(as<E>(object), name);
        }) {
    static_assert(!detail::ErrorHandle<E>, "pass the error, not a handle to it");
  }

  /// The error's own text.
  std::string text() const { return message_(object_); }
  /// The name of the error's dynamic type, without namespaces and template arguments.
  std::string type_name() const;
  /// Its `status_code`, when that is an integer.
  std::optional<StatusCode> status_code() const;
  /// The value of one of its headers; empty when there is none.
  std::string header(const char* name) const;

  /// The object as a kind of transport error; null where it is none.
  /// @{
  const OSError* as_os_error() const noexcept { return as_os_error_; }
  const HTTPException* as_http_exception() const noexcept { return as_http_exception_; }
  const HTTPError* as_http_error() const noexcept;
  /// @}

 private:
  template <class E>
  static const E& as(const void* object) {
    return *static_cast<const E*>(object);
  }

  template <class Kind, class E>
  static const Kind* cast(const E& error) noexcept {
    if constexpr (std::is_convertible_v<const E*, const Kind*>) {
      return std::addressof(error);
    } else if constexpr (std::is_polymorphic_v<E> && !std::is_base_of_v<Kind, E>) {
      return dynamic_cast<const Kind*>(std::addressof(error));
    } else {
      return nullptr;  // not polymorphic, or of a private or ambiguous base
    }
  }

  const void* object_;
  const std::type_info* type_;
  const OSError* as_os_error_;
  const HTTPException* as_http_exception_;
  const CarriesStatus* as_carrier_;
  std::string (*message_)(const void*);
  std::optional<StatusCode> (*status_code_)(const void*);
  std::string (*header_)(const void*, const char*);
};

/// The HTTP status that an error carries: an `HTTPError`'s code, else its integer `status_code`,
/// of any range; none when it has neither.
ENGINES_HTTP_EXPORT std::optional<StatusCode> status_of(const ErrorRef& error);

/// Whether another attempt may succeed: after an error with a status, when `statuses` contains it;
/// after one without, when it is a transient kind of transport error, or when the name of its own
/// type contains "timeout" or "connection", ignoring case. Pass the policy's `retry_statuses` to
/// judge under it.
ENGINES_HTTP_EXPORT bool is_transient(const ErrorRef& error,
                                      const StatusSet& statuses = TRANSIENT_STATUSES);

/// The `Content-Type` of a reply, an error or any object with headers, in lower case and otherwise
/// as it came; empty when there is none.
ENGINES_HTTP_EXPORT std::string content_type(const ErrorRef& reply);

/// What an error becomes under a policy: `Refused`, `Retryable` or a plain `HttpFailure`, built of
/// text without the secrets. An `HTTPError`'s body is read (its first 4096 bytes, at most) and
/// closed; one that cannot be read counts as empty. What closing it, the error's own functions or
/// the policy's `refusal_reason` throw passes through.
ENGINES_HTTP_EXPORT FailurePtr classify(const ErrorRef& error, const RetryPolicy& policy,
                                        const Secrets& secrets = {});

/// A ready-made `refusal_reason` for an endpoint behind a proxy: "an HTML page" when the content
/// type says so or the body begins like one, else none.
ENGINES_HTTP_EXPORT std::optional<std::string> html_page(std::string_view body,
                                                         std::string_view content_type);

/// The failure for a status, a body's text and its content type.
ENGINES_HTTP_EXPORT FailurePtr _status_failure(StatusCode status, std::string_view body,
                                               std::string_view content_type,
                                               const RetryPolicy& policy, const Secrets& secrets);

/// The start of an error reply's body, from one read; empty when it cannot be read. Closes the
/// body.
ENGINES_HTTP_EXPORT std::string _error_body(const HTTPError& error);

namespace detail {

/// The most bytes read from the body of an error reply.
inline constexpr std::size_t ERROR_BODY_BYTES = 4096;

template <class... Kinds>
struct KindList {};

/// The transport errors without a status after which another attempt may succeed.
inline constexpr KindList<TimeoutError, ConnectionError, gaierror, URLError, IncompleteRead,
                          BadStatusLine>
    TRANSIENT_ERRORS;

/// What the type name of any other such error contains, in lower case.
inline constexpr std::array<std::string_view, 2> TRANSIENT_NAMES = {"timeout", "connection"};

}  // namespace detail
}  // namespace engines::http
