// SPDX-License-Identifier: Apache-2.0
#include "engines/http/transport.h"

#include <algorithm>
#include <stdexcept>

#include "engines/http/text/unicode.h"

namespace engines::http {
namespace {

/// The body of an error that has none.
class EmptyBody final : public Response {
  std::string do_read(std::size_t) override { return {}; }
  void do_close() override {}
};

Headers one_value_each(const Headers& given) {
  Headers headers;
  for (const auto& [name, value] : given) headers.set(name, value);
  return headers;
}

}  // namespace

// ---- Headers and Request ------------------------------------------------------------------------

void Headers::add(std::string name, std::string value) {
  entries_.emplace_back(std::move(name), std::move(value));
}

void Headers::set(std::string name, std::string value) {
  const auto same = [&name](const Entry& entry) {
    return detail::equal_ignoring_case(entry.first, name);
  };
  const auto found = std::ranges::find_if(entries_, same);
  if (found == entries_.end()) return add(std::move(name), std::move(value));
  entries_.erase(std::remove_if(found + 1, entries_.end(), same), entries_.end());
  *found = {std::move(name), std::move(value)};
}

std::optional<std::string> Headers::get(std::string_view name) const {
  for (const auto& [key, value] : entries_) {
    if (detail::equal_ignoring_case(key, name)) return value;
  }
  return std::nullopt;
}

Request::Request(std::string to, RequestFields fields)
    : url(std::move(to)),
      data(std::move(fields.data)),
      headers(one_value_each(fields.headers)),
      method(std::move(fields.method)) {}

// ---- Response -----------------------------------------------------------------------------------

Response::~Response() = default;

void Response::check_open() const {
  if (closed_) throw ValueError("read of a closed reply");
}

std::string Response::take_ahead(std::size_t amt) {
  std::string piece = ahead_.substr(ahead_begin_, amt);
  ahead_begin_ += piece.size();
  return piece;
}

std::string Response::read(std::size_t amt) {
  check_open();
  return ahead_begin_ < ahead_.size() ? take_ahead(amt) : do_read(amt);
}

std::string Response::read1(std::size_t amt) {
  std::string piece;
  append1(piece, amt);
  return piece;
}

std::size_t Response::append1(std::string& body, std::size_t amt) {
  check_open();
  if (ahead_begin_ == ahead_.size()) return do_append1(body, amt);
  const std::string piece = take_ahead(amt);
  body += piece;
  return piece.size();
}

std::size_t Response::do_append1(std::string& body, std::size_t amt) {
  const std::string piece = do_read1(amt);
  body += piece;
  return piece.size();
}

void Response::close() {
  closed_ = true;
  do_close();
}

bool Response::fetch(std::string& line) {
  check_open();
  for (std::size_t searched = ahead_begin_;;) {
    const std::size_t line_end = ahead_.find('\n', searched);
    const bool found = line_end != std::string::npos;
    const std::size_t size = (found ? line_end + 1 : ahead_.size()) - ahead_begin_;
    if (size > MAX_LINE_BYTES) {
      throw HTTPException("a line of the body is longer than " + std::to_string(MAX_LINE_BYTES) +
                          " bytes");
    }
    if (found) {
      line.assign(ahead_, ahead_begin_, size);
      ahead_begin_ += size;
      return true;
    }
    ahead_.erase(0, ahead_begin_);
    ahead_begin_ = 0;
    searched = ahead_.size();
    if (ended_ || do_append1(ahead_, detail::CHUNK_BYTES) == 0) break;
  }
  ended_ = true;
  line = std::exchange(ahead_, {});
  return !line.empty();
}

// ---- Transport errors ---------------------------------------------------------------------------

detail::TransportError::TransportError(std::string text)
    : text_(std::make_shared<const std::string>(std::move(text))) {}
detail::TransportError::~TransportError() = default;
const char* detail::TransportError::what() const noexcept { return text_->c_str(); }

URLError::URLError(std::string text) : OSError(std::move(text)) {}

HTTPError::HTTPError(StatusCode code, Headers headers, std::shared_ptr<Response> body)
    : URLError("HTTP status " + std::to_string(code)),
      code_(code),
      headers_(std::make_shared<const Headers>(std::move(headers))),
      body_(body ? std::move(body) : std::make_shared<EmptyBody>()) {}

}  // namespace engines::http
