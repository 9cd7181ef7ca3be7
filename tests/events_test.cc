// SPDX-License-Identifier: Apache-2.0
#include "engines/http/events.h"

#include <gtest/gtest.h>

#include <ranges>
#include <tuple>
#include <vector>

#include "engines/http/testing.h"
#include "tests/support/outcome.h"

namespace engines::http {
namespace {

using testing::ManualTime;
using testing::Piece;
using testing::reply_of;

static_assert(std::ranges::input_range<Lines> && std::ranges::input_range<Events>);

std::string item(const std::string& line) { return "<" + line + ">"; }
std::string item(const Event& e) { return "<" + e.event + "|" + e.data + "|" + e.id + ">"; }

/// Each body has these items however it is cut: byte by byte and in two at every place.
template <class Read>
void expect_items(const Read& read,
                  std::initializer_list<std::pair<std::string, std::string>> table) {
  for (const auto& [body, items] : table) {
    std::vector<Piece> pieces;
    for (const char byte : body) pieces.emplace_back(std::string(1, byte));
    for (std::size_t at = 0; at <= body.size(); ++at) {
      if (at > 0) pieces = {body.substr(0, at), body.substr(at)};
      std::string found;
      const auto reply = reply_of(pieces);
      for (const auto& each : read(*reply, RetryPolicy{})) found += item(each);
      EXPECT_EQ(found, items) << body << " cut at " << at;
    }
  }
}

TEST(Lines, AreWithoutTheirEndsHoweverTheyArrive) {
  expect_items(lines, {{"", ""},
                       {"\n", "<>"},
                       {"a\nb\r\n\r\nc\rd\r\r\n\xff", "<a><b><><c\rd\r><\xff>"},
                       {"a\n\nb", "<a><><b>"}});
}

TEST(Events, AreReadAsTheStandardSays) {
  const std::string with_nul = "id: 1\nid: 2" + std::string(1, '\0') + "x\n";
  expect_items(
      events,
      {{"data: YHOO\ndata: +2\ndata:10\n\n", "<message|YHOO\n+2\n10|>"},
       {": comment\n\ndata: 1\nid: 1\n\ndata:2\nid\n\ndata:  3\n\n",
        "<message|1|1><message|2|><message| 3|>"},
       {"data\n\ndata\ndata\n\ndata:", "<message||><message|\n|>"},
       {"event: add\ndata: 7\n\nevent: none\n\ndata: 8\n\nevent:\ndata:9\n\n",
        "<add|7|><message|8|><message|9|>"},
       {"data:a\r\rdata: b\r\n\r\ndata: c\n\r\ndata: d\r\n\r",
        "<message|a|><message|b|><message|c|><message|d|>"},
       {"\uFEFFdata: a\n\n\uFEFFdata: b\n\n", "<message|a|>"},
       {"\uFEFF\uFEFFdata: a\n\ndata:b\n\n", "<message|b|>"},
       {with_nul + "data: a\n\nid: 3\n\ndata: b\n\n", "<message|a|1><message|b|3>"},
       {"retry: 10\nDATA: a\n data: b\nother: c\ndata : d\ndata: e:f\n\n", "<message|e:f|>"},
       {"data: a\n\nid: 9\nevent: cut\ndata: b\n", "<message|a|>"},
       {"event: \xff\ndata: \xe2\x82\ndata: €\nid: \xc3\n\n", "<\uFFFD|\uFFFD\n€|\uFFFD>"}});
}

TEST(Stream, IsBoundedAtEveryRead) {
  ManualTime time;
  // How the reading of a line that never ends, a byte a second, ends for both.
  const auto expect_end = [&](const RetryPolicy& policy, const std::string& expected) {
    for (const bool as_events : {false, true}) {
      time.advance(-time.now());
      const auto reply = reply_of(std::vector<Piece>(20, time.after(1, "x")));
      const std::string how = test::outcome([&]() -> std::string {
        return as_events ? events(*reply, policy).begin()->data : *lines(*reply, policy).begin();
      });
      EXPECT_EQ(how + " after " + std::to_string(reply->reads().size()), expected);
    }
  };
  const std::string arriving = ": the reply was still arriving ";
  expect_end(time.policy({.deadline = 2}),
             "DeadlineExceeded" + arriving + "at the deadline after 2");
  expect_end(time.policy({.max_body_bytes = 4}),
             "BadReply: reply longer than 4 bytes | 200 after 5");
  time.stop_at(3);
  expect_end(time.policy(), "Stopped" + arriving + "when the call was asked to stop after 3");
  // The whole body counts, not a line of it.
  const auto two = reply_of({"ab\n", "cd\n"});
  EXPECT_THROW(std::ignore = std::ranges::distance(lines(*two, {.max_body_bytes = 5})), BadReply);
  EXPECT_EQ(two->reads(), (std::vector<std::size_t>{65536, 65536}));
}

TEST(Stream, WaitsForNothingThatIsNotTaken) {
  const RetryPolicy policy{.clock = []() -> double { throw std::logic_error("no deadline"); }};
  const auto reply = reply_of({"data: 1\n\ndata: 2\n\n", TimeoutError("no third event")});
  auto stream = events(*reply, policy);
  auto event = stream.begin();
  EXPECT_EQ(event->data, "1");
  EXPECT_EQ((++event)->data, "2");
  EXPECT_EQ(reply->reads().size(), 1U);
  ++event;
  EXPECT_THROW(*event, TimeoutError);
}

TEST(Stream, IsLinear) {
  struct Dripping : Response {
    std::string do_read(std::size_t) override { return left-- > 0 ? "x" : ""; }
    void do_close() override {}
    int left = 1 << 20;
  };
  Dripping line;
  EXPECT_EQ(lines(line, {}).begin()->size(), 1U << 20);
  const auto reply = reply_of({std::string(1 << 20, '\r')});
  EXPECT_EQ(std::ranges::distance(events(*reply, {})), 0);
  EXPECT_EQ(std::ranges::distance(lines(*reply_of({std::string(1 << 20, '\n')}), {})), 1 << 20);
}

}  // namespace
}  // namespace engines::http
