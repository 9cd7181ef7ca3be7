// SPDX-License-Identifier: Apache-2.0
#include "engines/http/failure.h"

#include <utility>

namespace engines::http {

struct HttpFailure::Data {
  std::string message;
  FailureFields fields;
};

HttpFailure::HttpFailure(std::string message, FailureFields fields)
    : data_(std::make_shared<const Data>(Data{std::move(message), std::move(fields)})) {}

HttpFailure::~HttpFailure() = default;

const char* HttpFailure::what() const noexcept { return data_->message.c_str(); }
const std::string& HttpFailure::message() const noexcept { return data_->message; }
std::optional<StatusCode> HttpFailure::status() const noexcept { return data_->fields.status; }
const std::string& HttpFailure::detail() const noexcept { return data_->fields.detail; }

std::exception_ptr HttpFailure::copy() const { return std::make_exception_ptr(*this); }
std::exception_ptr Retryable::copy() const { return std::make_exception_ptr(*this); }
std::exception_ptr Refused::copy() const { return std::make_exception_ptr(*this); }
std::exception_ptr BadReply::copy() const { return std::make_exception_ptr(*this); }
std::exception_ptr DeadlineExceeded::copy() const { return std::make_exception_ptr(*this); }
std::exception_ptr Stopped::copy() const { return std::make_exception_ptr(*this); }
std::exception_ptr Exhausted::copy() const { return std::make_exception_ptr(*this); }

void FailurePtr::raise() const { std::rethrow_exception(held_->thrown); }

namespace detail {

Ended::Ended(std::string message, EndedFields fields)
    : HttpFailure(std::move(message),
                  fields.last ? FailureFields{fields.last->status(), fields.last->detail()}
                              : FailureFields{}),
      last_(std::move(fields.last)) {}

}  // namespace detail

Exhausted::Exhausted(std::string message, const ExhaustedFields& fields)
    : Ended(std::move(message), {.last = *fields.last}), attempts_(fields.attempts) {}

}  // namespace engines::http
