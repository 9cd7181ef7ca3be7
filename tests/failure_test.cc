#include "engines/http/failure.h"

#include <gtest/gtest.h>

#include <exception>
#include <string>
#include <vector>

#include "engines/http/transport.h"
#include "tests/support/told.h"

namespace engines::http {
namespace {

class Throttled : public Retryable {
 public:
  using Retryable::Retryable;
};

/// For each of the handlers whether it catches the error.
template <class... Handlers>
std::string caught_by(const std::exception_ptr& error) {
  const auto catches = [&]<class Handler>(const Handler*) {
    try {
      std::rethrow_exception(error);
    } catch (const Handler&) {
      return '1';
    } catch (...) {
      return '0';
    }
  };
  return {catches(static_cast<const Handlers*>(nullptr))...};
}

template <class Error>
std::exception_ptr thrown(const Error& error) {
  return std::make_exception_ptr(error);
}

TEST(Failure, HandlersCatchTheirOwnBranch) {
  const std::vector<std::pair<std::exception_ptr, std::string>> table{
      {thrown(HttpFailure("m")), "1100000000000000000"},
      {thrown(Retryable("m")), "1110000000000000000"},
      {thrown(Refused("m")), "1101000000000000000"},
      {thrown(BadReply("m")), "1100100000000000000"},
      {thrown(DeadlineExceeded("m")), "1100011000000000000"},
      {thrown(Stopped("m")), "1100010100000000000"},
      {thrown(Exhausted("m", {.attempts = 1, .last = nullptr})), "1100010010000000000"},
      {thrown(OSError("m")), "1000000001000000000"},
      {thrown(TimeoutError("m")), "1000000001100000000"},
      {thrown(ConnectionError("m")), "1000000001010000000"},
      {thrown(gaierror("m")), "1000000001001000000"},
      {thrown(URLError("m")), "1000000001000100000"},
      {thrown(HTTPError(404, {}, nullptr)), "1000000001000110000"},
      {thrown(HTTPException("m")), "1000000000000001000"},
      {thrown(IncompleteRead("m")), "1000000000000001100"},
      {thrown(BadStatusLine("m")), "1000000000000001010"},
      {thrown(DroppedConnection("m")), "1000000001010001011"},
  };
  for (const auto& [error, expected] : table) {
    EXPECT_EQ((caught_by<std::exception, HttpFailure, Retryable, Refused, BadReply, detail::Ended,
                         DeadlineExceeded, Stopped, Exhausted, OSError, TimeoutError,
                         ConnectionError, gaierror, URLError, HTTPError, HTTPException,
                         IncompleteRead, BadStatusLine, DroppedConnection>(error)),
              expected);
  }
}

TEST(Failure, TellsItsMessageStatusAndDetailOrThoseOfItsLast) {
  const Retryable busy("busy", {.status = 503, .detail = "later"});
  const Exhausted end("gave up", {.attempts = 3, .last = busy});
  EXPECT_EQ(test::told(busy), "Retryable: busy | 503 | later");
  EXPECT_EQ(test::told(BadReply("odd")), "BadReply: odd");
  EXPECT_EQ(test::told(end), "Exhausted: gave up | 503 | later");
  EXPECT_EQ(test::told(*end.last()), "Retryable: busy | 503 | later");
  EXPECT_EQ(end.attempts(), 3);
  for (const detail::Ended& none : std::vector<detail::Ended>{
           DeadlineExceeded("m"), Stopped("m"), Exhausted("m", {.attempts = 1, .last = nullptr})}) {
    EXPECT_FALSE(none.last());
    EXPECT_EQ(test::told(none), "Ended: m");
  }
  static_assert(std::is_nothrow_copy_constructible_v<Exhausted>);
  static_assert(!std::is_copy_assignable_v<Exhausted>);
  static_assert(std::is_nothrow_copy_constructible_v<HTTPError>);
  static_assert(std::is_nothrow_copy_constructible_v<URLError>);
  static_assert(std::is_nothrow_copy_constructible_v<DroppedConnection>);
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
