// SPDX-License-Identifier: Apache-2.0
#include "engines/http/classification.h"

#include <gtest/gtest.h>

#include <map>
#include <vector>

#include "engines/http/testing.h"
#include "tests/support/outcome.h"

// Errors of libraries that this one has never seen.
namespace service {

struct Error : std::runtime_error {
  using runtime_error::runtime_error;
};
struct ReadTimeout : Error {
  using Error::Error;
};
struct SlowReply : ReadTimeout {
  using ReadTimeout::ReadTimeout;
};
struct TIMEOUT {};
struct ApiConnectionError {};
struct ConnectError {};
struct ServiceUnavailable : std::exception {
  const char* what() const noexcept override { return "closed"; }
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
struct Lookup {
  std::map<std::string, std::string> values;
  const std::string* get(const std::string& name) const {
    const auto found = values.find(name);
    return found == values.end() ? nullptr : &found->second;
  }
};
struct Function {
  std::function<std::string(const char*)> get;
};
template <class Headers>
struct WithHeaders {
  Headers headers;
};
struct PrivateTimeout : private engines::http::TimeoutError {
  PrivateTimeout() : TimeoutError("t") {}
};
struct Carrier : Error, engines::http::CarriesStatus {
  using Error::Error;
  std::optional<engines::http::StatusCode> status_code() const override { return 503; }
  const engines::http::Headers* headers() const override { return &shown; }
  engines::http::Headers shown{{"content-type", "Text/Plain"}};
};

}  // namespace service

namespace engines::http {
namespace {

using testing::Piece;
using testing::reply_of;
using testing::ScriptedReply;

struct PoolTimeout {};

HTTPError http_error(StatusCode code, std::string body = "", Headers headers = {}) {
  return {code, std::move(headers), reply_of({std::move(body)})};
}

/// The names of the errors of which something else is answered.
template <class Ask, class Answer, class... Errors>
std::string others(const Ask& ask, const Answer& expected, const Errors&... errors) {
  std::string names;
  (..., (names += ask(ErrorRef(errors)) == expected ? "" : ErrorRef(errors).type_name() + " "));
  return names;
}

TEST(StatusOf, OnlyAnIntegerCounts) {
  using namespace service;
  using Maybe = std::optional<short>;
  const HTTPError missing = http_error(404);
  const Carrier carrier("");
  EXPECT_EQ(others(status_of, 404, missing, static_cast<const std::exception&>(missing)), "");
  EXPECT_EQ(others(status_of, 503, carrier, static_cast<const std::exception&>(carrier),
                   WithMember<Maybe>{503}),
            "");
  EXPECT_EQ(others(status_of, 42, WithMember<volatile int>{42}, WithMember<unsigned char>{42}), "");
  EXPECT_EQ(status_of(WithAccessor<long long>{-999}), -999);
  EXPECT_EQ(others(status_of, std::nullopt, WithMember<Maybe>{}, WithMember<std::shared_ptr<int>>{},
                   WithMember<bool>{true}, WithMember<double>{503.0}, WithMember<char>{'5'},
                   WithMember<std::string>{"503"}, WithAccessor<const char*>{"503"},
                   WithMember<std::uint64_t>{UINT64_MAX}, TimeoutError("")),
            "");
}

TEST(IsTransient, StatusThenKindThenName) {
  const auto by_default = [](const ErrorRef& error) { return is_transient(error); };
  const IncompleteRead cut("");
  EXPECT_EQ(others(by_default, true, http_error(503), TimeoutError(""), ConnectionError(""),
                   gaierror(""), URLError(""), cut, BadStatusLine(""), DroppedConnection(""),
                   static_cast<const std::exception&>(cut), service::ReadTimeout(""),
                   service::TIMEOUT(), PoolTimeout(), service::ApiConnectionError(),
                   service::PrivateTimeout()),  // the last by its name alone
            "");
  EXPECT_EQ(others(by_default, false, http_error(404), service::WithMember<int>{200},
                   service::WithMember<bool>{true}, OSError("timeout"), HTTPException(""),
                   service::SlowReply("timeout"), service::ConnectError(),
                   service::ServiceUnavailable(), 7, "timeout"),
            "");
  EXPECT_FALSE(is_transient(http_error(503), {}));
  EXPECT_TRUE(is_transient(http_error(404), {404}));
}

TEST(ContentType, LowersTheWholeValueAndTrimsNothing) {
  using namespace service;
  const auto labelled = [](std::string value) {
    return content_type(http_error(500, "", {{"content-TYPE", std::move(value)}}));
  };
  EXPECT_EQ(labelled("text/HTML; Charset=UTF-8"), "text/html; charset=utf-8");
  EXPECT_EQ(labelled(" \u00c4\u0130 A\xff"), " \u00e4i\u0307 a\xff");
  const Carrier carrier("");
  EXPECT_EQ(content_type(static_cast<const std::exception&>(carrier)), "text/plain");
  const Function get{[](const char*) { return "A/b"; }};
  EXPECT_EQ(others(content_type, "a/b", ScriptedReply({}, {.headers = {{"Content-Type", "A/B"}}}),
                   WithHeaders<Lookup>{{{{"Content-Type", "A/B"}}}}, WithHeaders<Function>{get}),
            "");
  EXPECT_EQ(others(content_type, "", http_error(500), ScriptedReply({}, {.has_headers = false}), 7,
                   WithHeaders<Function>{}, WithHeaders<Lookup>{{{{"content-type", "X/Y"}}}},
                   WithHeaders<std::map<std::string, std::string>>{}),
            "");
}

template <class Error>
std::string sorted(const Error& error, const RetryPolicy& policy = {},
                   const Secrets& secrets = {}) {
  return test::described(*classify(error, policy, secrets));
}

std::optional<std::string> silent(std::string_view, std::string_view) { return ""; }
std::optional<std::string> teapot(std::string_view body, std::string_view kind) {
  return body == "teapot" ? std::optional(std::string(kind)) : std::nullopt;
}

TEST(Classify, SortsEveryFailureIntoItsKind) {
  const Headers html{{"Content-Type", "text/html; charset=utf-8"}}, odd{{"Content-Type", "A"}};
  const RetryPolicy pages{.refusal_statuses = {403}, .refusal_reason = html_page};
  const RetryPolicy quiet{.refusal_reason = silent}, tea{.refusal_reason = teapot};
  const RetryPolicy short_quotes{.retry_statuses = {}, .detail_chars = 3};
  const std::pair<std::string, std::string> table[] = {
      {sorted(http_error(503, "busy")), "Retryable: HTTP 503 | 503 | busy"},
      {sorted(http_error(404, "gone")), "HttpFailure: HTTP 404: gone | 404 | gone"},
      {sorted(http_error(403, "no"), pages), "Refused: HTTP 403 | 403 | no"},
      {sorted(http_error(503, "x", html), pages), "Refused: HTTP 503, an HTML page | 503 | x"},
      {sorted(http_error(503, "x"), {.refusal_statuses = {503}}), "Refused: HTTP 503 | 503 | x"},
      {sorted(http_error(503, "x"), quiet), "Retryable: HTTP 503 | 503 | x"},
      {sorted(http_error(500, "teapot", odd), tea), "Refused: HTTP 500, a | 500 | teapot"},
      {sorted(http_error(500, "12345"), short_quotes), "HttpFailure: HTTP 500: 123 | 500 | 123"},
      {sorted(http_error(418, "my-secret-key"), {}, {"my-secret-key"}),
       "HttpFailure: HTTP 418: [redacted] | 418 | [redacted]"},
      {sorted(service::WithMember<int>{429}, {}, {"s3cr3t-k3y"}),
       "Retryable: HTTP 429 | 429 | the body, with [redacted] in it"},
      {sorted(URLError(ConnectionError("no"))), "Retryable: network error: no | no"},
      {sorted(IncompleteRead("bearer abc")),
       "Retryable: network error: bearer [redacted] | bearer [redacted]"},
      {sorted(OSError("disk")), "HttpFailure: network error: disk | disk"},
      {sorted(HTTPException("odd")), "HttpFailure: network error: odd | odd"},
      {sorted(service::ReadTimeout("slow"), short_quotes), "Retryable: ReadTimeout: slo | slo"},
      {sorted(service::ServiceUnavailable()), "HttpFailure: ServiceUnavailable: closed | closed"},
      {sorted(std::string("text")), "HttpFailure: basic_string: text | text"}};
  for (const auto& [failure, expected] : table) EXPECT_EQ(failure, expected);
}

TEST(Classify, ReadsAnErrorBodyOnceAndAlwaysClosesIt) {
  const auto classified = [](const std::shared_ptr<ScriptedReply>& reply) {
    return sorted(HTTPError(404, {}, reply), {.detail_chars = 5000});
  };
  const std::string start(4095, 'x');
  const auto split = reply_of({start + "\u00e9" + std::string(9000, 'y')});
  EXPECT_EQ(classified(split),
            "HttpFailure: HTTP 404: " + start + "\uFFFD | 404 | " + start + "\uFFFD");
  EXPECT_EQ(split->reads(), std::vector<std::size_t>{4096});
  EXPECT_EQ(split->closes(), 1);

  const std::pair<Piece, std::string> failing[] = {
      {TimeoutError("t"), "HttpFailure: HTTP 404:  | 404"},
      {IncompleteRead("i"), "HttpFailure: HTTP 404:  | 404"},
      {ValueError("closed"), "HttpFailure: HTTP 404:  | 404"},
      {std::out_of_range("bug"), "out_of_range: bug"},
  };
  for (const auto& [piece, expected] : failing) {
    const auto reply = reply_of({piece});
    EXPECT_EQ(test::outcome([&] { return classified(reply); }), expected);
    EXPECT_EQ(reply->closes(), 1);
  }
  const auto close = [] { throw ConnectionError("close"); };
  EXPECT_THROW(classified(reply_of({"body"}, {.on_close = close})), ConnectionError);
  const auto rule = [](auto...) -> std::optional<std::string> { throw std::out_of_range("rule"); };
  EXPECT_THROW(sorted(http_error(500), {.refusal_reason = rule}), std::out_of_range);
}

TEST(HtmlPage, BySubtypeOrByTheStartOfTheText) {
  EXPECT_EQ(html_page("{}", "TEXT/HTML"), "an HTML page");
  EXPECT_EQ(html_page("{}", "application/json"), std::nullopt);
  for (const char* page :
       {" \t\r\n\u00a0\u3000\x1c\x1f<!DOCTYPE HTML>", "<html lang=en>", "<HTML"}) {
    EXPECT_EQ(html_page(page, ""), "an HTML page") << page;
  }
  for (const char* other : {"<!doctype  html>", "\uFEFF<html>", "\u180e<html>",
                            "{\"a\": \"<html>\"}", "", "\xff<html>"}) {
    EXPECT_EQ(html_page(other, ""), std::nullopt) << other;
  }
}

}  // namespace
}  // namespace engines::http
