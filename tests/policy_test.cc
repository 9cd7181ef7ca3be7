// SPDX-License-Identifier: Apache-2.0
#include "engines/http/policy.h"

#include <gtest/gtest.h>

#include <chrono>
#include <climits>
#include <numeric>
#include <stop_token>
#include <tuple>
#include <vector>

#include "tests/support/outcome.h"

namespace engines::http {
namespace {

const RetryPolicy made_before_main;

using Fields = std::tuple<int, double, double, StatusSet, StatusSet, StatusSet, bool,
                          std::optional<double>, std::size_t, std::size_t>;

/// All but the clock, the stop signal and the wait.
Fields fields(const RetryPolicy& p) {
  return Fields(p.attempts, p.backoff_s, p.timeout_s, p.retry_statuses, p.refusal_statuses,
                p.error_replies, static_cast<bool>(p.refusal_reason), p.deadline, p.detail_chars,
                p.max_body_bytes);
}

std::tuple<double, bool, bool> answers(const RetryPolicy& p) {
  return {p.clock(), p.should_stop(), p.wait(0, _never)};
}

TEST(Policy, Defaults) {
  for (const RetryPolicy& policy : {RetryPolicy{}, made_before_main}) {
    EXPECT_EQ(fields(policy),
              Fields(3, 1, 30, TRANSIENT_STATUSES, {}, {}, false, std::nullopt, 300, 16777216));
    EXPECT_EQ(*policy.clock.target<double (*)()>(), &monotonic);
    EXPECT_EQ(*policy.should_stop.target<bool (*)()>(), &_never);
    EXPECT_NE(policy.wait.target<detail::WaitUnlessStopped>(), nullptr);
  }
}

TEST(Policy, StatusSetsAreBuiltFromWhateverHoldsStatuses) {
  std::vector<StatusCode> expected(102);
  std::iota(expected.begin(), expected.end(), 498);
  expected[0] = 429;
  expected[1] = 408;
  EXPECT_EQ(TRANSIENT_STATUSES, StatusSet(expected));
  EXPECT_TRUE(TRANSIENT_STATUSES.contains(599) && !TRANSIENT_STATUSES.contains(600));
  EXPECT_EQ(StatusSet(std::vector<int>{503, 401, 503}), (StatusSet{401, 503}));
  EXPECT_NE(StatusSet({401}), StatusSet());
  StatusSet moved_from{7};
  const bool moved = StatusSet(std::move(moved_from)).contains(7);
  EXPECT_TRUE(moved && moved_from.contains(7));
}

TEST(Policy, NeedsAnAttempt) {
  const auto made = [] { return std::to_string(RetryPolicy{.attempts = 0}.attempts); };
  EXPECT_EQ(test::outcome(made), "invalid_argument: a retry policy makes at least one attempt");
  EXPECT_THROW(RetryPolicy{}.with({.attempts = -1}), ValueError);
  EXPECT_EQ(RetryPolicy{.attempts = 1}.attempts, 1);
  EXPECT_EQ(RetryPolicy{.attempts = 0x100000000LL}.attempts, INT_MAX);
}

TEST(Policy, TakesNumbersAndDurationsOfWhateverType) {
  using namespace std::chrono_literals;
  const int seconds = 2;
  const int bytes = -1;
  const RetryPolicy policy{.backoff_s = seconds, .timeout_s = 250ms, .max_body_bytes = bytes};
  EXPECT_EQ(policy.backoff_s, 2.0);
  EXPECT_EQ(policy.timeout_s, 0.25);
  EXPECT_EQ(policy.max_body_bytes, 0U);
  EXPECT_EQ(policy.with({.timeout_s = 2min, .detail_chars = bytes}).timeout_s, 120.0);
  EXPECT_EQ(policy.with({.detail_chars = bytes}).detail_chars, 0U);
  EXPECT_EQ(Seconds(std::chrono::nanoseconds(-1)), -1e-9);
  EXPECT_FALSE(wait_unless_stopped(1ns, _never, {.poll_s = 1us}));
}

TEST(Policy, WithinEndsTheCallAtTheEarlierDeadline) {
  using namespace std::chrono_literals;
  const RetryPolicy policy{.attempts = 7, .clock = [] { return 100.0; }};
  const std::tuple<std::optional<double>, Seconds, double> table[] = {
      {std::nullopt, 20s, 120}, {std::nullopt, -0.5, 99.5}, {115, 20s, 115}, {150, 20s, 120}};
  for (const auto& [deadline, span, expected] : table) {
    const RetryPolicy bounded = policy.with({.deadline = deadline}).within(span);
    EXPECT_EQ(bounded.deadline, expected);
    EXPECT_EQ(bounded.attempts, 7);
  }
}

TEST(Policy, TakesTheStandardLibrarysStopTokens) {
  std::stop_source source;
  const StopSignal function = [&] { return source.stop_requested(); };
  for (const bool stopped : {false, true}) {
    for (const RetryPolicy& policy :
         {RetryPolicy{.should_stop = source.get_token()}, RetryPolicy{.should_stop = source},
          RetryPolicy{}.with({.should_stop = source.get_token()}),
          RetryPolicy{.should_stop = function}}) {
      EXPECT_EQ(policy.wait(0, policy.should_stop), stopped);
    }
    EXPECT_EQ(wait_unless_stopped(0, source.get_token()), stopped);
    source.request_stop();
  }
}

TEST(Policy, ACopyReplacesWhatIsNamedAndKeepsTheRest) {
  const auto html = [](std::string_view, std::string_view) { return std::optional("html"); };
  const auto always = [](double, const StopSignal&) { return true; };
  const RetryPolicy original{
      7,      2.0, 3.0, {500}, {403}, html, {400}, 9.0, [] { return 4.0; }, [] { return true; },
      always, 5,   6};
  EXPECT_EQ(fields(original.with({})), Fields(7, 2, 3, {500}, {403}, {400}, true, 9, 5, 6));
  EXPECT_EQ(answers(original.with({})), std::tuple(4, true, true));

  const RetryPolicy cleared =
      original.with({.refusal_statuses = {}, .refusal_reason = nullptr, .deadline = std::nullopt});
  EXPECT_EQ(fields(cleared), Fields(7, 2, 3, {500}, {}, {400}, false, std::nullopt, 5, 6));

  const detail::Keep keep;
  const RetryPolicy changed = original.with({1,
                                             0,
                                             1,
                                             {1, 2},
                                             keep,
                                             keep,
                                             {3},
                                             keep,
                                             [] { return 1.5; },
                                             _never,
                                             wait_unless_stopped,
                                             1,
                                             2});
  EXPECT_EQ(fields(changed), Fields(1, 0, 1, {1, 2}, {403}, {3}, true, 9, 1, 2));
  EXPECT_EQ(answers(changed), std::tuple(1.5, false, false));
}

TEST(Policy, AnEmptyFunctionStandsForTheDefault) {
  const RetryPolicy empty{.clock = Clock(), .should_stop = nullptr, .wait = nullptr};
  const RetryPolicy custom{.clock = [] { return 1e300; }, .should_stop = [] { return true; }};
  for (const RetryPolicy& policy :
       {empty, custom.with({.clock = Clock(), .should_stop = nullptr, .wait = Wait()})}) {
    EXPECT_NEAR(policy.clock(), monotonic(), 60);
    EXPECT_FALSE(policy.should_stop() || policy.wait(0, policy.should_stop));
  }
  EXPECT_FALSE(wait_unless_stopped(0.001, nullptr, {.sleep = nullptr}));
}

TEST(Policy, KnowsWhenItsDeadlineHasCome) {
  int reads = 0;
  const RetryPolicy policy{.clock = [&reads] { return ++reads, 5.0; }};
  EXPECT_FALSE(policy.is_past_deadline());
  EXPECT_EQ(reads, 0);
  EXPECT_FALSE(policy.with({.deadline = 5.001}).is_past_deadline());
  EXPECT_TRUE(policy.with({.deadline = 5.0}).is_past_deadline());
  EXPECT_TRUE(policy.with({.deadline = 4.0}).is_past_deadline());
}

TEST(Policy, BackoffDoubles) {
  const std::tuple<double, int, double> table[] = {
      {1.0, 1, 1.0}, {1.0, 2, 2.0}, {1.0, 3, 4.0},    {0.5, 1, 0.5},
      {0.5, 3, 2.0}, {1.0, 0, 0.5}, {0.0, 9999, 0.0}, {1.0, 101, 0x1p100}};
  for (const auto& [backoff_s, failed, expected] : table) {
    EXPECT_EQ(RetryPolicy{.backoff_s = backoff_s}.backoff(failed), expected);
  }
}

TEST(WaitUnlessStopped, SleepsInStepsAndAsksBetween) {
  struct Case {
    double seconds, poll_s;
    int stop_at_ask;  // the ask that first says stop, counted from 1; 0: never
    std::size_t sleeps;
    int asks;
  };
  // Ten steps and the remainder of ten subtractions; no wait; stopped from the start, or only at
  // the last ask; one step is enough.
  const Case table[] = {{1.0, 0.1, 0, 11, 12}, {0.0, 0.1, 0, 0, 1},  {-1.0, 0.1, 1, 0, 1},
                        {1.0, 0.1, 1, 0, 1},   {0.25, 0.1, 4, 3, 4}, {0.5, 2.0, 0, 1, 2}};
  for (const Case& c : table) {
    SCOPED_TRACE(c.seconds);
    std::vector<double> sleeps;
    int asks = 0;
    const bool stopped = wait_unless_stopped(
        c.seconds, [&] { return ++asks == c.stop_at_ask; },
        {.sleep = [&](double step) { sleeps.push_back(step); }, .poll_s = c.poll_s});
    EXPECT_EQ(sleeps.size(), c.sleeps);
    EXPECT_EQ(asks, c.asks);
    EXPECT_EQ(stopped, c.stop_at_ask != 0);
    for (const double step : sleeps) EXPECT_LE(step, c.poll_s);
    const double in_all = std::accumulate(sleeps.begin(), sleeps.end(), 0.0);
    EXPECT_NEAR(in_all, stopped ? in_all : c.seconds, 1e-9);
  }
}

TEST(WaitUnlessStopped, ReallySleepsAndLetsErrorsThrough) {
  const double start = monotonic();
  EXPECT_FALSE(wait_unless_stopped(0.02, _never));
  EXPECT_GE(monotonic() - start, 0.02);
  EXPECT_THROW(wait_unless_stopped(1, []() -> bool { throw std::out_of_range("ask"); }),
               std::out_of_range);
}

}  // namespace
}  // namespace engines::http
