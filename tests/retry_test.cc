// SPDX-License-Identifier: Apache-2.0
#include "engines/http/retry.h"

#include <gtest/gtest.h>
#include <spdlog/sinks/ostream_sink.h>
#include <spdlog/spdlog.h>

#include <cstdlib>
#include <map>
#include <sstream>
#include <tuple>
#include <utility>
#include <vector>

#include "engines/http/requests.h"
#include "engines/http/testing.h"
#include "tests/support/outcome.h"
#include "tests/support/table.h"

namespace engines::http {
namespace {

using testing::ManualTime;
using testing::ScriptedTransport;

/// Collects what the default logger's sinks are given, for the life of the object.
struct Log {
  Log() {
    const auto sink = std::make_shared<spdlog::sinks::ostream_sink_mt>(out);
    sink->set_pattern("%n %l %v");
    spdlog::set_default_logger(std::make_shared<spdlog::logger>("application", sink));
  }
  ~Log() { spdlog::set_default_logger(previous); }

  std::ostringstream out;
  std::shared_ptr<spdlog::logger> previous = spdlog::default_logger();
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

TEST(Retry, AsksInOrder) {
  std::string events;
  const Clock clock = [&] { return events += "clock ", 0.0; };
  const StopSignal asked = [&] { return events += "stop? ", false; };
  const Wait wait = [&](double, const StopSignal& stop) { return events += "wait ", stop(); };
  const RetryPolicy policy{.attempts = 2, .clock = clock, .should_stop = asked, .wait = wait};
  const auto attempt = [&](double) { events += "try ", throw Retryable("m"); };
  try {
    retry(policy, attempt, {.label = "l"});
  } catch (const Exhausted& end) {
    EXPECT_EQ(end.attempts(), 2);
  }
  EXPECT_EQ(std::exchange(events, ""), "stop? try stop? wait stop? stop? try ");
  EXPECT_THROW(retry(policy.with({.deadline = 100}), attempt, {.label = "l"}), Exhausted);
  EXPECT_EQ(events, "stop? clock try stop? clock wait stop? stop? clock try clock ");
}

TEST(Retry, CutsTheTimeoutToTheDeadline) {
  const std::tuple<std::optional<double>, double> table[] = {
      {std::nullopt, 30.0}, {100.0, 30.0}, {5.5, 0.5}, {35.0, 30.0}};
  for (const auto& [deadline, expected] : table) {
    const RetryPolicy policy{.deadline = deadline, .clock = [] { return 5.0; }};
    EXPECT_EQ(retry(policy, [](double timeout) { return timeout; }, {.label = "l"}), expected);
  }
}

TEST(Retry, EveryWayOut) {
  const Log log;
  const std::map<std::string, FailurePtr> failures{{"busy", busy},
                                                   {"token", Retryable("token s3cr3t-k3y")},
                                                   {"refused", Refused("no")},
                                                   {"late", DeadlineExceeded("late")}};
  for (const test::Row& row : test::table("retry", 6)) {
    int asked = 0;
    std::size_t read = 0;
    const RetryPolicy timeless{.attempts = std::stoi(row[0]),
                               .clock = [&] { return std::stod(test::parts(row[2]).at(read++)); },
                               .should_stop = [&] { return std::to_string(++asked) == row[3]; },
                               .wait = [](auto...) { return false; }};
    const RetryPolicy policy =
        row[1].empty() ? timeless : timeless.with({.deadline = std::stod(row[1])});
    Attempts attempts;
    for (const auto& name : test::parts(row[4])) attempts.failures.push_back(failures.at(name));
    const RetryOptions call{.label = "call", .secrets = {"s3cr3t-k3y"}};
    EXPECT_EQ(test::outcome([&] { return std::to_string(retry(policy, attempts, call)); }), row[5]);
    EXPECT_EQ(attempts.made, attempts.failures.size()) << row[5];
  }
}

TEST(Retry, LetsWhatCallbacksThrowThrough) {
  const Log log;
  const auto thrown = []() -> double { throw std::out_of_range("callback"); };
  const auto stop = [=] { return thrown() > 0; };
  const auto wait = [=](auto...) { return thrown() > 0; };
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
  const std::string line = "engines.http warning 100%s {} {0} failed ";
  EXPECT_EQ(log.out.str(), line + "(attempt 1/4): HTTP 503; retrying in 0.2 s\n" + line +
                               "(attempt 2/4): sent [redacted] {}; retrying in 0.5 s\n");
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
  const std::shared_ptr<spdlog::logger> built = spdlog::get("engines.http");
  spdlog::set_default_logger(nullptr);
  built->warn("nobody hears this");
  spdlog::drop("engines.http");
  EXPECT_EQ(logger(), built);
  const auto own = std::make_shared<spdlog::logger>("engines.http");
  spdlog::register_logger(own);
  EXPECT_EQ(logger(), own);
  spdlog::drop("engines.http");
  spdlog::register_logger(built);
}

// ---- post_json and get_json ---------------------------------------------------------------------

TEST(Requests, SendEachAttemptAndReturnTheReply) {
  const Log log;
  ManualTime time;
  ScriptedTransport transport;
  std::string seen, sent;
  const auto made = [&]() -> CallOptions {  // which own what they hold
    const Headers headers{{"X-Api-Key", "k"}};
    const auto inspect = [&](const Response& r) { seen += std::to_string(*r.status()) + " "; };
    return {.policy = time.policy({.timeout_s = 4}),
            .label = std::string("a label that is long enough to be elsewhere"),
            .headers = headers,
            .transport = transport,
            .inspect = inspect};
  };
  const CallOptions options = made();
  const std::string url = "http://a.test";
  transport.reply("busy", 503).fail(TimeoutError("slow")).reply("1").reply("2").reply("3");
  EXPECT_EQ(post_json(url, Json{{"q", 1}}, options), 1);
  EXPECT_EQ(get_json(url, options), 2);
  EXPECT_EQ(request_json("PATCH", url, nullptr, std::vector(2, options)[1]), 3);
  EXPECT_EQ(seen, "503 200 200 200 ");
  for (const auto& [request, timeout, time_left] : transport.sent()) {
    EXPECT_TRUE(request.url == url && timeout == 4 && !time_left);
    sent += request.method + " " + request.data.value_or("none");
    for (const auto& [name, value] : request.headers) sent += " " + name + "=" + value;
    sent += "; ";
  }
  const std::string post = R"(POST {"q": 1} Content-Type=application/json X-Api-Key=k; )";
  EXPECT_EQ(sent, post + post + post + "GET none X-Api-Key=k; PATCH none X-Api-Key=k; ");
  EXPECT_THROW(post_json(url, "\xff", options), ValueError);
  EXPECT_THROW(get_json("http://127.0.0.1:1/", {.policy = {.attempts = 1}, .label = "l"}),
               Exhausted);  // by the transport that is there by default: nothing listens
}

TEST(Requests, AskOnePolicyThroughoutACall) {
  ScriptedTransport transport;
  transport.reply("1");
  const CallOptions options{
      .policy = {.deadline = 100, .clock = [reads = 0.0]() mutable { return ++reads; }},
      .label = "call",
      .transport = transport};
  EXPECT_EQ(get_json("http://h", options), 1);
  // For the attempt, before two reads, and after them.
  EXPECT_EQ(options.policy.clock(), 1 + 2 + 1 + 1);
}

}  // namespace
}  // namespace engines::http
