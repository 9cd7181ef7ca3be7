// SPDX-License-Identifier: Apache-2.0
#include "engines/http/attempt.h"

#include <gtest/gtest.h>

#include <ranges>
#include <stdexcept>
#include <vector>

#include "engines/http/classification.h"
#include "engines/http/reply.h"
#include "engines/http/testing.h"
#include "tests/support/outcome.h"
#include "tests/support/table.h"

namespace engines::http {
namespace {

using test::outcome;
using testing::ManualTime;
using testing::Piece;
using testing::reply_of;
using testing::ScriptedTransport;
using Texts = std::vector<std::string>;

const std::string URL = "http://service.test/v1";

/// How an attempt ends: what its reader returns, as JSON, or what is thrown.
std::string ended(const Transport& transport, const Reader<Json>& read,
                  const RetryPolicy& policy = {}, const Headers& headers = {},
                  const Secrets& secrets = {}, const Inspect& inspect = nullptr) {
  const SendOptions<Json> options{policy, 1, read, "GET", {}, headers, secrets, transport, inspect};
  return outcome([&] { return send<Json>(URL, options).dump(); });
}

// ---- Response -----------------------------------------------------------------------------------

TEST(Response, IsARangeOfLinesThatLosesNothing) {
  static_assert(std::ranges::input_range<Response>);
  const auto reply = reply_of({"a", "b\nsecond\r\n", "\n", "rest, then ", "more\n", "last"});
  const auto line = [&] { return *reply->begin(); };
  EXPECT_EQ((Texts{line(), line(), line(), reply->read1(4), line(), line()}),
            (Texts{"ab\n", "second\r\n", "\n", "rest", ", then more\n", "last"}));
  const std::size_t reads = reply->reads().size();
  for (const std::string& more : *reply) ADD_FAILURE() << more;
  EXPECT_EQ(reply->reads().size(), reads) << "the end is met once";
  reply->close();
  EXPECT_THROW(reply->read1(1), ValueError);
  EXPECT_THROW(line(), ValueError);
}

TEST(Response, ReadsNoLineThatIsNotTaken) {
  const auto reply = reply_of({"1\n", "2\n", TimeoutError("no third line yet")});
  int lines = 0;
  for (auto line = reply->begin(); lines < 2; ++line, ++lines) EXPECT_EQ(line->size(), 2U);
  std::vector<Piece> endless(17 * 16, Piece([] { return std::string(65536, 'x'); }));
  EXPECT_THROW(*reply_of(std::move(endless))->begin(), HTTPException);
}

TEST(Response, AnErrorsCopiesShareItsBody) {
  const HTTPError error(404, {}, reply_of({"a\nb\nrest"}));
  HTTPError first = error, second = error;
  EXPECT_EQ(*first.begin(), "a\n");
  EXPECT_EQ(*second.begin(), "b\n");
  EXPECT_EQ(first.read(9), "rest");
  second.close();
  EXPECT_THROW(first.read(1), ValueError);
}

// ---- send ---------------------------------------------------------------------------------------

TEST(Send, BuildsTheRequest) {
  ScriptedTransport transport;
  for (const test::Row& row : test::table("requests", 4)) {
    const Body body = row[0].empty() ? raw_body("", "text/plain") : Body(decode_json(row[0]));
    transport.reply("ok");
    send<void>(URL, {{}, 2.5, [](Response&) {}, "PUT", body, test::headers(row[1]), {}, transport});
    const auto& [request, timeout, time_left] = transport.sent().back();
    EXPECT_EQ(request.method + " " + request.url, "PUT " + URL);
    EXPECT_EQ(request.data.value_or("none"), row[2]);
    EXPECT_EQ(request.headers, Headers(test::headers(row[3])));
    EXPECT_EQ(timeout, 2.5);
  }
}

TEST(Send, HandsTheReplyToTheReaderAndClosesItOnce) {
  const std::pair<Reader<Json>, std::string> table[] = {
      {[](Response&) { return 7; }, "7"},
      {[](Response&) -> int { throw IncompleteRead("cut"); },
       "Retryable: network error: cut | cut"},
      {[](Response&) -> int { throw OSError("no"); }, "HttpFailure: network error: no | no"},
      {[](Response&) -> int { throw BadReply("odd"); }, "BadReply: odd"},
      {[](Response&) -> int { throw std::out_of_range("bug"); }, "out_of_range: bug"}};
  for (const auto& [read, expected] : table) {
    for (const bool close_fails : {false, true}) {
      const auto close = [=] { return close_fails ? throw TimeoutError("close") : void(); };
      const auto reply = reply_of({"x"}, {.on_close = close});
      EXPECT_EQ(ended(ScriptedTransport().reply(reply), read),
                close_fails ? "TimeoutError: close" : expected);
      EXPECT_EQ(reply->closes(), 1) << expected;
    }
  }
}

TEST(Send, ReturnsReferencesAndWhatCanOnlyBeMoved) {
  int value = 7;
  const Reader<int&> refer = [&](Response&) -> int& { return value; };
  const Reader<std::unique_ptr<int>> make = [](Response&) { return std::make_unique<int>(8); };
  const Transport transport = ScriptedTransport().reply("a").reply("b", 299);
  EXPECT_EQ(&send<int&>(URL, {{}, 1, refer, "GET", {}, {}, {}, transport}), &value);
  EXPECT_EQ(*send<std::unique_ptr<int>>(URL, {{}, 1, make, "GET", {}, {}, {}, transport}), 8);
}

TEST(Send, ClassifiesBeforeItClosesAndThrowsOutsideEveryHandler) {
  Texts events;
  const auto close = [&] {
    events.push_back(std::current_exception() ? "closed while handling" : "closed");
  };
  const auto rule = [&](auto...) -> std::optional<std::string> {
    events.push_back("classified");
    throw std::out_of_range("rule");
  };
  const auto refuse = [](Response&) -> int { throw HTTPError(500, {}, nullptr); };
  const auto reply = reply_of({TimeoutError("t")}, {.on_close = close});
  ended(ScriptedTransport().reply(reply), read_body);
  EXPECT_EQ(ended(ScriptedTransport().reply(reply), refuse, {.refusal_reason = rule}),
            "out_of_range: rule");
  EXPECT_EQ(events, (Texts{"closed", "classified", "closed while handling"}));
}

TEST(Send, SortsWhatTheTransportThrows) {
  const auto sent = [](const auto& error) {
    return ended(ScriptedTransport().fail(error), read_json, {},
                 {{"Authorization", "Bearer tok-12345678"}}, {"callers-own"});
  };
  EXPECT_EQ(sent(HTTPError(300, {}, reply_of({"tok-12345678 and callers-own"}))),
            "HttpFailure: HTTP 300: [redacted] and [redacted] | 300 | [redacted] and [redacted]");
  EXPECT_EQ(sent(URLError(gaierror("no host"))), "Retryable: network error: no host | no host");
  EXPECT_EQ(sent(HTTPException("Bearer tok-12345678")),
            "HttpFailure: network error: [redacted] | [redacted]");
  EXPECT_EQ(sent(std::logic_error("bug")), "logic_error: bug");
  const auto none = [](auto...) { return std::shared_ptr<Response>(); };
  EXPECT_EQ(ended(none, read_json), "invalid_argument: the transport returned no reply");
}

TEST(Send, GivesTheReaderWhatItTakes) {
  const auto sent = [](const Reader<Json>& read) {
    const Transport transport = ScriptedTransport().reply("no: key-0123456789 one-more");
    return ended(transport, read, {.max_body_bytes = 31}, {{"api-key", "key-0123456789"}},
                 {"one-more"});
  };
  // The shortest spelling quotes no credential that the server echoes.
  const std::string shown = "no: [redacted] [redacted]";
  EXPECT_EQ(sent(read_json), "BadReply: reply not JSON: '" + shown + "' | 200 | " + shown);
  EXPECT_EQ(sent([](Response& reply) { return reply.read(2); }), "\"no\"");
  EXPECT_EQ(sent([](Response&, const Secrets& hidden) { return hidden.size(); }), "2");
  const auto all = [](Response&, const RetryPolicy& policy, const Secrets& hidden) {
    return policy.max_body_bytes + hidden.size();
  };
  EXPECT_EQ(sent(all), "33");
}

TEST(Send, ShowsEachReplyBeforeItsBodyIsRead) {
  const std::pair<StatusCode, std::string> table[] = {
      {200, "1"}, {400, "1"}, {404, "HttpFailure: HTTP 404: 1 | 404 | 1"}};
  for (const auto& [status, expected] : table) {
    for (const bool fails : {false, true}) {
      const auto reply = reply_of({"1"}, {.status = status, .headers = {{"Retry-After", "7"}}});
      std::string seen;
      const auto inspect = [&](const Response& shown) {
        seen = std::to_string(*shown.status()) + " " + *shown.headers()->get("retry-after");
        EXPECT_TRUE(reply->reads().empty());
        if (fails) throw TimeoutError("of inspect");
      };
      EXPECT_EQ(ended(ScriptedTransport().reply(reply), read_json, {.error_replies = {400}}, {}, {},
                      inspect),
                fails ? "TimeoutError: of inspect" : expected);
      EXPECT_EQ(seen, std::to_string(status) + " 7");
      EXPECT_EQ(reply->closes(), 1);
    }
  }
}

TEST(Send, LetsTheTransportKnowWhatEndsTheCall) {
  const auto given = [](const RetryPolicy& policy) {
    TransportOptions noted{.timeout = 0};
    const auto note = [&](const Request&, TransportOptions options) {
      return noted = std::move(options), reply_of({});
    };
    ended(note, read_body, policy);
    return noted;
  };
  const auto asked = []() -> double { throw std::logic_error("asked"); };
  EXPECT_EQ(given({}).time_left, std::nullopt);
  EXPECT_EQ(given({.deadline = 1, .clock = asked}).time_left, std::nullopt);
  EXPECT_NEAR(given({.deadline = monotonic() + 100}).time_left.value_or(0), 100, 5);
  EXPECT_THROW(given({.should_stop = [=] { return asked() > 0; }}).should_stop(), std::logic_error);
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

TEST(ReadBody, KeepsTheDeadlineBetweenReadsAndIsBounded) {
  for (const test::Row& row : test::table("read_body", 5)) {
    ManualTime time;
    std::vector<Piece> pieces;
    for (const std::string& part : test::parts(row[2])) pieces.push_back(time.after(1, part));
    const auto reply = reply_of(pieces, {.status = 201});
    const RetryPolicy policy =
        time.policy({.deadline = std::stod(row[1]), .max_body_bytes = std::stoul(row[0])});
    EXPECT_EQ(outcome([&] { return read_body(*reply, policy); }), row[3]);
    EXPECT_EQ(std::to_string(reply->reads().size()), row[4]);
  }
}

TEST(ReadBody, MakesNoRoomBeyondWhatWouldBeRead) {
  for (const test::Row& row : test::table("room", 3)) {
    const auto reply = reply_of({"x"}, {.headers = {{"Content-Length", row[0]}}});
    const std::string body = read_body(*reply, {.max_body_bytes = std::stoul(row[1])});
    EXPECT_EQ(std::to_string(body.capacity()), row[2]);
  }
}

TEST(ReadJson, ParsesOrSaysWhyNot) {
  const RetryPolicy pages{.refusal_reason = html_page, .detail_chars = 20};
  for (const test::Row& row : test::table("read_json", 2)) {
    const auto reply =
        reply_of({row[0]}, {.status = 204, .headers = {{"Content-Type", "text/html"}}});
    EXPECT_EQ(outcome([&] { return read_json(*reply, pages, {"s3cr3t-k3y"}).dump(); }), row[1]);
    EXPECT_EQ(reply->closes(), 0);
  }
  const auto says_its_kind = [](auto, auto kind) { return std::optional(std::string(kind)); };
  EXPECT_EQ(read_json(*reply_of({"1"}), {.refusal_reason = says_its_kind}), 1);
  EXPECT_EQ(_status(*reply_of({}, {.status = std::nullopt})), std::nullopt);
}

}  // namespace
}  // namespace engines::http
