#include "engines/http/retry.h"

#include <gtest/gtest.h>
#include <spdlog/sinks/ostream_sink.h>
#include <spdlog/spdlog.h>

#include <cstdlib>
#include <functional>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "engines/http/classification.h"
#include "engines/http/requests.h"
#include "engines/http/testing.h"
#include "tests/support/outcome.h"

namespace engines::http {
namespace {

using testing::ManualTime;
using testing::ScriptedTransport;

/// Collects what the default logger's sinks are given, for the life of the object.
class Log {
 public:
  Log() {
    auto sink = std::make_shared<spdlog::sinks::ostream_sink_mt>(out_);
    sink->set_pattern("%n %l %v");
    spdlog::set_default_logger(std::make_shared<spdlog::logger>("application", sink));
  }
  ~Log() { spdlog::set_default_logger(previous_); }
  std::string text() const { return out_.str(); }

 private:
  std::ostringstream out_;
  std::shared_ptr<spdlog::logger> previous_ = spdlog::default_logger();
};

/// An attempt that throws these failures in order and then answers with how often it was called.
struct Attempts {
  std::vector<FailurePtr> failures;
  std::size_t made = 0;

  int operator()(double) {
    if (made++ < failures.size()) failures[made - 1].raise();
    return static_cast<int>(made);
  }
};

const Retryable busy("HTTP 503", {.status = 503, .detail = "later"});

TEST(Retry, TellsEveryEventInOrder) {
  for (const bool with_deadline : {false, true}) {
    std::string events;
    const RetryPolicy policy{
        .attempts = 2,
        .deadline = with_deadline ? std::optional(100.0) : std::nullopt,
        .clock = [&] { return events += 'c', 0.0; },
        .should_stop = [&] { return events += 's', false; },
        .wait = [&](double, const StopSignal& stop) { return events += 'W', stop(); }};
    EXPECT_THROW(
        retry(policy, [&](double) { events += 'A', throw Retryable("m"); }, {.label = "l"}),
        Exhausted);
    EXPECT_EQ(events, with_deadline ? "scAscWsscAc" : "sAsWssA");
  }
}

TEST(Retry, CutsTheTimeoutToTheDeadline) {
  const std::vector<std::tuple<std::optional<double>, double, double>> table{
      {std::nullopt, 5.0, 30.0}, {100.0, 5.0, 30.0}, {5.5, 5.0, 0.5}, {35.0, 5.0, 30.0}};
  for (const auto& [deadline, now, expected] : table) {
    const RetryPolicy policy{.deadline = deadline, .clock = [time = now] { return time; }};
    EXPECT_EQ(retry(policy, [](double timeout) { return timeout; }, {.label = "l"}), expected);
  }
}

struct EndCase {
  RetryPolicy policy;
  std::vector<FailurePtr> failures;
  std::string expected;
};

TEST(Retry, EveryWayOut) {
  const Log log;
  const auto stop_at = [](int ask) -> StopSignal {
    return [ask, asked = std::make_shared<int>(0)] { return ++*asked == ask; };
  };
  // Successive readings of the clock.
  const auto read = [](std::vector<double> readings) -> Clock {
    return [readings, next = std::make_shared<std::size_t>(0)] { return readings.at((*next)++); };
  };
  const Wait skip = [](double, const StopSignal&) { return false; };
  const std::string stopped = "Stopped: call was asked to stop";
  const std::string no_time = "DeadlineExceeded: call had no time left ";
  const std::string of_last = " | 503 | later";
  const Retryable quoting("token s3cr3t-k3y");
  const std::vector<EndCase> table{
      {{.clock = read({}), .should_stop = stop_at(1)}, {}, stopped},
      {{.clock = read({}), .should_stop = stop_at(2)}, {busy}, stopped + of_last},
      {{.clock = read({}), .should_stop = stop_at(3), .wait = skip}, {busy}, stopped + of_last},
      {{.deadline = 10, .clock = read({10})}, {}, no_time + "for another attempt"},
      {{.deadline = 10, .clock = read({0, 9})}, {busy}, no_time + "to wait 1.0 s" + of_last},
      {{.deadline = 10.5, .clock = read({0, 9, 10.5}), .wait = skip},
       {busy},
       no_time + "for another attempt" + of_last},
      {{.attempts = 1, .deadline = 10, .clock = read({0, 10})},
       {busy},
       "DeadlineExceeded: call ran out of time" + of_last},
      {{.attempts = 1, .deadline = 10, .clock = read({0, 9})},
       {quoting},
       "Exhausted: call failed after 1 attempts: token [redacted]"},
      {{.attempts = 2, .wait = skip},
       {busy, busy},
       "Exhausted: call failed after 2 attempts: HTTP 503" + of_last},
      {{}, {Refused("no")}, "Refused: no"},
      {{}, {HttpFailure("plain")}, "HttpFailure: plain"},
      {{.wait = skip}, {busy, DeadlineExceeded("late")}, "DeadlineExceeded: late"},
  };
  for (const EndCase& c : table) {
    Attempts attempts{c.failures};
    try {
      retry(c.policy, attempts, {.label = "call", .secrets = {"s3cr3t-k3y"}});
      FAIL() << c.expected;
    } catch (const HttpFailure& failure) {
      EXPECT_EQ(test::described(failure), c.expected);
      EXPECT_EQ(attempts.made, c.failures.size()) << c.expected;
      const auto* const end = dynamic_cast<const detail::Ended*>(&failure);
      if (end && end->last()) {
        EXPECT_EQ(test::described(*end->last()), test::described(*c.failures.back()));
      }
      const auto* const exhausted = dynamic_cast<const Exhausted*>(&failure);
      EXPECT_TRUE(!exhausted || exhausted->attempts() == c.policy.attempts);
    }
  }
}

TEST(Retry, LetsWhatCallbacksThrowThrough) {
  const auto thrown = []() -> double { throw std::out_of_range("callback"); };
  const auto stop = [=] { return thrown() > 0; };
  const auto wait = [=](double, const StopSignal&) { return thrown() > 0; };
  for (const RetryPolicy& policy : {RetryPolicy{.deadline = 1, .clock = thrown},
                                    RetryPolicy{.should_stop = stop}, RetryPolicy{.wait = wait}}) {
    EXPECT_THROW(retry(policy, Attempts{{busy}}, {.label = "l"}), std::out_of_range);
  }
  int made = 0;
  EXPECT_THROW(retry({}, [&](double) { ++made, thrown(); }, {.label = "l"}), std::out_of_range);
  EXPECT_EQ(made, 1);
}

TEST(Retry, AnyResultPassesUnchanged) {
  int value = 1;
  EXPECT_EQ(&retry({}, [&](double) -> int& { return value; }, {.label = "l"}), &value);
  retry({}, [&](double) { value = 2; }, {.label = "l"});
  EXPECT_EQ(value, 2);
  EXPECT_EQ(*retry({}, [](double) { return std::make_unique<int>(3); }, {.label = "l"}), 3);
}

TEST(Retry, WaitsBetweenAttemptsAndLogsEach) {
  const Log log;
  ManualTime time;
  const RetryPolicy policy = time.policy({.attempts = 4, .backoff_s = 0.25});
  Attempts attempts{{busy, Retryable("sent s3cr3t-k3y {}")}};
  EXPECT_EQ(retry(policy, attempts, {.label = "100%s {} {0}", .secrets = {"s3cr3t-k3y"}}), 3);
  EXPECT_EQ(time.waits(), (std::vector{0.25, 0.5}));
  EXPECT_EQ(log.text(),
            "engines.http warning 100%s {} {0} failed (attempt 1/4): HTTP 503; retrying in 0.2 s\n"
            "engines.http warning 100%s {} {0} failed (attempt 2/4): sent [redacted] {}; retrying "
            "in 0.5 s\n");
}

TEST(Logger, WritesToStandardErrorUntilThereIsADefaultLogger) {
  const auto warn_and_exit = [] {
    spdlog::set_pattern("<%v>");
    retry({.backoff_s = 0}, Attempts{{busy}}, {.label = "call"});
    std::exit(0);
  };
  EXPECT_EXIT(warn_and_exit(), ::testing::ExitedWithCode(0),
              "^<call failed .attempt 1/3.: HTTP 503; retrying in 0.0 s>\n$");
  const auto own = [&] {  // its sink is the same, and it is the application's
    const auto sinks = spdlog::default_logger()->sinks();
    spdlog::set_default_logger(
        std::make_shared<spdlog::logger>("application", sinks.begin(), sinks.end()));
    warn_and_exit();
  };
  EXPECT_EXIT(own(), ::testing::ExitedWithCode(0), "^$");
}

TEST(Logger, CanBeReplaced) {
  const Log log;
  ManualTime time;
  const std::shared_ptr<spdlog::logger> built = spdlog::get("engines.http");
  ASSERT_EQ(logger(), built);
  spdlog::set_default_logger(nullptr);
  built->warn("nobody hears this");
  std::ostringstream out;
  spdlog::drop("engines.http");
  EXPECT_EQ(logger(), built);
  spdlog::register_logger(std::make_shared<spdlog::logger>(
      "engines.http", std::make_shared<spdlog::sinks::ostream_sink_mt>(out)));
  retry(time.policy(), Attempts{{busy}}, {.label = "mine"});
  EXPECT_NE(out.str().find("mine failed (attempt 1/3)"), std::string::npos);
  EXPECT_EQ(log.text().find("mine"), std::string::npos);
  spdlog::drop("engines.http");
  spdlog::register_logger(built);
}

// ---- post_json and get_json ---------------------------------------------------------------------

TEST(Requests, OptionsOwnWhatTheyHold) {
  const Log log;
  ManualTime time;
  ScriptedTransport transport;
  transport.reply("a", 503).reply("b", 503).reply("c").reply("d");
  std::vector<std::optional<StatusCode>> seen;
  const auto made = [&](int attempts) -> CallOptions {
    const RetryPolicy policy = time.policy({.attempts = attempts, .backoff_s = 8});
    return {.policy = policy.with({.detail_chars = 1}),
            .label = std::string("made"),
            .transport = transport,
            .inspect = [&](const Response& reply) { seen.push_back(reply.status()); }};
  };
  const auto kept = std::make_unique<const CallOptions>(made(2));
  const std::vector<CallOptions> more{made(1), *kept};
  EXPECT_THROW(get_json("http://a.test", *kept), Exhausted);
  for (const CallOptions& options : more) {
    EXPECT_THROW(get_json("http://a.test", options), BadReply);
  }
  EXPECT_EQ(time.waits(), std::vector{8.0});
  EXPECT_EQ(seen, (std::vector<std::optional<StatusCode>>{503, 503, 200, 200}));
}

TEST(Requests, SendEachAttemptAndReturnTheReply) {
  const Log log;
  ManualTime time;
  ScriptedTransport transport;
  transport.reply("busy", 503).fail(TimeoutError("slow")).reply(R"({"text": "hi"})");
  const RetryPolicy policy = time.policy({.timeout_s = 4});
  const CallOptions options{
      .policy = policy, .label = "l", .headers = {{"X-Api-Key", "k"}}, .transport = transport};
  const Json reply = post_json("http://a.test", Json{{"q", 1}}, options);
  EXPECT_EQ(reply["text"], "hi");
  ASSERT_EQ(transport.sent().size(), 3U);
  for (const auto& [request, timeout, time_left] : transport.sent()) {
    EXPECT_EQ(request.method, "POST");
    EXPECT_EQ(request.url, "http://a.test");
    EXPECT_EQ(request.data, "{\"q\": 1}");
    EXPECT_EQ(request.headers, (Headers{{"Content-Type", "application/json"}, {"X-Api-Key", "k"}}));
    EXPECT_EQ(timeout, 4);
    EXPECT_EQ(time_left, std::nullopt);
  }

  transport.reply("null").reply("[]");
  EXPECT_EQ(get_json("http://a.test", options), Json());
  EXPECT_EQ(post_json("http://a.test", nullptr, options), Json::array());
  EXPECT_EQ(transport.sent()[3].request.method, "GET");
  for (const std::size_t bodiless : {3U, 4U}) {
    EXPECT_EQ(transport.sent()[bodiless].request.data, std::nullopt);
    EXPECT_EQ(transport.sent()[bodiless].request.headers, (Headers{{"X-Api-Key", "k"}}));
  }
  transport.reply("1");
  EXPECT_EQ(request_json("PATCH", "http://a.test", Json{{"q", 1}}, options), 1);
  EXPECT_EQ(transport.sent()[5].request.method, "PATCH");
  EXPECT_EQ(transport.sent()[5].request.data, "{\"q\": 1}");
  EXPECT_THROW(post_json("http://a.test", "\xff", options), ValueError);
  EXPECT_THROW(get_json("http://127.0.0.1:1/", {.policy = {.attempts = 1}, .label = "l"}),
               Exhausted);  // by the transport that is there by default: nothing listens
}

}  // namespace
}  // namespace engines::http
