// SPDX-License-Identifier: Apache-2.0
#include "engines/http/retry.h"

#include <gtest/gtest.h>
#include <spdlog/sinks/ostream_sink.h>
#include <spdlog/spdlog.h>

#include <cstdlib>
#include <map>
#include <sstream>

#include "engines/http/requests.h"
#include "engines/http/testing.h"
#include "tests/support/outcome.h"
#include "tests/support/table.h"

namespace engines::http {
namespace {

using testing::ManualTime;
using testing::ScriptedTransport;

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
  for (const auto& [deadline, expected] : {std::pair(100.0, 30.0), {5.5, 0.5}}) {
    const RetryPolicy policy{.deadline = deadline, .clock = [] { return 5.0; }};
    EXPECT_EQ(retry(policy, [](double timeout) { return timeout; }, {.label = "l"}), expected);
  }
}

TEST(Retry, EveryWayOut) {
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
  const auto thrown = [](auto...) -> bool { throw std::out_of_range("callback"); };
  for (const RetryPolicy& policy :
       {RetryPolicy{.deadline = 1, .clock = thrown}, RetryPolicy{.should_stop = thrown},
        RetryPolicy{.wait = thrown}}) {
    EXPECT_THROW(retry(policy, Attempts{{busy}}, {.label = "l"}), std::out_of_range);
  }
}

TEST(Retry, AnyResultPassesUnchanged) {
  int value = 1;
  EXPECT_EQ(&retry({}, [&](double) -> int& { return value; }, {.label = "l"}), &value);
}

TEST(Retry, WaitsBetweenAttemptsAndLogsEach) {
  std::ostringstream log;
  const auto sink = std::make_shared<spdlog::sinks::ostream_sink_mt>(log);
  sink->set_pattern("%n %l %v");
  const auto previous = spdlog::default_logger();
  spdlog::set_default_logger(std::make_shared<spdlog::logger>("application", sink));
  ManualTime time;
  const RetryPolicy policy = time.policy({.attempts = 4, .backoff_s = 0.25});
  Attempts attempts{{busy, Retryable("sent s3cr3t-k3y {}")}};
  EXPECT_EQ(retry(policy, attempts, {.label = "100%s {} {0}", .secrets = {"s3cr3t-k3y"}}), 3);
  spdlog::set_default_logger(previous);
  EXPECT_EQ(time.waits(), (std::vector{0.25, 0.5}));
  const std::string line = "engines.http warning 100%s {} {0} failed ";
  EXPECT_EQ(log.str(), line + "(attempt 1/4): HTTP 503; retrying in 0.2 s\n" + line +
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
  const auto built = spdlog::get("engines.http"), application = spdlog::default_logger();
  spdlog::set_default_logger(nullptr);
  built->warn("nobody hears this");
  spdlog::set_default_logger(application);
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
  ManualTime time;
  ScriptedTransport transport;
  std::string seen, sent;
  const CallOptions options{
      .policy = time.policy({.timeout_s = 4}),
      .label = "call",
      .headers = {{"X-Api-Key", "k"}},
      .transport = transport,
      .inspect = [&](const Response& r) { seen += std::to_string(*r.status()) + " "; }};
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

}  // namespace
}  // namespace engines::http
