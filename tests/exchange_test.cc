// SPDX-License-Identifier: Apache-2.0
#include "engines/http/net/exchange.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "engines/http/failure.h"
#include "tests/support/outcome.h"
#include "tests/support/scripted_stream.h"

namespace engines::http::net {
namespace {

using test::ScriptedStream;
using test::Then;

/// A request to a scripted peer, and its reply.
struct Played {
  Played(const std::string& bytes, Then then, std::size_t piece,
         const TransportOptions& bounds = {.timeout = 0.02}, std::size_t takes = SIZE_MAX)
      : stream(bytes, then, piece), limits(bounds, std::nullopt) {
    stream.takes = takes;
  }
  void run(bool is_head_request = false) {
    exchange.run("POST / HTTP/1.1\r\n\r\n", "{}", is_head_request);
  }
  /// "200 kept [body]", "200 closed [body]", or how the exchange failed and what came before it.
  std::string outcome(std::size_t amt, bool fill, bool is_head_request = false) {
    std::string body;
    const std::string how = test::outcome([&] {
      run(is_head_request);
      while (exchange.read(body, amt, fill) > 0) continue;
      return std::to_string(exchange.status()) + (exchange.finish() ? " kept" : " closed");
    });
    return body.empty() ? how : how + " [" + body + "]";
  }

