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

void FailurePtr::raise() const {
  if (handled_) std::rethrow_exception(handled_);
  raise_(*failure_);
  std::terminate();  // not reached: raise_ always throws
}

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
