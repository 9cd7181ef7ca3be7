#include "engines/http/failure.h"

#include <gtest/gtest.h>

#include <exception>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "engines/http/transport.h"
#include "tests/support/outcome.h"

namespace engines::http {
namespace {

class Throttled : public Retryable {
 public:
  using Retryable::Retryable;
};

class Cooperative : public Retryable {
 public:
  using Retryable::Retryable;
  std::exception_ptr copy() const override { return std::make_exception_ptr(*this); }
};

class Both : public Retryable, public Refused {
 public:
  explicit Both(const std::string& text) : Retryable(text), Refused(text) {}
};

template <class Error>
std::exception_ptr thrown(const Error& error) {
  return std::make_exception_ptr(error);
}

template <class Handler>
bool is_caught_by(const std::exception_ptr& error) {
  try {
    std::rethrow_exception(error);
  } catch (const Handler&) {
    return true;
  } catch (...) {
    return false;
  }
}

/// The handlers that catch the error, but for that of std::exception.
std::string handlers(const std::exception_ptr& error) {
  EXPECT_TRUE(is_caught_by<std::exception>(error));
  const std::pair<const char*, bool (*)(const std::exception_ptr&)> all[] = {
      {"HttpFailure", is_caught_by<HttpFailure>},
      {"Retryable", is_caught_by<Retryable>},
      {"Refused", is_caught_by<Refused>},
      {"BadReply", is_caught_by<BadReply>},
      {"Ended", is_caught_by<detail::Ended>},
      {"DeadlineExceeded", is_caught_by<DeadlineExceeded>},
      {"Stopped", is_caught_by<Stopped>},
      {"Exhausted", is_caught_by<Exhausted>},
      {"OSError", is_caught_by<OSError>},
      {"TimeoutError", is_caught_by<TimeoutError>},
      {"ConnectionError", is_caught_by<ConnectionError>},
      {"gaierror", is_caught_by<gaierror>},
      {"URLError", is_caught_by<URLError>},
      {"HTTPError", is_caught_by<HTTPError>},
      {"HTTPException", is_caught_by<HTTPException>},
      {"IncompleteRead", is_caught_by<IncompleteRead>},
      {"BadStatusLine", is_caught_by<BadStatusLine>},
      {"DroppedConnection", is_caught_by<DroppedConnection>}};
  std::string names;
  for (const auto& [name, catches] : all) {
    if (catches(error)) names += std::string(names.empty() ? "" : " ") + name;
  }
  return names;
}

TEST(Failure, HandlersCatchTheirOwnBranch) {
  const std::pair<std::exception_ptr, std::string> table[] = {
      {thrown(HttpFailure("m")), "HttpFailure"},
      {thrown(Retryable("m")), "HttpFailure Retryable"},
      {thrown(Refused("m")), "HttpFailure Refused"},
      {thrown(BadReply("m")), "HttpFailure BadReply"},
      {thrown(DeadlineExceeded("m")), "HttpFailure Ended DeadlineExceeded"},
      {thrown(Stopped("m")), "HttpFailure Ended Stopped"},
      {thrown(Exhausted("m", {.attempts = 1, .last = nullptr})), "HttpFailure Ended Exhausted"},
      {thrown(OSError("m")), "OSError"},
      {thrown(TimeoutError("m")), "OSError TimeoutError"},
      {thrown(ConnectionError("m")), "OSError ConnectionError"},
      {thrown(gaierror("m")), "OSError gaierror"},
      {thrown(URLError("m")), "OSError URLError"},
      {thrown(HTTPError(404, {}, nullptr)), "OSError URLError HTTPError"},
      {thrown(HTTPException("m")), "HTTPException"},
      {thrown(IncompleteRead("m")), "HTTPException IncompleteRead"},
      {thrown(BadStatusLine("m")), "HTTPException BadStatusLine"},
      {thrown(DroppedConnection("m")),
       "OSError ConnectionError HTTPException BadStatusLine DroppedConnection"},
  };
  for (const auto& [error, expected] : table) EXPECT_EQ(handlers(error), expected);
}

TEST(Failure, TellsItsMessageStatusAndDetailOrThoseOfItsLast) {
  const Retryable busy("busy", {.status = 503, .detail = "later"});
  const Exhausted end("gave up", {.attempts = 3, .last = busy});
  EXPECT_EQ(test::described(busy), "Retryable: busy | 503 | later");
  EXPECT_EQ(test::described(BadReply("odd")), "BadReply: odd");
  EXPECT_EQ(test::described(end), "Exhausted: gave up | 503 | later");
  EXPECT_EQ(test::described(*end.last()), "Retryable: busy | 503 | later");
  EXPECT_EQ(end.attempts(), 3);
  for (const detail::Ended& none : std::vector<detail::Ended>{
           DeadlineExceeded("m"), Stopped("m"), Exhausted("m", {.attempts = 1, .last = nullptr})}) {
    EXPECT_FALSE(none.last());
    EXPECT_EQ(test::described(none), "Ended: m");
  }
  static_assert(std::is_nothrow_copy_constructible_v<Exhausted>);
  static_assert(!std::is_copy_assignable_v<Exhausted>);
  static_assert(std::is_nothrow_copy_constructible_v<HTTPError>);
  static_assert(std::is_nothrow_copy_constructible_v<URLError>);
  static_assert(std::is_nothrow_copy_constructible_v<DroppedConnection>);
}

/// What the failure is after it was kept through a reference to `Named`.
template <class Named>
std::string kept(const Named& failure) {
  const FailurePtr held = failure;
  return test::outcome([&]() -> std::string { held.raise(); });
}

TEST(FailurePtr, KeepsTheKindOfAFailureNamedThroughABase) {
  const Exhausted exhausted("e", {.attempts = 7, .last = Refused("r")});
  const Retryable retryable("r");
  const Cooperative cooperative("c", {.status = 429});
  EXPECT_EQ(kept<HttpFailure>(HttpFailure("h")), "HttpFailure: h");
  EXPECT_EQ(kept<HttpFailure>(retryable), "Retryable: r");
  EXPECT_EQ(kept<HttpFailure>(Refused("r")), "Refused: r");
  EXPECT_EQ(kept<HttpFailure>(BadReply("b")), "BadReply: b");
  EXPECT_EQ(kept<detail::Ended>(DeadlineExceeded("d")), "DeadlineExceeded: d");
  EXPECT_EQ(kept<HttpFailure>(Stopped("s", {.last = retryable})), "Stopped: s");
  EXPECT_EQ(kept<detail::Ended>(exhausted), "Exhausted: e");
  EXPECT_EQ(kept<HttpFailure>(cooperative), "Cooperative: c | 429");
  const FailurePtr held = static_cast<const HttpFailure&>(exhausted);
  EXPECT_EQ(dynamic_cast<const Exhausted&>(*held).attempts(), 7);
  // By its own type, or while another error is handled.
  EXPECT_EQ(kept(Throttled("t")), "Throttled: t");
  try {
    throw std::runtime_error("unrelated");
  } catch (const std::runtime_error&) {
    EXPECT_EQ(kept<HttpFailure>(retryable), "Retryable: r");
  }
}

TEST(FailurePtr, KeepsTheExceptionItselfInItsHandler) {
  FailurePtr held;
  const HttpFailure* thrown = nullptr;
  try {
    throw Throttled("slow down");
  } catch (const HttpFailure& failure) {
    thrown = &failure;
    held = failure;
  }
  EXPECT_EQ(held.get(), thrown);
  EXPECT_THROW(held.raise(), Throttled);
  try {
    throw Both("b");
  } catch (const Retryable& failure) {
    held = failure;
  }
  EXPECT_THROW(held.raise(), Both);
}

TEST(FailurePtr, RefusesToCopyAPartOfAFailure) {
  EXPECT_THROW(kept<HttpFailure>(Throttled("t")), std::logic_error);
  EXPECT_THROW(kept<Retryable>(Both("b")), std::logic_error);
  struct More : Cooperative {
    using Cooperative::Cooperative;
  };
  EXPECT_THROW(kept<HttpFailure>(More("m")), std::logic_error);
}

TEST(Transport, AUrlErrorHoldsAndNamesItsReason) {
  const URLError error(gaierror("no such host"));
  EXPECT_STREQ(error.what(), "no such host");
  EXPECT_NE(dynamic_cast<const gaierror*>(error.reason()), nullptr);
  EXPECT_EQ(URLError("odd").reason(), nullptr);
  const TimeoutError slow("too slow");
  EXPECT_THROW(URLError(static_cast<const std::exception&>(slow)), std::logic_error);
  try {
    throw slow;
  } catch (const std::exception& caught) {  // named by a base alone
    const URLError wrapped(caught);
    EXPECT_STREQ(wrapped.reason()->what(), "too slow");
    EXPECT_NE(dynamic_cast<const TimeoutError*>(wrapped.reason()), nullptr);
  }
}

}  // namespace
}  // namespace engines::http
