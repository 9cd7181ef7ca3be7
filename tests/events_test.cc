// SPDX-License-Identifier: Apache-2.0
#include "engines/http/events.h"

#include <gtest/gtest.h>

#include "engines/http/testing.h"
#include "tests/support/outcome.h"
#include "tests/support/table.h"

namespace engines::http {
namespace {

using testing::ManualTime;
using testing::Piece;
using testing::reply_of;

static_assert(!std::copyable<Lines> && !std::copyable<Events>,
              "a copy would take bytes read ahead");

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
  for (const test::Row& row : test::table("streams", 5)) {
    for (const bool as_events : {false, true}) {
      ManualTime time;
      time.stop_at(std::stod(row[2]));
      const RetryPolicy policy =
          time.policy({.deadline = std::stod(row[0]), .max_body_bytes = std::stoul(row[1])});
      const auto reply = reply_of(std::vector<Piece>(20, time.after(1, "x")));
      const auto read = [&]() -> std::string {
        return as_events ? events(*reply, policy).begin()->data : *lines(*reply, policy).begin();
      };
      EXPECT_EQ(test::outcome(read), row[3]);
      EXPECT_EQ(std::to_string(reply->reads().size()), row[4]);
    }
  }
  // The whole body counts, not a line of it.
  const auto two = reply_of({"ab\n", "cd\n"});
  EXPECT_THROW(std::ignore = std::ranges::distance(lines(*two, {.max_body_bytes = 5})), BadReply);
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
  const auto dripping = reply_of(std::vector<Piece>(1 << 20, Piece("x")));
  EXPECT_EQ(lines(*dripping, {}).begin()->size(), 1U << 20);
  const auto reply = reply_of({std::string(1 << 20, '\r')});
  EXPECT_EQ(std::ranges::distance(events(*reply, {})), 0);
  const std::string longest(4096, 'x'), ignored(1 << 22, 'x');
  std::string many = "id:" + longest + "\nid:x" + longest + "\nid:" + ignored + "\n";
  for (int i = 0; i < 10'000; ++i) many += "data\n\n";
  const auto replayed = reply_of({many});
  int count = 0;
  for (const Event& event : events(*replayed, {})) count += event.id == longest ? 1 : 0;
  EXPECT_EQ(count, 10'000);
}

}  // namespace
}  // namespace engines::http
