// SPDX-License-Identifier: Apache-2.0
// An engine tested without a network: chat_engine.h against a scripted transport on manual time.
// docs/testing.md explains the kit.
#include "examples/chat_engine.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "engines/http/testing.h"

namespace {

using namespace engines::http;
using namespace std::chrono_literals;
using engines::http::testing::ManualTime;
using engines::http::testing::reply_of;
using engines::http::testing::ScriptedTransport;

const std::string KEY = "sk-0123456789";
const std::string ANSWER = R"({"message": {"role": "assistant", "content": "Fifty-four."}})";

/// An engine with a scripted service and manual time.
struct Bench {
  ManualTime time;
  ScriptedTransport service;
  examples::ChatEngine engine{
      "https://chat.test/v1", KEY,
      time.policy({.attempts = 4, .refusal_statuses = {401, 403}, .refusal_reason = html_page}),
      service};

  std::string ask() const { return engine.answer({{"user", "Six by nine?"}}); }
};

TEST(ChatEngine, AsksAgainUntilTheServiceAnswers) {
  Bench bench;
  bench.service.reply("busy", 503).fail(TimeoutError("no answer")).reply(ANSWER);
  EXPECT_EQ(bench.ask(), "Fifty-four.");
  EXPECT_EQ(bench.time.waits(), (std::vector{1.0, 2.0}));
  ASSERT_EQ(bench.service.sent().size(), 3U);
  for (const auto& sent : bench.service.sent()) {
    EXPECT_EQ(sent.request.headers.get("authorization"), "Bearer " + KEY);
    EXPECT_EQ(sent.json()["messages"][0]["content"], "Six by nine?");
  }
  EXPECT_EQ(bench.service.sent()[2].timeout, 17);  // 20 s less the two waits, under the 30 s
}

TEST(ChatEngine, ThrowsTheKindOfEachFailure) {
  struct Case {
    std::string name;
    std::function<void(Bench&)> set_up;
    std::string kind;
    std::size_t requests;
  };
  const std::vector<Case> table{
      {"always busy",
       [](Bench& b) {
         for (int i = 0; i < 4; ++i) b.service.reply("busy", 503);
       },
       "Exhausted", 4},
      {"a key that is refused, and echoed",
       [](Bench& b) { b.service.reply("bad key " + KEY, 401); }, "Refused", 1},
      {"a proxy's page", [](Bench& b) { b.service.reply("<!doctype html><p>Blocked"); }, "Refused",
       1},
      {"JSON of another shape", [](Bench& b) { b.service.reply(R"({"message": "hi"})"); },
       "BadReply", 1},
      {"no JSON", [](Bench& b) { b.service.reply("oops"); }, "BadReply", 1},
      {"a reply that breaks off, then one that trickles past the deadline",
       [](Bench& b) {
         b.service.reply(reply_of({R"({"message": )", ConnectionError("reset")}))
             .reply(reply_of({R"({"message": )", b.time.after(25s, "...")}));
       },
       "DeadlineExceeded", 2},
      {"a stop in the middle of the second backoff",
       [](Bench& b) {
         b.time.stop_at(1.5);
         b.service.reply("busy", 503).reply("busy", 503);
       },
       "Stopped", 2},
  };
  for (const Case& c : table) {
    Bench bench;
    c.set_up(bench);
    try {
      bench.ask();
      FAIL() << c.name;
    } catch (const HttpFailure& failure) {
      EXPECT_EQ(ErrorRef(failure).type_name(), c.kind) << c.name;
      EXPECT_EQ(failure.message().find(KEY), std::string::npos) << c.name;
    }
    EXPECT_EQ(bench.service.sent().size(), c.requests) << c.name;
  }
}

}  // namespace