  ScriptedStream stream;
  Limits limits;
  PoolOptions options;
  Exchange exchange{stream, limits, options};
};

struct Way {
  std::size_t piece;  // bytes that arrive at a time
  std::size_t amt;    // bytes asked for
  bool fill;
};

struct Row {
  const char* name;
  std::string bytes;
  Then then;
  const char* how;  // the status, whether the stream is kept, and the body; or the failure's start
};

std::string times(int count, const std::string& text) {
  std::string all;
  for (int i = 0; i < count; ++i) all += text;
  return all;
}

const std::string OK = "HTTP/1.1 200 OK\r\n",
                  LENGTH = OK + "Content-Length: ", TEN = LENGTH + "10\r\n\r\n",
                  CHUNKED = OK + "Transfer-Encoding: chunked\r\n\r\n",
                  LAST_CHUNK = CHUNKED + "1\r\na\r\n0\r\n", INTERIM = "HTTP/1.1 102 P\r\n\r\n";

const std::vector<Row>& rows() {
  using enum Then;
  static const std::vector<Row> rows{
      // No head.
      {"closed", "", ends, "DroppedConnection: the connection was dropped before a reply began"},
      {"cut", "", cuts, "DroppedConnection: the connection was dropped before a reply began"},
      {"reset", "", resets, "ConnectionError: the connection broke (Connection reset by peer)"},
      {"silent", "", stalls, "TimeoutError: timed out after 0.02 s while waiting for the headers"},
      {"status line cut", "HTTP/1.1 20", ends, "DroppedConnection"},
      {"another protocol", "SSH-2.0-x\r\n", stalls, "BadStatusLine: the reply's status line"},
      {"another version", "HTTP/7.0 200 OK\r\n\r\n", stalls, "BadStatusLine"},
      {"no space behind the status", "HTTP/1.1 200\r\n\r\n", stalls, "BadStatusLine"},
      {"empty line", "\r\nHTTP/1.1 200 OK\r\n\r\n", stalls, "BadStatusLine"},
      {"short line", "ERROR\r\n", stalls, "BadStatusLine"},
      {"bare line feeds", "HTTP/1.1 200 OK\nA: b\n\n", ends, "BadStatusLine"},
      {"status 099", "HTTP/1.1 099 OK\r\n\r\n", stalls, "BadStatusLine"},
      {"status 2000", "HTTP/1.1 2000 OK\r\n\r\n", stalls, "BadStatusLine"},
      {"closed after an interim reply", INTERIM, ends, "DroppedConnection"},
      // A head that is not good.
      {"headers cut", OK + "A: b\r\n", ends, "HTTPException: the connection was closed inside"},
      {"silent in headers", OK + "A: b\r\n", stalls, "TimeoutError"},
      {"endless interim", times(20000, INTERIM), stalls,
       "HTTPException: the reply's headers are longer than 307200 bytes"},
      {"switches", "HTTP/1.1 101 S\r\nUpgrade: x\r\n\r\n", stalls,
       "HTTPException: the reply switches protocols"},
      {"endless header", OK + "A: " + times(310, std::string(1000, 'x')), stalls,
       "HTTPException: the reply's headers are longer than 307200 bytes"},
      {"header of 100 KB", OK + "A: " + times(100, std::string(1000, 'x')) + "\r\n\r\n", ends,
       "200 closed"},
      {"100 headers", OK + times(100, "A: b\r\n") + "\r\nhi", ends, "200 closed [hi]"},
      {"101 headers", OK + times(101, "A: b\r\n") + "\r\n", stalls,
       "HTTPException: the reply has more than 100 headers"},
      {"101 headers, interim ones included",
       "HTTP/1.1 103 E\r\n" + times(50, "A: b\r\n") + "\r\n" + OK + times(51, "A: b\r\n") + "\r\n",
       stalls, "HTTPException: the reply has more than 100 headers"},
      {"no colon", OK + "A\r\n\r\n", stalls, "HTTPException: the reply's headers are malformed"},
      {"space in a name", OK + "Transfer-Encoding : chunked\r\n\r\n", stalls, "HTTPException"},
      {"NUL", OK + std::string("A: \0\r\n\r\n", 9), stalls, "HTTPException"},
      {"length 3x", LENGTH + "3x\r\n\r\nabc", stalls, "HTTPException"},
      {"long length", LENGTH + "99999999999999999999\r\n\r\n", stalls, "HTTPException"},
      {"two lengths", LENGTH + "3\r\nContent-Length: 4\r\n\r\n", stalls, "HTTPException"},
      {"length and chunks", LENGTH + "3\r\nTransfer-Encoding: chunked\r\n\r\n", stalls,
       "HTTPException"},
      {"unknown coding", OK + "Transfer-Encoding: gzip, chunked\r\n\r\n0\r\n\r\n", stalls,
       "HTTPException: the reply has a transfer coding"},
      // A body that is not whole.
      {"short", TEN + "abc", ends, "IncompleteRead: the reply was cut short: quote [abc]"},
      {"reset in body", TEN + "abc", resets, "ConnectionError: the connection broke"},
      {"silent in body", TEN + "abc", stalls, "TimeoutError: timed out after 0.02 s while reading"},
      {"TLS ended without its close", OK + "\r\nhi", cuts, "IncompleteRead"},
      {"reset until the end", OK + "\r\nhi", resets, "ConnectionError"},
      {"chunk cut", CHUNKED + "5\r\nab", ends, "IncompleteRead"},
      {"bad chunk size", CHUNKED + "zz\r\nab", stalls,
       "HTTPException: the reply's chunks are malformed"},
      {"chunk longer than its size", CHUNKED + "1\r\nab\r\n0\r\n\r\n", stalls, "HTTPException"},
      {"endless chunk extension", CHUNKED + "5;" + std::string(70000, 'x'), stalls,
       "HTTPException: a chunk size or the trailers"},
      {"endless trailers", LAST_CHUNK + times(20000, "A: b\r\n"), stalls, "HTTPException"},
      {"101 trailers", LAST_CHUNK + times(101, "A: b\r\n") + "\r\n", stalls,
       "HTTPException: the reply has more than 100 headers"},
      {"trailers stall", LAST_CHUNK + "A: b\r\n", stalls, "TimeoutError"},
      // Good replies.
      {"length", LENGTH + "2\r\n\r\nhi", stalls, "200 kept [hi]"},
      {"one length twice", LENGTH + "3, 3\r\nContent-Length: 3\r\n\r\nabc", stalls,
       "200 kept [abc]"},
      {"length, connection closes", LENGTH + "2\r\nConnection: close\r\n\r\nhi", stalls,
       "200 closed [hi]"},
      {"chunks", CHUNKED + "1\r\nh\r\n1;x=y\r\ni\r\n0\r\nA: b\r\n\r\n", stalls, "200 kept [hi]"},
      {"until the end", "HTTP/1.0 200 OK\r\n\r\nhi", ends, "200 closed [hi]"},
      {"identity", OK + "Transfer-Encoding: identity\r\n\r\nhi", ends, "200 closed [hi]"},
      {"no body", "HTTP/1.1 204 N\r\n\r\n", stalls, "204 kept"},
      {"not modified", "HTTP/1.1 304 N\r\nContent-Length: 4\r\n\r\n", stalls, "304 kept"},
      {"after interim replies",
       "HTTP/1.1 100 C\r\n\r\nHTTP/1.1 103 E\r\nContent-Length: 9\r\n\r\n" + LENGTH + "2\r\n\r\nhi",
       stalls, "200 kept [hi]"},
      {"status 999", "HTTP/1.1 999 X\r\nContent-Length: 0\r\n\r\n", stalls, "999 kept"},
  };
  return rows;
}

TEST(Exchange, EveryReplyHasOneOutcomeHoweverItArrivesAndIsRead) {
  for (const Row& row : rows()) {
    for (const Way& way : {Way{SIZE_MAX, 65536, false}, Way{SIZE_MAX, 65536, true},
                           Way{1, 1, false}, Way{1, 65536, true}, Way{7, 3, false}}) {
      if (row.bytes.size() / way.piece > 1000) continue;
      SCOPED_TRACE(row.name + (" in pieces of " + std::to_string(way.piece)));
      Played played(row.bytes, row.then, way.piece);
      const std::string how = played.outcome(way.amt, way.fill);
      EXPECT_TRUE(how == row.how || (!std::isdigit(row.how[0]) && how.starts_with(row.how))) << how;
      EXPECT_EQ(played.stream.sent, "POST / HTTP/1.1\r\n\r\n{}");
    }
  }
}

TEST(Exchange, AHeadRequestHasNoBodyWhateverTheHeadersSay) {
  for (const std::string& head : {TEN, CHUNKED, OK + "\r\n"}) {
    EXPECT_EQ(Played(head, Then::stalls, SIZE_MAX).outcome(9, false, true), "200 kept");
  }
}

TEST(Exchange, AnAnswerThatComesBeforeTheRequestIsSentEndsTheSending) {
  for (const auto& [bytes, then, how] : std::vector<std::tuple<std::string, Then, const char*>>{
           {"HTTP/1.1 413 L\r\nContent-Length: 2\r\n\r\nno", Then::stalls, "413 closed [no]"},
           {LENGTH + "2\r\n\r\nhi", Then::resets, "200 closed [hi]"},
           {INTERIM, Then::stalls, "URLError: timed out after 0.02 s while sending"},
           {"", Then::resets, "URLError: the connection broke while the request was sent"},
           {"", Then::ends, "URLError: the connection broke while the request was sent"},
           {"HTTP/1.1 4", Then::resets, "ConnectionError"}}) {
    const std::string outcome = Played(bytes, then, 5, {.timeout = 0.02}, 0).outcome(65536, false);
    EXPECT_TRUE(outcome.starts_with(how)) << outcome;
  }
}

TEST(Exchange, HeadersAreThoseOfTheFinalReplyInTheirOrder) {
  Played played(
      "HTTP/1.1 103 E\r\nEarly: 1\r\n\r\n" + OK +
          "Set-Cookie: a\r\nX: 1\r\nset-cookie: b\r\nFolded: c\r\n  d\r\nEmpty:\r\nBytes: \xc3\xa9"
          "\r\nTransfer-Encoding: chunked\r\n\r\n0\r\nLate: 1\r\n\r\n",
      Then::stalls, SIZE_MAX);
  EXPECT_EQ(played.outcome(9, false), "200 kept");
  std::string headers;
  for (const auto& [name, value] : played.exchange.headers()) headers += name + "=" + value + "|";
  EXPECT_EQ(headers,
            "Set-Cookie=a|X=1|set-cookie=b|Folded=c d|Empty=|Bytes=\xc3\xa9|"
            "Transfer-Encoding=chunked|");
}

TEST(Exchange, AFailureOfAReadIsRepeatedAndWhatCameBeforeItIsNotLost) {
  Played played(LENGTH + "9\r\n\r\nabc", Then::ends, SIZE_MAX);
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
  const std::string big(200'000, 'x');
  EXPECT_TRUE(kept(TEN + "0123456789", 1000));
  EXPECT_TRUE(kept(CHUNKED + "5\r\nevent\r\n0\r\n\r\n", 1000));
  EXPECT_FALSE(kept(TEN + "0123456789HTTP", 1000)) << "bytes that belong to no reply";
  EXPECT_FALSE(kept(TEN + "0123456789", TEN.size() + 5)) << "the rest is not here";
  EXPECT_FALSE(kept(LENGTH + "200000\r\n\r\n" + big, SIZE_MAX)) << "more than is worth it";
  EXPECT_FALSE(kept(CHUNKED + "30d40\r\n" + big + "\r\n0\r\n\r\n", SIZE_MAX));
}

TEST(Exchange, AStopAndTheEndOfTheCallsTimeEndEveryWait) {
  for (const std::string& bytes : {std::string(), INTERIM, TEN + "abc", CHUNKED + "5\r\nab"}) {
    int asks = 0;
    const TransportOptions stopping{.timeout = 9, .should_stop = [&] { return ++asks > 8; }};
    const std::string stopped = Played(bytes, Then::stalls, 3, stopping).outcome(9, true);
    EXPECT_TRUE(stopped.starts_with("Stopped: the transport was asked to stop while")) << stopped;
    Played late(bytes, Then::stalls, 3, {.timeout = 9, .time_left = 0.02});
    EXPECT_TRUE(late.outcome(9, true).starts_with("TimeoutError: timed out after all the time"));
  }
  for (const bool fill : {false, true}) {  // reads that never wait
    int asks = 0;
    Played flood(LENGTH + "9000000\r\n\r\n" + std::string(9'000'000, 'x'), Then::stalls, SIZE_MAX,
                 {.timeout = 9, .should_stop = [&] { return ++asks > 8; }});
    EXPECT_TRUE(flood.outcome(9'000'000, fill).starts_with("Stopped: ")) << fill;
  }
}

TEST(Exchange, ATimeoutThatIsNoDurationNeitherHangsNorLastsForEver) {
  const double none = std::nan(""), infinite = HUGE_VAL;
  for (const double passed : {0.0, -1.0, none, -infinite, 1e-300, 1e-9}) {
    const std::string late = Played("", Then::stalls, 1, {.timeout = passed}).outcome(9, true);
    EXPECT_TRUE(late.starts_with("TimeoutError: timed out after ")) << late;
  }
  for (const double enough : {1e9, 1e300, infinite}) {
    EXPECT_EQ(Played(TEN + "0123456789", Then::stalls, 1, {.timeout = enough}).outcome(9, true),
              "200 kept [0123456789]");
  }
}

TEST(RequestHead, HasWhatTheCallerGaveAndTheRestByDefault) {
  const auto head = [](const Request& request, const char* proxy_url, const PoolOptions& options) {
    const auto proxy = proxy_url ? std::optional(parse_proxy_url(proxy_url)) : std::nullopt;
    return request_head(first_hop(request), proxy ? &*proxy : nullptr, options);
  };
  const std::string defaults =
      "User-Agent: engines-http\r\nAccept: */*\r\nAccept-Encoding: gzip\r\n";
  EXPECT_EQ(head(Request("http://u:p@H:80?q#f"), nullptr, {}),
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
      "host: h:80\r\nuser-agent: mine\r\nACCEPT: a/b\r\nAccept-Encoding:\r\ncontent-length: 2\r\n"
      "Authorization: t\r\n";
  EXPECT_EQ(head(Request("http://u:p@h/", own), nullptr, {}),
            "POST / HTTP/1.1\r\n" + lines + "Proxy-Authorization: p\r\n\r\n");
  // To a proxy that forwards it, and through a tunnel, whose proxy has read its own header.
  EXPECT_EQ(head(Request("http://h/x", {.method = "PUT"}), "http://a:b@proxy:3128", {}),
            "PUT http://h/x HTTP/1.1\r\nHost: h\r\n" + defaults +
                "Proxy-Authorization: Basic YTpi\r\nContent-Length: 0\r\n\r\n");
  EXPECT_EQ(head(Request("http://h/", own), "socks5://proxy", {}),
            "POST / HTTP/1.1\r\n" + lines + "\r\n");
}

}  // namespace
}  // namespace engines::http::net
