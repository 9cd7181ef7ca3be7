// SPDX-License-Identifier: Apache-2.0
#include "engines/http/events.h"

#include <gtest/gtest.h>

#include <ranges>
#include <tuple>
#include <vector>

#include "engines/http/testing.h"
#include "tests/support/outcome.h"
#include "tests/support/table.h"

namespace engines::http {
namespace {

using testing::ManualTime;
using testing::Piece;
using testing::reply_of;

static_assert(std::ranges::input_range<Lines> && std::ranges::input_range<Events>);

std::string item(const std::string& line) { return "<" + line + ">"; }
std::string item(const Event& e) { return "<" + e.event + "," + e.data + "," + e.id + ">"; }

/// What a body has however it is cut: byte by byte and in two at every place.
void expect_items(const auto& read, const std::string& body, const std::string& items) {
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

TEST(Stream, IsReadAsTheStandardSaysHoweverItArrives) {
  for (const test::Row& row : test::table("events", 3)) {
    row[0] == "lines" ? expect_items(lines, row[1], row[2]) : expect_items(events, row[1], row[2]);
  }
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
