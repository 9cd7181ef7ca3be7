// SPDX-License-Identifier: Apache-2.0
#include "engines/http/policy.h"

#include <gtest/gtest.h>

#include <chrono>
#include <climits>
#include <stop_token>
#include <tuple>
#include <vector>

#include "tests/support/table.h"

namespace engines::http {
namespace {

using namespace std::chrono_literals;
using MaybeSeconds = std::optional<double>;
using Values = std::tuple<int, double, double, StatusSet, StatusSet, StatusSet, MaybeSeconds,
                          std::size_t, std::size_t, bool, bool, bool>;

const RetryPolicy made_before_main;

/// All fields but the clock: of functions what they answer, or whether there is one.
Values values(const RetryPolicy& p) {
  return {p.attempts,         p.backoff_s,     p.timeout_s,       p.retry_statuses,
          p.refusal_statuses, p.error_replies, p.deadline,        p.detail_chars,
          p.max_body_bytes,   p.should_stop(), p.wait(0, _never), p.refusal_reason != nullptr};
}

TEST(Policy, Defaults) {
  for (const RetryPolicy& policy : {RetryPolicy{}, made_before_main}) {
    EXPECT_EQ(values(policy),
              Values(3, 1, 30, TRANSIENT_STATUSES, {}, {}, {}, 300, 16777216, false, false, false));
    EXPECT_EQ(*policy.clock.target<double (*)()>(), &monotonic);
  }
}

TEST(Policy, StatusSetsAreBuiltFromWhateverHoldsStatuses) {
  for (StatusCode status = -1; status < 1000; ++status) {
    EXPECT_EQ(TRANSIENT_STATUSES.contains(status),
              status == 408 || status == 429 || (status >= 500 && status < 600));
  }
  EXPECT_EQ(StatusSet(std::vector<int>{503, 401, 503}), (StatusSet{401, 503}));
  StatusSet moved_from{7};
  const bool moved = StatusSet(std::move(moved_from)).contains(7);
  EXPECT_TRUE(moved && moved_from.contains(7));
}

TEST(Policy, NeedsAnAttempt) {
  EXPECT_THROW(static_cast<void>(RetryPolicy{.attempts = 0}), ValueError);
  EXPECT_THROW(RetryPolicy{}.with({.attempts = -1}), ValueError);
  EXPECT_EQ(RetryPolicy{.attempts = 0x100000000LL}.attempts, INT_MAX);
}

TEST(Policy, TakesNumbersAndDurationsOfWhateverType) {
  const int seconds = 2, bytes = -1;
  EXPECT_EQ(RetryPolicy{.backoff_s = seconds}.with({.timeout_s = 2min}).timeout_s, 120.0);
  EXPECT_EQ(RetryPolicy{.timeout_s = 250ms}.timeout_s, 0.25);
  EXPECT_EQ(RetryPolicy{.max_body_bytes = bytes}.max_body_bytes, 0U);
  EXPECT_EQ(Seconds(std::chrono::nanoseconds(-1)), -1e-9);
}

TEST(Policy, WithinEndsTheCallAtTheEarlierDeadline) {
  const RetryPolicy policy{.attempts = 7, .clock = [] { return 100.0; }};
  const std::tuple<MaybeSeconds, Seconds, double> table[] = {
      {std::nullopt, -0.5, 99.5}, {115, 20s, 115}, {150, 20s, 120}};
  for (const auto& [deadline, span, expected] : table) {
    const RetryPolicy bounded = policy.with({.deadline = deadline}).within(span);
    EXPECT_EQ(bounded.deadline, expected);
    EXPECT_EQ(bounded.attempts, 7);
  }
}

TEST(Policy, TakesTheStandardLibrarysStopTokens) {
  std::stop_source source;
  for (const bool stopped : {false, true}) {
    EXPECT_EQ(RetryPolicy{.should_stop = source}.should_stop(), stopped);
    EXPECT_EQ(RetryPolicy{}.with({.should_stop = source.get_token()}).should_stop(), stopped);
    EXPECT_EQ(wait_unless_stopped(0, source.get_token()), stopped);
    source.request_stop();
  }
}

TEST(Policy, ACopyReplacesWhatIsNamedAndKeepsTheRest) {
  const auto html = [](auto...) { return std::optional("html"); };
  const auto always = [](auto...) { return true; };
  const Clock four = [] { return 4.0; }, five = [] { return 5.0; };
  const RetryPolicy original{7,   2.0,  3.0,    {500},  {403}, html, {400},
                             9.0, four, always, always, 5,     6};
  EXPECT_EQ(values(original.with({})),
            Values(7, 2, 3, {500}, {403}, {400}, 9, 5, 6, true, true, true));
  EXPECT_EQ(original.with({}).clock(), 4);

  const RetryPolicy changed = original.with(
      {1, 0, 1, {1, 2}, {}, nullptr, {3}, std::nullopt, five, _never, wait_unless_stopped, 1, 2});
  EXPECT_EQ(values(changed), Values(1, 0, 1, {1, 2}, {}, {3}, {}, 1, 2, false, false, false));
  EXPECT_EQ(changed.clock(), 5);
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

TEST(Policy, BackoffDoubles) {
  const std::tuple<double, int, double> table[] = {
      {1.0, 1, 1.0}, {0.5, 3, 2.0}, {1.0, 0, 0.5}, {0.0, 9999, 0.0}, {1.0, 101, 0x1p100}};
  for (const auto& [backoff_s, failed, expected] : table) {
    EXPECT_EQ(RetryPolicy{.backoff_s = backoff_s}.backoff(failed), expected);
  }
}

TEST(WaitUnlessStopped, SleepsInStepsAndAsksBetween) {
  for (const test::Row& row : test::table("waits", 5)) {
    const double seconds = std::stod(row[0]), poll_s = std::stod(row[1]);
    int asks = 0, sleeps = 0;
    double slept = 0;
    const StopSignal stop = [&] { return std::to_string(++asks) == row[2]; };
    const auto sleep = [&](double step) {
      ++sleeps, slept += step;
      EXPECT_LE(step, poll_s);
    };
    EXPECT_EQ(wait_unless_stopped(seconds, stop, {.sleep = sleep, .poll_s = poll_s}),
              !row[2].empty());
    EXPECT_EQ(std::to_string(asks) + " " + std::to_string(sleeps), row[3] + " " + row[4]);
    EXPECT_NEAR(slept, sleeps > 0 ? seconds : 0, 1e-9);
  }
}

TEST(WaitUnlessStopped, ReallySleepsAndLetsErrorsThrough) {
  const double start = monotonic();
  EXPECT_FALSE(wait_unless_stopped(20ms, _never, {.poll_s = 15ms}));
  EXPECT_GE(monotonic() - start, 0.02);
  EXPECT_THROW(wait_unless_stopped(1, []() -> bool { throw std::out_of_range("ask"); }),
               std::out_of_range);
}

}  // namespace
}  // namespace engines::http
