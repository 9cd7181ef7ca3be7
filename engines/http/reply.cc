// SPDX-License-Identifier: Apache-2.0
#include "engines/http/reply.h"

#include <algorithm>
#include <charconv>
#include <utility>

#include "engines/http/json/decoder.h"
#include "engines/http/text/literal.h"
#include "engines/http/text/utf8.h"

namespace engines::http {
namespace {

/// The most that is reserved for a body before it has arrived.
constexpr std::size_t MOST_RESERVED_BYTES = 1 << 26;

/// The reply's Content-Length (RFC 9110, section 8.6); 0 without one.
std::size_t announced_bytes(const Response& reply) {
  std::size_t bytes = 0;
  const Headers* const headers = reply.headers();
  if (const auto length = headers ? headers->get("content-length") : std::nullopt) {
    std::from_chars(length->data(), length->data() + length->size(), bytes);
  }
  return bytes;
}

}  // namespace

std::optional<StatusCode> _status(const Response& reply) { return reply.status(); }

void _check_deadline(const RetryPolicy& policy, std::string_view message) {
  if (policy.is_past_deadline()) throw DeadlineExceeded(std::string(message));
}

void detail::check_size(std::size_t bytes, const RetryPolicy& policy, const Response& reply) {
  if (bytes > policy.max_body_bytes) {
    throw BadReply("reply longer than " + std::to_string(policy.max_body_bytes) + " bytes",
                   {.status = _status(reply)});
  }
}

std::string read_body(Response& reply, const RetryPolicy& policy) {
  const std::size_t announced =
      std::min({announced_bytes(reply), std::size_t{policy.max_body_bytes}, MOST_RESERVED_BYTES});
  std::string body;
  while (true) {
    _check_deadline(policy, "the reply was still arriving at the deadline");
    if (reply.append1(body, detail::CHUNK_BYTES) == 0) break;
    detail::check_size(body.size(), policy, reply);
    body.reserve(announced);  // not before the first bytes: a peer can announce any length
  }
  _check_deadline(policy, "the reply was complete only after the deadline");
  return body;
}

Json read_json(Response& reply, const RetryPolicy& policy, const Secrets& secrets) {
  const std::string text = detail::replace_ill_formed(read_body(reply, policy));
  // Without the content type: an endpoint that labels JSON as a web page still answers.
  if (const std::string reason = detail::refusal_of(policy, text, ""); !reason.empty()) {
    throw Refused(
        reason + " instead of a JSON reply",
        {.status = _status(reply), .detail = excerpt(text, secrets, policy.detail_chars)});
  }
  if (std::optional<Json> value = detail::decode_utf8_json(text)) return *std::move(value);
  const std::string detail = excerpt(text, secrets, policy.detail_chars);
  throw BadReply("reply not JSON: " + detail::quoted(detail),
                 {.status = _status(reply), .detail = detail});
}

}  // namespace engines::http
