// SPDX-License-Identifier: Apache-2.0
#include "engines/http/classification.h"

#include <algorithm>

#include "engines/http/closing.h"
#include "engines/http/text/type_name.h"
#include "engines/http/text/unicode.h"
#include "engines/http/text/utf8.h"

namespace engines::http {
namespace {

template <class... Kinds>
bool is_any_of(detail::KindList<Kinds...>, const ErrorRef& error) noexcept {
  return (... || (dynamic_cast<const Kinds*>(error.as_os_error()) != nullptr)) ||
         (... || (dynamic_cast<const Kinds*>(error.as_http_exception()) != nullptr));
}

bool is_transient_without_status(const ErrorRef& error) {
  if (is_any_of(detail::TRANSIENT_ERRORS, error)) return true;
  const std::string name = detail::lower(error.type_name());
  return std::ranges::any_of(detail::TRANSIENT_NAMES, [&name](std::string_view marker) {
    return name.find(marker) != std::string::npos;
  });
}

std::string read_error_body(Response& body) {
  try {
    return detail::replace_ill_formed(body.read(detail::ERROR_BODY_BYTES));
  } catch (const OSError&) {
  } catch (const HTTPException&) {
  } catch (const ValueError&) {  // the caller of `classify` has closed it
  }
  return {};  // the status still says what happened
}

}  // namespace

std::string ErrorRef::type_name() const { return detail::type_name(*type_); }

std::optional<StatusCode> ErrorRef::status_code() const {
  return as_carrier_ ? as_carrier_->status_code() : status_code_(object_);
}

std::string ErrorRef::header(const char* name) const {
  if (const auto* const error = as_http_error()) return detail::foreign::header_in(*error, name);
  return as_carrier_ ? detail::foreign::header_in(*as_carrier_, name) : header_(object_, name);
}

const HTTPError* ErrorRef::as_http_error() const noexcept {
  return dynamic_cast<const HTTPError*>(as_os_error_);
}

std::optional<StatusCode> status_of(const ErrorRef& error) {
  if (const HTTPError* const http_error = error.as_http_error()) return http_error->code();
  return error.status_code();
}

bool is_transient(const ErrorRef& error, const StatusSet& statuses) {
  const std::optional<StatusCode> status = status_of(error);
  return status ? statuses.contains(*status) : is_transient_without_status(error);
}

std::string content_type(const ErrorRef& reply) {
  return detail::lower(reply.header("Content-Type"));
}

FailurePtr classify(const ErrorRef& error, const RetryPolicy& policy, const Secrets& secrets) {
  if (const auto status = status_of(error)) {
    const HTTPError* const http_error = error.as_http_error();
    const std::string body = http_error ? _error_body(*http_error) : error.text();
    return _status_failure(*status, body, content_type(error), policy, secrets);
  }
  const std::string text = excerpt(error.text(), secrets, policy.detail_chars);
  const bool of_network = error.as_os_error() || error.as_http_exception();
  const std::string message = (of_network ? "network error" : error.type_name()) + ": " + text;
  if (is_transient_without_status(error)) return Retryable(message, {.detail = text});
  return HttpFailure(message, {.detail = text});
}

FailurePtr _status_failure(StatusCode status, std::string_view body, std::string_view content_type,
                           const RetryPolicy& policy, const Secrets& secrets) {
  const FailureFields fields{.status = status,
                             .detail = excerpt(body, secrets, policy.detail_chars)};
  std::string message = "HTTP " + std::to_string(status);
  const std::string reason = detail::refusal_of(policy, body, content_type);
  if (!reason.empty() || policy.refusal_statuses.contains(status)) {
    if (!reason.empty()) message += ", " + reason;
    return Refused(message, fields);
  }
  if (policy.retry_statuses.contains(status)) return Retryable(message, fields);
  return HttpFailure(message + ": " + fields.detail, fields);
}

std::string _error_body(const HTTPError& error) {
  return detail::closing(error.body(), read_error_body);
}

std::optional<std::string> html_page(std::string_view body, std::string_view content_type) {
  constexpr std::size_t START_CHARS = 64;
  const std::string start =
      detail::lower(detail::first_chars(detail::skip_space_and_separators(body), START_CHARS));
  const bool labelled = detail::lower(content_type).find("text/html") != std::string::npos;
  if (labelled || start.starts_with("<!doctype html") || start.starts_with("<html")) {
    return "an HTML page";
  }
  return std::nullopt;
}

}  // namespace engines::http
