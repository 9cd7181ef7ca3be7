#include "engines/http/failure.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "engines/http/transport.h"

namespace engines::http {
namespace {

class Throttled : public Retryable {
 public:
  using Retryable::Retryable;
};

/// Which of the handlers catches what the function throws.
template <class... Kinds>
std::string caught_by(const std::function<void()>& raise) {
  std::string caught;
  const auto try_handler = [&]<class Kind>(const Kind*) {
    try {
      try {
        raise();
      } catch (const Kind&) {
        caught += '1';
      }
    } catch (...) {
      caught += '0';
    }
  };
  (try_handler(static_cast<const Kinds*>(nullptr)), ...);
  return caught;
}

template <class Error>
std::function<void()> raising(Error error) {
  return [error] { throw error; };
}

TEST(Failure, HandlersCatchTheirOwnBranch) {
  const std::vector<std::pair<std::function<void()>, std::string>> table{
      {raising(HttpFailure("m")), "1100000000"},
      {raising(Retryable("m")), "1110000000"},
      {raising(Throttled("m")), "1110000000"},
      {raising(Refused("m")), "1101000000"},
      {raising(BadReply("m")), "1100100000"},
      {raising(DeadlineExceeded("m")), "1100011000"},
      {raising(Stopped("m")), "1100010100"},
      {raising(Exhausted("m", {.attempts = 1, .last = nullptr})), "1100010010"},
      {raising(ConnectionError("m")), "1000000001"},
      {raising(DroppedConnection("m")), "1000000001"},
  };
  for (const auto& [raise, expected] : table) {
    EXPECT_EQ((caught_by<std::exception, HttpFailure, Retryable, Refused, BadReply, detail::Ended,
                         DeadlineExceeded, Stopped, Exhausted, OSError>(raise)),
              expected);
  }
}

TEST(Failure, TransportHandlersCatchByDerivation) {
  const std::vector<std::pair<std::function<void()>, std::string>> table{
      {raising(OSError("m")), "11000000000"},
      {raising(TimeoutError("m")), "11100000000"},
      {raising(ConnectionError("m")), "11010000000"},
      {raising(gaierror("m")), "11001000000"},
      {raising(URLError("m")), "11000100000"},
      {raising(HTTPError(404, {}, nullptr)), "11000110000"},
      {raising(HTTPException("m")), "10000001000"},
      {raising(IncompleteRead("m")), "10000001100"},
      {raising(BadStatusLine("m")), "10000001010"},
      {raising(DroppedConnection("m")), "11010001010"},
      {raising(HttpFailure("m")), "10000000001"},
  };
  for (const auto& [raise, expected] : table) {
    EXPECT_EQ(
        (caught_by<std::exception, OSError, TimeoutError, ConnectionError, gaierror, URLError,
                   HTTPError, HTTPException, IncompleteRead, BadStatusLine, HttpFailure>(raise)),
        expected);
  }
}

TEST(Failure, TextIsTheMessageAlone) {
  const Retryable failure("busy", {.status = 503, .detail = "try later"});
  EXPECT_STREQ(failure.what(), "busy");
  EXPECT_EQ(failure.status(), 503);
  EXPECT_EQ(failure.detail(), "try later");
  const BadReply bare("odd");
  EXPECT_EQ(bare.status(), std::nullopt);
  EXPECT_EQ(bare.detail(), "");
  static_assert(std::is_nothrow_copy_constructible_v<Exhausted>);
  static_assert(!std::is_copy_assignable_v<Exhausted>);
  static_assert(std::is_nothrow_copy_constructible_v<HTTPError>);
  static_assert(std::is_nothrow_copy_constructible_v<URLError>);
  static_assert(std::is_nothrow_copy_constructible_v<DroppedConnection>);
}

TEST(Failure, AnEndTakesStatusAndDetailFromItsLast) {
  const Exhausted end(
      "gave up", {.attempts = 3, .last = Retryable("busy", {.status = 503, .detail = "later"})});
  EXPECT_STREQ(end.what(), "gave up");
  EXPECT_EQ(end.attempts(), 3);
  EXPECT_EQ(end.status(), 503);
  EXPECT_EQ(end.detail(), "later");
  EXPECT_STREQ(end.last()->what(), "busy");
  for (const detail::Ended& none : std::vector<detail::Ended>{
           DeadlineExceeded("m"), Stopped("m"), Exhausted("m", {.attempts = 1, .last = nullptr})}) {
    EXPECT_FALSE(none.last());
    EXPECT_EQ(none.status(), std::nullopt);
    EXPECT_EQ(none.detail(), "");
  }
}

TEST(Failure, AHeldFailureKeepsItsKind) {
  FailurePtr handled;
  const HttpFailure* thrown = nullptr;
  try {
    throw Throttled("slow down", {.status = 429});
  } catch (const HttpFailure& failure) {  // named by its base alone
    thrown = &failure;
    handled = failure;
  }
  EXPECT_EQ(handled.get(), thrown);
  EXPECT_THROW(handled.raise(), Throttled);
  class Both : public Retryable, public Refused {
   public:
    Both() : Retryable("r"), Refused("f") {}
  };
  try {
    throw Both();
  } catch (const Retryable& failure) {
    handled = failure;
  }
  EXPECT_THROW(handled.raise(), Both);
  EXPECT_THROW(FailurePtr(Throttled("again")).raise(), Throttled);
  try {
    throw std::runtime_error("unrelated");
  } catch (const std::runtime_error&) {
    EXPECT_THROW(FailurePtr(Refused("no")).raise(), Refused);
  }
}

TEST(Transport, AUrlErrorHoldsAndNamesItsReason) {
  const URLError error(gaierror("no such host"));
  EXPECT_STREQ(error.what(), "no such host");
  EXPECT_NE(dynamic_cast<const gaierror*>(error.reason()), nullptr);
  EXPECT_EQ(URLError("odd").reason(), nullptr);
  try {
    throw TimeoutError("too slow");
  } catch (const std::exception& caught) {  // named by a base alone
    const URLError wrapped(caught);
    EXPECT_STREQ(wrapped.reason()->what(), "too slow");
    EXPECT_NE(dynamic_cast<const TimeoutError*>(wrapped.reason()), nullptr);
  }
}

}  // namespace
}  // namespace engines::http
