// SPDX-License-Identifier: Apache-2.0
#include "engines/http/attempt.h"

#include <gtest/gtest.h>

#include <map>
#include <ranges>
#include <stdexcept>
#include <tuple>
#include <vector>

#include "engines/http/classification.h"
#include "engines/http/reply.h"
#include "engines/http/testing.h"
#include "tests/support/outcome.h"

namespace engines::http {
namespace {

using test::outcome;
using testing::ManualTime;
using testing::Piece;
using testing::reply_of;
using testing::ScriptedTransport;
using Texts = std::vector<std::string>;

const std::string URL = "http://service.test/v1";
const auto unread = [](Response&) {};

/// One attempt by this transport.
template <class Read>
decltype(auto) attempt(const Transport& transport, const Read& read,
                       const RetryPolicy& policy = {}) {
  using Result = std::invoke_result_t<Read, Response&>;
  return send<Result>(URL, {.policy = policy, .timeout = 1, .read = read, .transport = transport});
}

// ---- Request and Response -----------------------------------------------------------------------

TEST(Response, IsARangeOfLinesThatLosesNothing) {
  static_assert(std::ranges::input_range<Response>);
  const auto reply = reply_of({"a", "b\nsecond\r\n", "\n", "rest, then ", "more\n", "last"});
  Texts lines;
  const auto take = [&](std::size_t until) {
    for (const std::string& line : *reply) {
      lines.push_back(line);
      if (lines.size() == until) break;
    }
  };
  take(2);
  take(3);
  EXPECT_EQ(reply->read1(4), "rest");
  take(0);
  EXPECT_EQ(lines, (Texts{"ab\n", "second\r\n", "\n", ", then more\n", "last"}));
  const std::size_t reads = reply->reads().size();
  for (const std::string& line : *reply) ADD_FAILURE() << line;
  EXPECT_EQ(reply->reads().size(), reads) << "the end is met once";
  reply->close();
  EXPECT_THROW(reply->read1(1), ValueError);
  EXPECT_THROW(*reply->begin(), ValueError);
}

TEST(Response, ReadsNoLineThatIsNotTaken) {
  const auto reply = reply_of({"1\n", "2\n", TimeoutError("no third line yet")});
  int lines = 0;
  for (auto line = reply->begin(); lines < 2; ++line, ++lines) EXPECT_EQ(line->size(), 2U);
  EXPECT_EQ(reply->reads().size(), 2U);
  std::vector<Piece> endless(17 * 16, Piece([] { return std::string(65536, 'x'); }));
  EXPECT_THROW(*reply_of(std::move(endless))->begin(), HTTPException);
}

TEST(Response, AnErrorsCopiesShareItsBody) {
  const HTTPError error(404, {}, reply_of({"a\nb\nrest"}));
  HTTPError first = error, second = error;
  EXPECT_EQ(*first.begin() + *second.begin() + first.read(9), "a\nb\nrest");
  second.close();
  EXPECT_THROW(first.read(1), ValueError);
}

// ---- send ---------------------------------------------------------------------------------------

TEST(Send, BuildsTheRequest) {
  const std::map<std::string, std::string> caller{{"A", "1"}, {"Content-Type", "json; v=1"}};
  const Headers repeated{{"A", "1"}, {"B", "2"}, {"a", "3"}, {"A", "4"}};
  const Headers first{{"Content-Type", "json; v=1"}, {"A", "1"}};
  const std::tuple<Body, Headers, std::optional<std::string>, Headers> table[] = {
      {{}, caller, std::nullopt, {{"A", "1"}, {"Content-Type", "json; v=1"}}},
      {{}, repeated, std::nullopt, {{"A", "4"}, {"B", "2"}}},
      {Json::object(), {}, "{}", {{"Content-Type", "application/json"}}},
      {Json{{"t", "é"}, {"n", 1.5}}, caller, R"({"t": "é", "n": 1.5})", first},
      {1, {{"A", "1"}, {"content-type", "x"}}, "1", {{"content-type", "x"}, {"A", "1"}}},
      {1, {{"content-type", "x"}, {"Content-Type", "y"}}, "1", {{"content-type", "x"}}},
      {raw_body("", "text/plain"), {}, "", {{"Content-Type", "text/plain"}}},
      {form_body({{"a", "b c"}}), caller, "a=b+c", first}};
  ScriptedTransport transport;
  for (const auto& [body, headers, data, sent_headers] : table) {
    transport.reply("ok");
    send<void>(URL, {{}, 2.5, unread, "PUT", body, headers, {}, transport});
    const testing::Sent& sent = transport.sent().back();
    EXPECT_EQ(sent.request.url + " " + sent.request.method, URL + " PUT");
    EXPECT_EQ(sent.request.data, data);
    EXPECT_EQ(sent.request.headers, sent_headers);
    EXPECT_EQ(sent.timeout, 2.5);
  }
  attempt(transport.reply("ok"), unread);
  EXPECT_EQ(transport.sent().back().request.method, "POST");
}

TEST(Send, HandsTheReplyToTheReaderAndClosesItOnce) {
  class Odd : public BadReply {
    using BadReply::BadReply;
  };
  const std::pair<std::function<int(Response&)>, std::string> table[] = {
      {[](Response&) { return 7; }, "7"},
      {[](Response&) -> int { throw IncompleteRead("cut"); },
       "Retryable: network error: cut | cut"},
      {[](Response&) -> int { throw OSError("no"); }, "HttpFailure: network error: no | no"},
      {[](Response&) -> int { throw Odd("odd"); }, "Odd: odd"},
      {[](Response&) -> int { throw std::out_of_range("bug"); }, "out_of_range: bug"}};
  for (const auto& [read, expected] : table) {
    for (const bool close_fails : {false, true}) {
      const auto close = [=] { return close_fails ? throw TimeoutError("close") : void(); };
      const auto reply = reply_of({"x"}, {.on_close = close});
      const auto call = [&, &reads = read] {
        return std::to_string(attempt(ScriptedTransport().reply(reply), reads));
      };
      EXPECT_EQ(outcome(call), close_fails ? "TimeoutError: close" : expected);
      EXPECT_EQ(reply->closes(), 1) << expected;
    }
  }
}

TEST(Send, ReturnsReferencesAndWhatCanOnlyBeMoved) {
  int value = 7;
  const auto refer = [&](Response&) -> int& { return value; };
  EXPECT_EQ(&attempt(ScriptedTransport().reply("a"), refer), &value);
  const auto move = [](Response&) { return std::make_unique<int>(8); };
  EXPECT_EQ(*attempt(ScriptedTransport().reply("b", 299), move), 8);
  for (const StatusCode status : {199, 300}) {
    EXPECT_THROW(attempt(ScriptedTransport().reply("c", status), move), HttpFailure) << status;
  }
}

TEST(Send, ClassifiesBeforeItClosesAndThrowsOutsideEveryHandler) {
  Texts events;
  const auto close = [&] {
    events.push_back(std::current_exception() ? "closed while handling" : "closed");
  };
  const auto reply = reply_of({TimeoutError("t")}, {.on_close = close});
  const auto read = [](Response& r) { r.read(1); };
  EXPECT_THROW(attempt(ScriptedTransport().reply(reply), read), Retryable);
  const auto rule = [&](auto...) -> std::optional<std::string> {
    events.push_back("classified");
    throw std::out_of_range("rule");
  };
  const auto refuse = [](Response&) { throw HTTPError(500, {}, nullptr); };
  EXPECT_THROW(attempt(ScriptedTransport().reply(reply), refuse, {.refusal_reason = rule}),
               std::out_of_range);
  EXPECT_EQ(events, (Texts{"closed", "classified", "closed while handling"}));
}

TEST(Send, SortsWhatTheTransportThrows) {
  const RetryPolicy policy{.error_replies = {400}};
  const Reader<int> uncalled = [](Response&) -> int { throw std::logic_error("called"); };
  const auto sent = [&](const auto& error) {
    const Headers headers{{"Authorization", "Bearer tok-12345678"}};
    const Transport transport = ScriptedTransport().fail(error);
    const SendOptions<int> options{policy, 1,       uncalled,        "GET",
                                   {},     headers, {"callers-own"}, transport};
    return outcome([&] { return std::to_string(send<int>(URL, options)); });
  };
  EXPECT_EQ(sent(HTTPError(404, {}, reply_of({"tok-12345678 and callers-own"}))),
            "HttpFailure: HTTP 404: [redacted] and [redacted] | 404 | [redacted] and [redacted]");
  EXPECT_EQ(sent(URLError(gaierror("no host"))), "Retryable: network error: no host | no host");
  EXPECT_EQ(sent(HTTPException("Bearer tok-12345678")),
            "HttpFailure: network error: [redacted] | [redacted]");
  EXPECT_EQ(sent(std::logic_error("bug")), "logic_error: bug");
  const auto body = reply_of({"{\"error\": ", "\"pending\"}"}, {.status = 400});
  const auto read = [&](Response& reply) { return read_json(reply, policy); };
  EXPECT_EQ(attempt(ScriptedTransport().reply(body), read, policy)["error"], "pending");
  EXPECT_EQ(body->closes(), 1);
  const auto none = [](auto...) { return std::shared_ptr<Response>(); };
  EXPECT_EQ(outcome([&] { return attempt(none, read).dump(); }),
            "invalid_argument: the transport returned no reply");
}

TEST(Send, GivesTheReaderWhatItTakes) {
  const auto sent = [](const auto& read) {
    const Transport transport = ScriptedTransport().reply("no: key-0123456789 one-more");
    const Headers headers{{"api-key", "key-0123456789"}};
    const SendOptions<Json> options{{.max_body_bytes = 31},    1,        read, "GET", {}, headers,
                                    {{"another", "one-more"}}, transport};
    return outcome([&] { return send<Json>(URL, options).dump(); });
  };
  // The shortest spelling quotes no credential that the server echoes.
  EXPECT_EQ(sent(read_json),
            "BadReply: reply not JSON: 'no: [redacted] [redacted]' | 200 | "
            "no: [redacted] [redacted]");
  EXPECT_EQ(sent(read_body), "\"no: key-0123456789 one-more\"");
  EXPECT_EQ(sent([](Response& reply) { return reply.read(2); }), "\"no\"");
  EXPECT_EQ(sent([](Response&, const Secrets& hidden) { return hidden.size(); }), "3");
  const auto both = [](Response&, const RetryPolicy& policy, const Secrets& hidden) {
    return policy.max_body_bytes + hidden.size();
  };
  EXPECT_EQ(sent(both), "34");
}

TEST(Send, ShowsEachReplyBeforeItsBodyIsRead) {
  const std::pair<StatusCode, std::string> table[] = {
      {200, "1"}, {400, "1"}, {404, "HttpFailure: HTTP 404: 1 | 404 | 1"}};
  for (const auto& [status, expected] : table) {
    for (const bool fails : {false, true}) {
      const auto reply = reply_of({"1"}, {.status = status, .headers = {{"Retry-After", "7"}}});
      Texts seen;
      const auto inspect = [&](const Response& shown) {
        seen = {std::to_string(shown.status().value()), *shown.headers()->get("retry-after")};
        EXPECT_TRUE(reply->reads().empty());
        if (fails) throw TimeoutError("of inspect");
      };
      const Transport transport = ScriptedTransport().reply(reply);
      const SendOptions<Json> options{
          {.error_replies = {400}}, 1, read_json, "GET", {}, {}, {}, transport, inspect};
      EXPECT_EQ(outcome([&] { return send<Json>(URL, options).dump(); }),
                fails ? "TimeoutError: of inspect" : expected);
      EXPECT_EQ(seen, (Texts{std::to_string(status), "7"}));
      EXPECT_EQ(reply->closes(), 1);
    }
  }
}

TEST(Send, LetsTheTransportKnowWhatEndsTheCall) {
  TransportOptions given{.timeout = 0};
  const auto note = [&](const Request&, TransportOptions options) {
    given = std::move(options);
    return reply_of({});
  };
  const auto options_of = [&](const RetryPolicy& policy) {
    return attempt(note, unread, policy), given;
  };
  const auto never_asked = []() -> double { throw std::logic_error("asked"); };
  EXPECT_EQ(options_of({}).time_left, std::nullopt);
  EXPECT_FALSE(given.should_stop());
  EXPECT_EQ(options_of({.deadline = 1, .clock = never_asked}).time_left, std::nullopt);
  EXPECT_NEAR(options_of({.deadline = monotonic() + 100}).time_left.value_or(0), 100, 5);
  EXPECT_THROW(options_of({.should_stop = [&] { return never_asked() > 0; }}).should_stop(),
               std::logic_error);
}

// ---- read_body and read_json --------------------------------------------------------------------

TEST(ReadBody, ReadsArrivalsInFixedSizesThroughRead1) {
  for (const bool shown : {true, false}) {
    const auto reply = reply_of({"ab", "c"}, {.has_headers = shown, .has_read1 = shown});
    EXPECT_EQ(read_body(*reply, {.clock = []() -> double { throw std::logic_error("read"); }}),
              "abc");
    EXPECT_EQ(reply->reads(), std::vector<std::size_t>(shown ? 3 : 2, 65536));
    EXPECT_EQ(reply->closes(), 0);
  }
}

TEST(ReadBody, KeepsTheDeadlineBetweenReads) {
  // The clock moves by one with each read; a body of two pieces takes three reads.
  const std::string arriving = "DeadlineExceeded: the reply was still arriving at the deadline";
  const std::string complete = "DeadlineExceeded: the reply was complete only after the deadline";
  const std::tuple<double, std::string, std::size_t> table[] = {
      {0, arriving, 0}, {1, arriving, 1}, {2, arriving, 2}, {3, complete, 3}, {3.5, "xx", 3}};
  for (const auto& [deadline, expected, reads] : table) {
    ManualTime time;
    const auto reply = reply_of({time.after(1, "x"), time.after(1, "x"), time.after(1, "")});
    const RetryPolicy policy = time.policy({.deadline = deadline});
    EXPECT_EQ(outcome([&] { return read_body(*reply, policy); }), expected);
    EXPECT_EQ(reply->reads().size(), reads);
  }
}

TEST(ReadBody, IsBounded) {
  const std::string full(100'000, 'x'), longer = "BadReply: reply longer than ";
  const std::tuple<std::size_t, std::vector<Piece>, std::string, std::size_t> table[] = {
      {10, {"12345", "67890"}, "1234567890", 3},
      {10, {"12345", "678901", "never read"}, longer + "10 bytes | 201", 2},
      {0, {}, "", 1},
      {0, {"1"}, longer + "0 bytes | 201", 1},
      {100'000, {full}, full, 3},
      {100'000, {full + "x"}, longer + "100000 bytes | 201", 2}};
  for (const auto& [most, pieces, expected, reads] : table) {
    const auto reply = reply_of(pieces, {.status = 201});
    const RetryPolicy policy{.max_body_bytes = most};
    EXPECT_EQ(outcome([&] { return read_body(*reply, policy); }), expected);
    EXPECT_EQ(reply->reads().size(), reads);
  }
  // However much is announced, no room is made beyond what would be read.
  const std::tuple<std::string, std::size_t, std::size_t> announced[] = {
      {"200000", 1 << 20, 200'000},
      {"99999999999", 300'000, 300'000},
      {"99999999999", SIZE_MAX, 1 << 26}};
  for (const auto& [length, most, room] : announced) {
    const auto reply = reply_of({"x"}, {.headers = {{"Content-Length", length}}});
    EXPECT_EQ(read_body(*reply, {.max_body_bytes = most}).capacity(), room);
  }
}

TEST(ReadJson, ParsesOrSaysWhyNot) {
  const RetryPolicy pages{.refusal_reason = html_page, .detail_chars = 20};
  const std::string not_json = "BadReply: reply not JSON: ";
  const std::pair<std::string, std::string> table[] = {
      {"null", "null"},
      {" [1, NaN]\r\n", "[1,null]"},
      {"\"a\xff b\"", "\"a\uFFFD b\""},
      {"", not_json + "'' | 204"},
      {"\uFEFF{}", not_json + "'\\ufeff{}' | 204 | \uFEFF{}"},
      {" <!DOCTYPE html><p>hi",
       "Refused: an HTML page instead of a JSON reply | 204 |  <!DOCTYPE html><p>h"},
      {"it's \"s3cr3t-k3y\" and on",
       not_json + R"('it\'s "[redacted]" an' | 204 | it's "[redacted]" an)"},
      {"\xff\u00e9 ", not_json + "'\uFFFDé ' | 204 | \uFFFDé "}};
  for (const auto& [body, expected] : table) {
    const auto reply =
        reply_of({body}, {.status = 204, .headers = {{"Content-Type", "text/html"}}});
    EXPECT_EQ(outcome([&] { return read_json(*reply, pages, {"s3cr3t-k3y"}).dump(); }), expected);
    EXPECT_EQ(reply->closes(), 0);
  }
  const auto says_its_kind = [](auto, auto kind) { return std::optional(std::string(kind)); };
  EXPECT_EQ(read_json(*reply_of({"1"}), {.refusal_reason = says_its_kind}), 1);
  EXPECT_EQ(_status(*reply_of({}, {.status = std::nullopt})), std::nullopt);
}

}  // namespace
}  // namespace engines::http
