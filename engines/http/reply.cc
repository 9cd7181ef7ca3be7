#include "engines/http/reply.h"

#include <utility>

#include "engines/http/detail/text.h"

namespace engines::http {

std::optional<StatusCode> _status(const Response& reply) { return reply.status(); }

void _check_deadline(const RetryPolicy& policy, std::string_view message) {
  if (policy.deadline && policy.clock() >= *policy.deadline) {
    throw DeadlineExceeded(std::string(message));
  }
}

std::string read_body(Response& reply, const RetryPolicy& policy) {
  std::string body;
  while (true) {
    _check_deadline(policy, "the reply was still arriving at the deadline");
    const std::string piece = reply.read1(detail::CHUNK_BYTES);
    if (piece.empty()) break;
    if (piece.size() > policy.max_body_bytes - body.size()) {
      throw BadReply("reply longer than " + std::to_string(policy.max_body_bytes) + " bytes",
                     {.status = _status(reply)});
    }
    body += piece;
  }
  _check_deadline(policy, "the reply was complete only after the deadline");
  return body;
}

Json read_json(Response& reply, const RetryPolicy& policy, const Secrets& secrets) {
  const std::string text = detail::decode_utf8(read_body(reply, policy));
  if (policy.refusal_reason) {
    const std::optional<std::string> reason = policy.refusal_reason(text, "");
    if (reason && !reason->empty()) {
      throw Refused(
          *reason + " instead of a JSON reply",
          {.status = _status(reply), .detail = excerpt(text, secrets, policy.detail_chars)});
    }
  }
  if (std::optional<Json> value = decode_json(text)) return *std::move(value);
  const std::string detail = excerpt(text, secrets, policy.detail_chars);
  throw BadReply("reply not JSON: " + detail::quoted(detail),
                 {.status = _status(reply), .detail = detail});
}

}  // namespace engines::http
