// SPDX-License-Identifier: Apache-2.0
#include "engines/http/classification.h"

#include <gtest/gtest.h>

#include <map>

#include "engines/http/testing.h"
#include "tests/support/outcome.h"
#include "tests/support/table.h"

namespace engines::http {
namespace {

using test::outcome;
using testing::reply_of;
using testing::ScriptedReply;

// ---- Errors of libraries that this one has never seen -------------------------------------------

struct Error {
  std::string text;
  const std::string& what() const { return text; }
};
struct ReadTimeout : Error {};
struct SlowReply : ReadTimeout {};
struct TIMEOUT {};
struct ApiConnectionError {};
struct ConnectError {};
struct PrivateTimeout : private TimeoutError {
  PrivateTimeout() : TimeoutError("t") {}
};

template <class Code>
struct WithMember {
  Code status_code;
  const char* what() const { return "the body, with s3cr3t-k3y in it"; }
};
template <class Code>
struct WithAccessor {
  Code code;
  Code status_code() const { return code; }
};
template <class Lookup>
struct WithHeaders {
  Lookup headers;
};
struct Function {
  std::function<std::string(const std::string&)> get;
};
struct Carrier : std::runtime_error, CarriesStatus {
  Carrier() : runtime_error("") {}
  std::optional<StatusCode> status_code() const override { return 503; }
  const Headers* headers() const override { return &shown; }
  Headers shown{{"content-type", "Text/Plain"}};
};

// -------------------------------------------------------------------------------------------------

HTTPError http_error(StatusCode code, std::string body = "", Headers headers = {}) {
  return {code, std::move(headers), reply_of({std::move(body)})};
}

/// The same is answered of each error.
template <class Ask, class Answer, class... Errors>
void expect_of_each(const Ask& ask, const Answer& expected, const Errors&... errors) {
  (..., [&] { EXPECT_EQ(ask(errors), expected) << ErrorRef(errors).type_name(); }());
}

const IncompleteRead cut("");
const Carrier carrier;
const std::exception &cut_by_base = cut, &carrier_by_base = carrier;

TEST(StatusOf, OnlyAnIntegerCounts) {
  using Maybe = std::optional<short>;
  expect_of_each(status_of, 503, carrier, carrier_by_base, WithMember<Maybe>{503});
  expect_of_each(status_of, 42, http_error(42), WithMember<volatile int>{42},
                 WithMember<unsigned char>{42}, WithAccessor<long long>{42});
  expect_of_each(status_of, std::nullopt, WithMember<Maybe>{}, WithMember<bool>{true},
                 WithMember<double>{503.0}, WithMember<char>{'5'}, WithMember<std::string>{"503"},
                 WithAccessor<const char*>{"503"}, WithMember<std::uint64_t>{UINT64_MAX}, cut);
}

TEST(IsTransient, StatusThenKindThenName) {
  const auto by_default = [](const ErrorRef& error) { return is_transient(error); };
  expect_of_each(by_default, true, http_error(503), TimeoutError(""), ConnectionError(""),
                 gaierror(""), URLError(""), cut, cut_by_base, BadStatusLine(""),
                 DroppedConnection(""), ReadTimeout(), TIMEOUT(), ApiConnectionError(),
                 PrivateTimeout());  // the last by its name alone
  expect_of_each(by_default, false, http_error(404), WithMember<int>{200}, OSError("timeout"),
                 HTTPException(""), SlowReply{{{"timeout"}}}, ConnectError(), 7, "timeout");
  EXPECT_FALSE(is_transient(http_error(503), {}));
  EXPECT_TRUE(is_transient(http_error(404), {404}));
}

TEST(ContentType, LowersTheWholeValueAndTrimsNothing) {
  const Headers shown{{"content-TYPE", " \u00c4\u0130 A\xff; B=C"}};
  EXPECT_EQ(content_type(http_error(500, "", shown)), " \u00e4i\u0307 a\xff; b=c");
  const Headers plain{{"Content-type", "Text/Plain"}};
  const Function get{[](auto& name) { return name == "Content-Type" ? "text/PLAIN" : ""; }};
  const HTTPError error = http_error(500, "", plain);
  const std::exception& by_base = error;
  expect_of_each(content_type, "text/plain", by_base, carrier_by_base,
                 ScriptedReply({}, {.headers = plain}), WithHeaders<Headers>{plain},
                 WithHeaders<const Headers*>{&plain}, WithHeaders<Function>{get});
  expect_of_each(content_type, "", http_error(500), ScriptedReply({}, {.has_headers = false}), 7,
                 WithHeaders<Function>{}, WithHeaders<Headers>{}, WithHeaders<const Headers*>{},
                 WithHeaders<std::map<std::string, std::string>>{});
}

template <class Error>
std::string sorted(const Error& error, const RetryPolicy& policy = {},
                   const Secrets& secrets = {"s3cr3t-k3y"}) {
  return test::described(*classify(error, policy, secrets));
}

TEST(Classify, SortsEveryFailureIntoItsKind) {
  const auto silent = [](auto...) { return std::optional(""); };
  const auto teapot = [](auto body, auto kind) {
    return body == "teapot" ? std::string(kind) : "";
  };
  const Headers html{{"Content-Type", "text/html"}}, odd{{"Content-Type", "A"}};
  const RetryPolicy pages{.refusal_statuses = {503}, .refusal_reason = html_page};
  const RetryPolicy quiet{.refusal_reason = silent};
  const RetryPolicy strict{.retry_statuses = {}, .refusal_reason = teapot, .detail_chars = 3};
  const std::pair<std::string, std::string> table[] = {
      {sorted(http_error(503, "busy"), quiet), "Retryable: HTTP 503 | 503 | busy"},
      {sorted(http_error(404, "s3cr3t-k3y")),
       "HttpFailure: HTTP 404: [redacted] | 404 | [redacted]"},
      {sorted(http_error(503, "no"), pages), "Refused: HTTP 503 | 503 | no"},
      {sorted(http_error(404, "x", html), pages), "Refused: HTTP 404, an HTML page | 404 | x"},
      {sorted(http_error(500, "teapot", odd), strict), "Refused: HTTP 500, a | 500 | tea"},
      {sorted(http_error(500, "12345"), strict), "HttpFailure: HTTP 500: 123 | 500 | 123"},
      {sorted(WithMember<int>{429}), "Retryable: HTTP 429 | 429 | the body, with [redacted] in it"},
      {sorted(URLError(ConnectionError("no"))), "Retryable: network error: no | no"},
      {sorted(IncompleteRead("bearer abc")),
       "Retryable: network error: bearer [redacted] | bearer [redacted]"},
      {sorted(OSError("disk")), "HttpFailure: network error: disk | disk"},
      {sorted(HTTPException("odd")), "HttpFailure: network error: odd | odd"},
      {sorted(ReadTimeout{{"slow"}}, strict), "Retryable: ReadTimeout: slo | slo"},
      {sorted(std::runtime_error("s3cr3t-k3y")),
       "HttpFailure: runtime_error: [redacted] | [redacted]"},
      {sorted(std::string("text")), "HttpFailure: basic_string: text | text"}};
  for (const auto& [failure, expected] : table) EXPECT_EQ(failure, expected);
}

TEST(Classify, ReadsAnErrorBodyOnceAndAlwaysClosesIt) {
  const std::string start(4095, 'x'), cut_off = start + "\uFFFD | 404 | " + start + "\uFFFD";
  const std::string unread = "HttpFailure: HTTP 404:  | 404";
  const std::pair<testing::Piece, std::string> table[] = {
      {start + "\u00e9" + std::string(9000, 'y'), "HttpFailure: HTTP 404: " + cut_off},
      {TimeoutError("t"), unread},
      {IncompleteRead("i"), unread},
      {ValueError("closed"), unread},
      {std::out_of_range("bug"), "out_of_range: bug"}};
  for (const auto& [piece, expected] : table) {
    const auto reply = reply_of({piece});
    const HTTPError error(404, {}, reply);
    EXPECT_EQ(outcome([&] { return sorted(error, {.detail_chars = 5000}); }), expected);
    EXPECT_EQ(reply->reads(), std::vector<std::size_t>{4096});
    EXPECT_EQ(reply->closes(), 1);
  }
  const auto close = [] { throw ConnectionError("close"); };
  EXPECT_THROW(sorted(HTTPError(404, {}, reply_of({"x"}, {.on_close = close}))), ConnectionError);
}

TEST(HtmlPage, BySubtypeOrByTheStartOfTheText) {
  for (const test::Row& row : test::table("html_page", 3)) {
    EXPECT_EQ(html_page(row[1], row[2]).value_or("no"), row[0] == "no" ? "no" : "an HTML page")
        << row[1];
  }
}

}  // namespace
}  // namespace engines::http
