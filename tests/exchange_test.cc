// SPDX-License-Identifier: Apache-2.0
#include "engines/http/net/exchange.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "engines/http/failure.h"
#include "tests/support/outcome.h"
#include "tests/support/replies.h"
#include "tests/support/scripted_stream.h"

namespace engines::http::net {
namespace {

using namespace test;

/// A request to a scripted peer, and its reply.
struct Played {
  Played(const std::string& bytes, Then then, std::size_t piece,
         const TransportOptions& bounds = {.timeout = 0.02})
      : stream(bytes, then, piece), limits(bounds, std::nullopt) {}

  std::string run() {
    exchange.run("POST / HTTP/1.1\r\n\r\n", "{}", false);
    return std::to_string(exchange.status());
  }
  /// "200 kept [body]", "200 closed [body]", or how the exchange failed and what came before it.
  std::string outcome(std::size_t amt, bool fill) {
    std::string body;
    const std::string how = test::outcome([&] {
      const std::string status = run();
      while (exchange.read(body, amt, fill) > 0) continue;
      return status + (exchange.finish() ? " kept" : " closed");
    });
    return body.empty() ? how : how + " [" + body + "]";
  }

  ScriptedStream stream;
  Limits limits;
  PoolOptions options;
  Exchange exchange{stream, limits, options};
};

struct Row {
  const char* name;
  const char* how;  // the status, whether the stream is kept, and the body; or the failure's start
  std::string bytes;
  Then then = Then::stalls;
};

const std::string INTERIM = "HTTP/1.1 102 P\r\n\r\n", LAST_CHUNK = CHUNKED + "1\r\na\r\n0\r\n",
                  KILOBYTE(1000, 'x');

const std::vector<Row>& rows() {
  using enum Then;
  static const std::vector<Row> rows{
      // No head.
      {"closed", "DroppedConnection: the connection was dropped before a reply", "", ends},
      {"reset", "ConnectionError: the connection broke (Connection reset by", "", resets},
      {"silent", "TimeoutError: timed out after 0.02 s while waiting for the headers", ""},
      {"status line cut", "DroppedConnection", "HTTP/1.1 20", ends},
      {"another protocol", "BadStatusLine", "SSH-2.0-x\r\n"},
      {"another version", "BadStatusLine", "HTTP/7.0 200 OK\r\n\r\n"},
      {"empty line", "BadStatusLine", "\r\nHTTP/1.1 200 OK\r\n\r\n"},
      {"bare line feeds", "BadStatusLine", "HTTP/1.1 200 OK\nA: b\n\n", ends},
      {"status 099", "BadStatusLine", "HTTP/1.1 099 OK\r\n\r\n"},
      {"status 2000", "BadStatusLine", "HTTP/1.1 2000 OK\r\n\r\n"},
      {"closed after an interim reply", "DroppedConnection", INTERIM, ends},
      // A head that is not good.
      {"headers cut", "HTTPException: the connection was closed in", OK + "A: b\r\n", ends},
      {"silent in headers", "TimeoutError", OK + "A: b\r\n"},
      {"endless interim", "HTTPException: the reply's headers are longer", times(20000, INTERIM)},
      {"switches", "HTTPException: the reply switches", "HTTP/1.1 101 S\r\nUpgrade: x\r\n\r\n"},
      {"endless header", "HTTPException: the reply's headers are longer than 307200 bytes",
       OK + "A: " + times(310, KILOBYTE)},
      {"long header", "200 closed", OK + "A: " + times(100, KILOBYTE) + "\r\n\r\n", ends},
      {"100 headers", "200 closed [hi]", OK + times(100, "A: b\r\n") + "\r\nhi", ends},
      {"101 headers", "HTTPException: the reply has more", OK + times(101, "A: b\r\n") + "\r\n"},
      {"101 headers, interim ones included", "HTTPException: the reply has more than 100 headers",
       "HTTP/1.1 103 E\r\n" + times(50, "A: b\r\n") + "\r\n" + OK + times(51, "A: b\r\n") + "\r\n"},
      {"no colon", "HTTPException: the reply's headers are malformed", OK + "A\r\n\r\n"},
      {"space in a name", "HTTPException", OK + "Transfer-Encoding : chunked\r\n\r\n"},
      {"NUL", "HTTPException", OK + std::string("A: \0\r\n\r\n", 9)},
      {"length 3x", "HTTPException", LENGTH + "3x\r\n\r\nabc"},
      {"long length", "HTTPException", LENGTH + "99999999999999999999\r\n\r\n"},
      {"two lengths", "HTTPException", LENGTH + "3\r\nContent-Length: 4\r\n\r\n"},
      {"length, chunks", "HTTPException", LENGTH + "3\r\nTransfer-Encoding: chunked\r\n\r\n"},
      {"unknown coding", "HTTPException: the reply has a transfer coding",
       OK + "Transfer-Encoding: gzip, chunked\r\n\r\n0\r\n\r\n"},
      // A body that is not whole.
      {"short", "IncompleteRead: the reply was cut short: quote [abc]", TEN + "abc", ends},
      {"reset in body", "ConnectionError: the connection broke", TEN + "abc", resets},
      {"silent in body", "TimeoutError: timed out after 0.02 s while reading", TEN + "abc"},
      {"TLS ended without its close", "IncompleteRead", OK + "\r\nhi", cuts},
      {"reset until the end", "ConnectionError", OK + "\r\nhi", resets},
      {"chunk cut", "IncompleteRead", CHUNKED + "5\r\nab", ends},
      {"bad chunk size", "HTTPException: the reply's chunks are", CHUNKED + "zz\r\nab"},
      {"chunk longer than its size", "HTTPException", CHUNKED + "1\r\nab\r\n0\r\n\r\n"},
      {"long extension", "HTTPException: a chunk size or", CHUNKED + "5;" + times(70, KILOBYTE)},
      {"endless trailers", "HTTPException", LAST_CHUNK + times(20000, "A: b\r\n")},
      {"101 trailers", "HTTPException: the reply has",
       LAST_CHUNK + times(101, "A: b\r\n") + "\r\n"},
      {"trailers stall", "TimeoutError", LAST_CHUNK + "A: b\r\n"},
      // Good replies.
      {"length", "200 kept [hi]", LENGTH + "2\r\n\r\nhi"},
      {"one length twice", "200 kept [abc]", LENGTH + "3, 3\r\nContent-Length: 3\r\n\r\nabc"},
      {"to be closed", "200 closed [hi]", LENGTH + "2\r\nConnection: close\r\n\r\nhi"},
      {"chunks", "200 kept [hi]", CHUNKED + "1\r\nh\r\n1;x=y\r\ni\r\n0\r\nA: b\r\n\r\n"},
      {"until the end", "200 closed [hi]", "HTTP/1.0 200 OK\r\n\r\nhi", ends},
      {"identity", "200 closed [hi]", OK + "Transfer-Encoding: identity\r\n\r\nhi", ends},
      {"no body", "204 kept", "HTTP/1.1 204 N\r\n\r\n"},
      {"not modified", "304 kept", "HTTP/1.1 304 N\r\nContent-Length: 4\r\n\r\n"},
      {"after interim replies", "200 kept [hi]",
       INTERIM + "HTTP/1.1 103 E\r\nContent-Length: 9\r\n\r\n" + LENGTH + "2\r\n\r\nhi"},
      {"status 999", "999 kept", "HTTP/1.1 999 X\r\nContent-Length: 0\r\n\r\n"},
  };
  return rows;
}

TEST(Exchange, EveryReplyHasOneOutcomeHoweverItArrivesAndIsRead) {
  for (const Row& row : rows()) {
    for (const auto& [piece, amt, fill] :
         {std::tuple(SIZE_MAX, 65536, false), {1, 65536, true}, {7, 3, false}}) {
      if (row.bytes.size() / piece > 1000) continue;
      SCOPED_TRACE(row.name + (" in pieces of " + std::to_string(piece)));
      Played played(row.bytes, row.then, piece);
      const std::string how = played.outcome(static_cast<std::size_t>(amt), fill);
      EXPECT_TRUE(how == row.how || (!std::isdigit(row.how[0]) && how.starts_with(row.how))) << how;
      EXPECT_EQ(played.stream.sent, "POST / HTTP/1.1\r\n\r\n{}");
    }
  }
}

TEST(Exchange, AnAnswerThatComesBeforeTheRequestIsSentEndsTheSending) {
  for (const Row& row : std::vector<Row>{
           {"answer", "413 closed [no]", "HTTP/1.1 413 L\r\nContent-Length: 2\r\n\r\nno"},
           {"answer, reset", "200 closed [hi]", LENGTH + "2\r\n\r\nhi", Then::resets},
           {"interim", "URLError: timed out after 0.02 s while sending", INTERIM},
           {"reset", "URLError: the connection broke while the request was", "", Then::resets},
           {"closed", "URLError: the connection broke while the request was", "", Then::ends},
           {"reset in head", "ConnectionError", "HTTP/1.1 4", Then::resets}}) {
    Played played(row.bytes, row.then, 5);
    played.stream.takes = 0;
    EXPECT_TRUE(played.outcome(65536, false).starts_with(row.how)) << row.name;
  }
}

TEST(Exchange, HeadersAreThoseOfTheFinalReplyInTheirOrder) {
  Played played("HTTP/1.1 103 E\r\nEarly: 1\r\n\r\n" + OK +
                    "Set-Cookie: a\r\nX: 1\r\nset-cookie: b\r\nFolded: c\r\n  d\r\nEmpty:\r\n"
                    "Bytes: \xc3\xa9\r\nTransfer-Encoding: chunked\r\n\r\n0\r\nLate: 1\r\n\r\n",
                Then::stalls, SIZE_MAX);
  EXPECT_EQ(played.outcome(9, false), "200 kept");
  const Headers expected{{"Set-Cookie", "a"},
                         {"X", "1"},
                         {"set-cookie", "b"},
                         {"Folded", "c d"},
                         {"Empty", ""},
                         {"Bytes", "\xc3\xa9"},
                         {"Transfer-Encoding", "chunked"}};
  EXPECT_EQ(played.exchange.headers(), expected);
}

TEST(Exchange, AFailureOfAReadIsRepeatedAndWhatCameBeforeItIsNotLost) {
  Played played(TEN + "abc", Then::ends, SIZE_MAX);
  played.run();
  std::string body;
  EXPECT_EQ(played.exchange.read(body, 9, true), 3U);
  for (int i = 0; i < 2; ++i) EXPECT_THROW(played.exchange.read(body, 9, true), IncompleteRead);
  EXPECT_EQ(body, "abc");
}

TEST(Exchange, FinishTakesTheRestOfTheBodyThatIsHereAndWaitsForNone) {
  const auto kept = [](const std::string& bytes, std::size_t piece) {
    Played played(bytes, Then::stalls, piece);
    played.run();
    std::string body;
    played.exchange.read(body, 1, false);
    return played.exchange.finish();
  };
  const std::string ten = TEN + "0123456789", big(200'000, 'x');
  EXPECT_TRUE(kept(ten, 1000));
  EXPECT_TRUE(kept(CHUNKED + "5\r\nevent\r\n0\r\n\r\n", 1000));
  EXPECT_FALSE(kept(ten + "HTTP", 1000)) << "bytes that belong to no reply";
  EXPECT_FALSE(kept(ten, TEN.size() + 5)) << "the rest is not here";
  EXPECT_FALSE(kept(LENGTH + "200000\r\n\r\n" + big, SIZE_MAX)) << "more than is worth it";
  EXPECT_FALSE(kept(CHUNKED + "30d40\r\n" + big + "\r\n0\r\n\r\n", SIZE_MAX));
}

TEST(Exchange, AStopEndsAReadThatNeverWaits) {
  int asks = 0;
  Played flood(LENGTH + "9000000\r\n\r\n" + std::string(9'000'000, 'x'), Then::stalls, SIZE_MAX,
               {.timeout = 9, .should_stop = [&] { return ++asks > 8; }});
  EXPECT_TRUE(flood.outcome(9'000'000, true).starts_with("Stopped: the transport was asked to"));
}

TEST(Limits, ATimeoutThatIsNoDurationNeitherHangsNorLastsForEver) {
  for (const double passed : {0.0, -1.0, std::nan(""), -HUGE_VAL, 1e-300}) {
    EXPECT_EQ(duration_of(passed), Duration::zero());
  }
  for (const double enough : {1e9, 1e300, HUGE_VAL}) {
    const TimePoint end = SteadyClock::now() + duration_of(enough);
    EXPECT_GT(milliseconds(end - SteadyClock::now()), 1'000'000);
  }
}

TEST(RequestHead, HasWhatTheCallerGaveAndTheRestByDefault) {
  const auto head = [](const Request& request, const char* proxy_url = nullptr,
                       const PoolOptions& options = {}) {
    const auto proxy = proxy_url ? std::optional(parse_proxy_url(proxy_url)) : std::nullopt;
    return request_head(first_hop(request), proxy ? &*proxy : nullptr, options);
  };
  const std::string defaults =
      "User-Agent: engines-http\r\nAccept: */*\r\nAccept-Encoding: gzip\r\n";
  EXPECT_EQ(head(Request("http://u:p@H:80?q#f")),
            "GET /?q HTTP/1.1\r\nHost: h\r\n" + defaults + "Authorization: Basic dTpw\r\n\r\n");
  EXPECT_EQ(head(Request("https://[::1]:8443/a/../b", {.data = "", .method = "PURGE"}), nullptr,
                 {.user_agent = "me/1"}),
            "PURGE /a/../b HTTP/1.1\r\nHost: [::1]:8443\r\nUser-Agent: me/1\r\nAccept: */*\r\n"
            "Accept-Encoding: gzip\r\nContent-Length: 0\r\n\r\n");
  const RequestFields own{.data = "{}",
                          .headers = {{"host", "h:80"},
                                      {"user-agent", "mine"},
                                      {"ACCEPT", "a/b"},
                                      {"Accept-Encoding", ""},
                                      {"content-length", "2"},
                                      {"Authorization", "t"},
                                      {"Proxy-Authorization", "p"}},
                          .method = "POST"};
  const std::string lines =
      "POST / HTTP/1.1\r\nhost: h:80\r\nuser-agent: mine\r\nACCEPT: a/b\r\nAccept-Encoding:\r\n"
      "content-length: 2\r\nAuthorization: t\r\n";
  EXPECT_EQ(head(Request("http://u:p@h/", own)), lines + "Proxy-Authorization: p\r\n\r\n");
  // To a proxy that forwards it, and through a tunnel, whose proxy has read its own header.
  EXPECT_EQ(head(Request("http://h/x", {.method = "PUT"}), "http://a:b@proxy:3128"),
            "PUT http://h/x HTTP/1.1\r\nHost: h\r\n" + defaults +
                "Proxy-Authorization: Basic YTpi\r\nContent-Length: 0\r\n\r\n");
  EXPECT_EQ(head(Request("http://h/", own), "socks5://proxy"), lines + "\r\n");
}

}  // namespace
}  // namespace engines::http::net
