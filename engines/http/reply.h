// SPDX-License-Identifier: Apache-2.0
// Reading a reply within a policy's bounds. No function here closes the reply.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "engines/http/export.h"
#include "engines/http/failure.h"
#include "engines/http/json.h"
#include "engines/http/policy.h"
#include "engines/http/redaction.h"
#include "engines/http/transport.h"

namespace engines::http {

/// The reply's whole body, read as it arrives: the deadline is tested before every read and once
/// the body is complete. The stop signal is left to the transport. Throws `DeadlineExceeded`, or
/// `BadReply` when the body is longer than the policy's `max_body_bytes`. A failure of the reply's
/// own reads passes through unchanged.
ENGINES_HTTP_EXPORT std::string read_body(Response& reply, const RetryPolicy& policy);

/// The reply's body as JSON (see `decode_json`); bytes that are not UTF-8 are read as U+FFFD.
/// Throws what `read_body` throws, `Refused` when the policy's `refusal_reason` recognises the
/// text, and `BadReply` when it is not JSON.
ENGINES_HTTP_EXPORT Json read_json(Response& reply, const RetryPolicy& policy,
                                   const Secrets& secrets = {});

/// The reply's status, where it has one.
ENGINES_HTTP_EXPORT std::optional<StatusCode> _status(const Response& reply);

/// Throws `DeadlineExceeded` once the policy's deadline has come. Without one, reads no clock.
ENGINES_HTTP_EXPORT void _check_deadline(const RetryPolicy& policy, std::string_view message);

namespace detail {

/// Throws `BadReply` for a body of more bytes than the policy reads.
void check_size(std::size_t bytes, const RetryPolicy& policy, const Response& reply);

}  // namespace detail
}  // namespace engines::http
