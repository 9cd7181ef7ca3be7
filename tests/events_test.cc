#include "engines/http/events.h"

#include <gtest/gtest.h>

#include <ranges>
#include <string>
#include <vector>

#include "engines/http/testing.h"
#include "tests/support/outcome.h"

namespace engines::http {
namespace {

using testing::ManualTime;
using testing::Piece;
using testing::reply_of;

static_assert(std::ranges::input_range<Lines> && std::ranges::input_range<Events>);

std::vector<Piece> cut(const std::string& body, std::size_t at) {
  if (at > 0) return {body.substr(0, at), body.substr(at)};
  std::vector<Piece> bytes;
  for (const char byte : body) bytes.emplace_back(std::string(1, byte));
  return bytes;
}

/// The items of the body, however it is cut: byte by byte and in two at every place.
template <class Read>
void expect_items(const std::string& body, const Read& read,
                  const std::vector<std::string>& items) {
  for (std::size_t at = 0; at <= body.size(); ++at) {
    std::vector<std::string> found;
    const auto reply = reply_of(cut(body, at));
    for (const auto& item : read(*reply, RetryPolicy{})) {
      if constexpr (std::same_as<decltype(item), const Event&>) {
        found.push_back(item.event + "|" + item.data + "|" + item.id);
      } else {
        found.push_back(item);
      }
    }
    EXPECT_EQ(found, items) << body << " cut at " << at;
  }
}

TEST(Lines, AreWithoutTheirEndsHoweverTheyArrive) {
  const std::vector<std::pair<std::string, std::vector<std::string>>> table{
      {"", {}},
      {"\n", {""}},
      {"a\nb\r\n\r\nc\rd\r\r\n\xff", {"a", "b", "", "c\rd\r", "\xff"}},
      {"a\n\nb", {"a", "", "b"}}};
  for (const auto& [body, expected] : table) expect_items(body, lines, expected);
}

TEST(Events, AreReadAsTheStandardSays) {
  const std::vector<std::pair<std::string, std::vector<std::string>>> table{
      {"", {}},
      {"data: a\n\n", {"message|a|"}},
      {"data: YHOO\ndata: +2\ndata:10\n\n", {"message|YHOO\n+2\n10|"}},
      {": comment\n\ndata: 1\nid: 1\n\ndata:2\nid\n\ndata:  3\n\n",
       {"message|1|1", "message|2|", "message| 3|"}},
      {"data\n\ndata\ndata\n\ndata:", {"message||", "message|\n|"}},
      {"data:test\n\ndata: test\n\n", {"message|test|", "message|test|"}},
      {"event: add\ndata: 7\n\nevent: none\n\ndata: 8\n\nevent:\ndata:9\n\n",
       {"add|7|", "message|8|", "message|9|"}},
      {"data: a\r\rdata: b\r\n\r\ndata: c\n\r\ndata: d\r\n\r",
       {"message|a|", "message|b|", "message|c|", "message|d|"}},
      {"\uFEFFdata: a\n\n\uFEFFdata: b\n\n", {"message|a|"}},
      {"\uFEFF\uFEFFdata: a\n\ndata:b\n\n", {"message|b|"}},
      {"id: 1\nid: 2" + std::string(1, '\0') + "x\ndata: a\n\nid: 3\n\ndata: b\n\n",
       {"message|a|1", "message|b|3"}},
      {"retry: 10\nDATA: a\n data: b\nother: c\ndata : d\ndata: e:f\n\n", {"message|e:f|"}},
      {"data: a\n\nid: 9\nevent: cut\ndata: b\n", {"message|a|"}},
      {"event: \xff\ndata: \xe2\x82\ndata: \u20ac\nid: \xc3\n\n", {"\uFFFD|\uFFFD\n\u20ac|\uFFFD"}},
  };
  for (const auto& [body, expected] : table) expect_items(body, events, expected);
}

TEST(Stream, IsBoundedAtEveryRead) {
  // A line that never ends: a byte a second.
  const auto outcome = [](const RetryPolicy& policy, ManualTime& time) {
    const std::vector<Piece> drip(20, time.after(1, "x"));
    std::string last;
    for (const bool as_events : {false, true}) {
      time.advance(-time.now());
      const auto reply = reply_of(drip);
      last = test::outcome([&]() -> std::string {
        if (as_events) return events(*reply, policy).begin()->data;
        return *lines(*reply, policy).begin();
      });
      last += " after " + std::to_string(reply->reads().size());
      EXPECT_EQ(reply->reads(), std::vector<std::size_t>(reply->reads().size(), 65536));
    }
    return last;
  };
  ManualTime time;
  EXPECT_EQ(outcome(time.policy({.deadline = 2}), time),
            "DeadlineExceeded: the reply was still arriving at the deadline after 2");
  EXPECT_EQ(outcome(time.policy({.max_body_bytes = 4}), time),
            "BadReply: reply longer than 4 bytes | 200 after 5");
  time.stop_at(3);
  EXPECT_EQ(outcome(time.policy(), time),
            "Stopped: the reply was still arriving when the call was asked to stop after 3");
  // The whole body counts, not a line of it.
  const auto two = reply_of({"ab\n", "cd\n"});
  EXPECT_THROW(for ([[maybe_unused]] const auto& line
                    : lines(*two, {.max_body_bytes = 5})){},
               BadReply);
}

TEST(Stream, WaitsForNothingThatIsNotTaken) {
  const RetryPolicy policy{.clock = []() -> double { throw std::logic_error("no deadline"); }};
  const auto reply = reply_of({"data: 1\n\ndata: 2\n\n", TimeoutError("no third event")});
  auto stream = events(*reply, policy);
  auto event = stream.begin();
  EXPECT_EQ(event->data, "1");
  ++event;
  EXPECT_EQ(event->data, "2");
  EXPECT_EQ(reply->reads().size(), 1U);
  ++event;
  EXPECT_THROW(*event, TimeoutError);
}

TEST(Stream, IsLinear) {
  class Tiny : public Response {
   public:
    explicit Tiny(std::string bytes) : bytes_(std::move(bytes)) {}

   private:
    std::string do_read(std::size_t) override { return bytes_.substr(next_++, 1); }
    void do_close() override {}
    std::string bytes_;
    std::size_t next_ = 0;
  };
  Tiny line(std::string(1 << 20, 'x'));
  EXPECT_EQ(lines(line, {}).begin()->size(), 1U << 20);
  const auto reply = reply_of({std::string(1 << 20, '\r')});
  EXPECT_EQ(std::ranges::distance(events(*reply, {})), 0);
  EXPECT_EQ(std::ranges::distance(lines(*reply_of({std::string(1 << 20, '\n')}), {})), 1 << 20);
}

}  // namespace
}  // namespace engines::http
