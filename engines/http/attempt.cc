// SPDX-License-Identifier: Apache-2.0
#include "engines/http/attempt.h"

#include <algorithm>
#include <new>

#include "engines/http/classification.h"
#include "engines/http/closing.h"
#include "engines/http/curl_transport.h"

namespace engines::http {
namespace {

/// The headers of a request with a body: its content type, then the caller's. A caller's header of
/// exactly this name replaces the content type, which keeps the first place. One in another letter
/// case is a later entry, and of those `Request` keeps the last: of {"content-type": a,
/// "Content-Type": b} it keeps a.
Headers with_content_type(const Headers& given, std::string content_type) {
  constexpr std::string_view CONTENT_TYPE = "Content-Type";
  Headers headers;
  for (const auto& [name, value] : given) {
    if (name == CONTENT_TYPE) content_type = value;
  }
  headers.add(std::string(CONTENT_TYPE), std::move(content_type));
  for (const auto& [name, value] : given) {
    if (name != CONTENT_TYPE) headers.add(name, value);
  }
  return headers;
}

/// The transport's options. `time_left` is set only where the policy's clock is the default one: a
/// caller's may not run in real time. (One that was copied from another policy is a caller's.)
TransportOptions transport_options(double timeout, const RetryPolicy& policy) {
  TransportOptions options{.timeout = timeout, .should_stop = policy.should_stop};
  const auto* const clock = policy.clock.target<double (*)()>();
  if (policy.deadline && clock && *clock == monotonic) {
    options.time_left = *policy.deadline - monotonic();
  }
  return options;
}

/// Calls `inspect` with an error reply; closes the reply if that throws.
void inspect_or_close(HTTPError& error, const Inspect& inspect) {
  try {
    inspect(error);
  } catch (...) {
    error.close();
    throw;
  }
}

/// Runs the reader. A network error of its reads is returned classified, any other is thrown.
FailurePtr read_or_failure(Response& reply, const detail::Use& use, const RetryPolicy& policy,
                           const Secrets& secrets) {
  try {
    use(reply, secrets);
    return nullptr;
  } catch (const OSError& error) {
    return classify(error, policy, secrets);
  } catch (const HTTPException& error) {
    return classify(error, policy, secrets);
  }
}

}  // namespace

void detail::send(std::string_view url, const AttemptFields& fields, const Use& use) {
  std::optional<std::string> data = fields.body.data();
  Headers headers =
      data ? with_content_type(fields.headers, fields.body.content_type()) : fields.headers;
  const Secrets hidden = detail::secrets_of_call(fields.secrets, headers, url);
  const Request request(
      std::string(url),
      {.data = std::move(data), .headers = std::move(headers), .method = fields.method});

  const Transport standard = urlopen_transport;
  const ReplyOrFailure outcome =
      _reply_or_failure(fields.transport ? fields.transport : standard, request, fields.timeout,
                        fields.policy, hidden, fields.inspect);
  // Thrown here, after the handler of the transport's error: whatever nests or keeps the exception
  // that is being handled would keep the error, whose text is not redacted.
  if (const FailurePtr* const failure = std::get_if<FailurePtr>(&outcome)) failure->raise();

  const FailurePtr failure =
      closing(*std::get<std::shared_ptr<Response>>(outcome), [&](Response& reply) {
        if (fields.inspect) fields.inspect(reply);  // a classified one has been inspected
        return read_or_failure(reply, use, fields.policy, hidden);
      });
  if (failure) failure.raise();
}

ReplyOrFailure _reply_or_failure(const Transport& transport, const Request& request, double timeout,
                                 const RetryPolicy& policy, const Secrets& secrets,
                                 const Inspect& inspect) {
  try {
    std::shared_ptr<Response> reply = transport(request, transport_options(timeout, policy));
    if (!reply) throw ValueError("the transport returned no reply");
    return reply;
  } catch (HTTPError& error) {
    if (!policy.error_replies.contains(error.code())) {
      if (inspect) inspect_or_close(error, inspect);
      return classify(error, policy, secrets);
    }
    // The exception object itself is the reply, for a copy would slice a derived kind. The
    // exception_ptr keeps it alive.
    try {
      return std::shared_ptr<Response>(
          std::make_shared<std::exception_ptr>(std::current_exception()), &error);
    } catch (const std::bad_alloc&) {
      error.close();
      throw;
    }
  } catch (const OSError& error) {
    return classify(error, policy, secrets);
  } catch (const HTTPException& error) {
    return classify(error, policy, secrets);
  }
}

}  // namespace engines::http
