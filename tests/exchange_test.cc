// SPDX-License-Identifier: Apache-2.0
#include "engines/http/net/exchange.h"

#include <gtest/gtest.h>

#include <cmath>

#include "tests/support/outcome.h"
#include "tests/support/replies.h"
#include "tests/support/scripted_stream.h"
#include "tests/support/table.h"

namespace engines::http::net {
namespace {

using namespace test;

/// A request to a scripted peer, and its reply.
struct Played {
  Played(const std::string& bytes, const std::string& then, std::size_t piece,
         const TransportOptions& bounds = {.timeout = 60})
      : stream(bytes, then, piece), limits(bounds, std::nullopt) {}

  std::string run() {
    exchange.run("POST / HTTP/1.1\r\n\r\n", "{}", false);
    exchange.decode_content();
    return std::to_string(exchange.status());
  }
  /// "200 kept [body]", "200 closed [body]", or how the exchange failed and what came before it.
  std::string outcome(std::size_t amt, bool fill) {
    std::string body, status;
    const auto read = [&] {
      for (std::string piece; exchange.read(piece, amt, fill) > 0; piece.clear()) body += piece;
      return status + (exchange.finish() ? " kept" : " closed");
    };
    const std::string how = test::outcome([&] { return status = run(), read(); });
    EXPECT_TRUE(status.empty() || test::outcome(read) == how) << "read once more";
    return body.empty() ? how : how + " [" + body + "]";
  }

  ScriptedStream stream;
  Limits limits;
  PoolOptions options;
  Exchange exchange{stream, limits, options};
};

/// A short timeout where one is to come, and one that does not come on the busiest machine.
TransportOptions bounds(const std::string& how) {
  const bool times_out = how.starts_with("TimeoutError") || how.find("timed out") != how.npos;
  return {.timeout = times_out ? 0.02 : 60};
}

TEST(Exchange, EveryReplyHasOneOutcomeHoweverItArrivesAndIsRead) {
  for (const Row& row : table("replies", 5)) {
    const std::string &how = row[1], &bytes = row[3], &headers = row[4];
    for (const auto& [piece, amt, fill] :
         {std::tuple(SIZE_MAX, 65536UL, false), {1, 65536, true}, {7, 3, false}}) {
      if (bytes.size() / piece > 1000) continue;
      SCOPED_TRACE(row[0] + " in pieces of " + std::to_string(piece));
      Played played(bytes, row[2], piece, bounds(how));
      const std::string ended = played.outcome(amt, fill);
      EXPECT_TRUE(ended == how || (!std::isdigit(how[0]) && ended.starts_with(how))) << ended;
      EXPECT_EQ(played.stream.sent, "POST / HTTP/1.1\r\n\r\n{}");
      EXPECT_TRUE(headers.empty() ||
                  played.exchange.headers() == Headers(test::headers(headers, '\n')));
    }
  }
}

TEST(Exchange, AnAnswerThatComesBeforeTheRequestIsSentEndsTheSending) {
  for (const Row& row : table("early_replies", 4)) {
    Played played(row[3], row[2], 5, bounds(row[1]));
    played.stream.takes = false;
    EXPECT_TRUE(played.outcome(65536, false).starts_with(row[1])) << row[0];
  }
}

TEST(Exchange, FinishTakesTheRestOfTheBodyThatIsHereAndWaitsForNone) {
  for (const Row& row : table("finish", 3)) {
    Played played(row[2], "stalls", std::stoul(row[1]));
    played.run();
    std::string body;
    played.exchange.read(body, 1, false);
    EXPECT_EQ(played.exchange.finish(), row[0] == "kept") << row[2].substr(0, 99);
  }
}

TEST(Exchange, AStopEndsAReadThatNeverWaits) {
  int asks = 0;
  Played flood(OK + "Content-Length: 9000000\r\n\r\n" + std::string(9'000'000, 'x'), "stalls",
               SIZE_MAX, {.timeout = 9, .should_stop = [&] { return ++asks > 8; }});
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
  for (const Row& row : table("request_heads", 7)) {
    RequestFields fields{.headers = Headers(test::headers(row[3], '\n')), .method = row[0]};
    if (row[2] != "-") fields.data = row[2];
    const Request request(row[1], fields);
    const Hop hop = first_hop(request);
    const Route route{hop.url.origin, proxy_for(hop.url.origin, row[4]), {}};
    PoolOptions options;
    if (!row[5].empty()) options.user_agent = row[5];
    EXPECT_EQ(request_head(hop, route, options), row[6]);
  }
}

}  // namespace
}  // namespace engines::http::net
