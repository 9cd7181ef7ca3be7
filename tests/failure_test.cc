// SPDX-License-Identifier: Apache-2.0
#include "engines/http/failure.h"

#include <gtest/gtest.h>

#include "engines/http/transport.h"
#include "tests/support/outcome.h"

namespace engines::http {
namespace {

struct Throttled : Retryable {
  using Retryable::Retryable;
};
struct Cooperative : Retryable {
  using Retryable::Retryable;
  std::exception_ptr copy() const override { return std::make_exception_ptr(*this); }
};
struct Both : Retryable, Refused {
  explicit Both(const std::string& text) : Retryable(text), Refused(text) {}
};

// What a handler of `Kind` catches.
template <class Kind, class... Errors>
constexpr bool catches_all = (... && std::is_convertible_v<Errors*, Kind*>);
using detail::Ended;
static_assert(catches_all<std::exception, HttpFailure, OSError, HTTPException, DroppedConnection>);
static_assert(catches_all<Ended, DeadlineExceeded, Stopped, Exhausted>);
static_assert(catches_all<OSError, TimeoutError, ConnectionError, gaierror, URLError>);
static_assert(catches_all<URLError, HTTPError> && catches_all<Response, HTTPError>);
static_assert(catches_all<HTTPException, IncompleteRead, BadStatusLine, DroppedConnection>);
static_assert(catches_all<ConnectionError, DroppedConnection>);
// As the language needs it of what is thrown.
static_assert(std::is_nothrow_copy_constructible_v<Exhausted>);
static_assert(std::is_nothrow_copy_constructible_v<HTTPError>);
static_assert(std::is_nothrow_copy_constructible_v<DroppedConnection>);

TEST(Failure, HasItsMessageStatusAndDetailOrThoseOfItsLast) {
  const Retryable busy("busy", {.status = 503, .detail = "later"});
  const Exhausted end("gave up", {.attempts = 3, .last = busy});
  EXPECT_EQ(test::described(end), "Exhausted: gave up | 503 | later");
  EXPECT_EQ(test::described(*end.last()), "Retryable: busy | 503 | later");
  EXPECT_EQ(end.attempts(), 3);
  EXPECT_EQ(test::described(Exhausted("m", {.attempts = 1, .last = nullptr})), "Exhausted: m");
}

/// What the failure is after it was kept through a reference to `Named`.
template <class Named>
std::string kept(const Named& failure) {
  const FailurePtr held = failure;
  return test::outcome([&]() -> std::string { held.raise(); });
}

TEST(FailurePtr, KeepsTheKindOfAFailureNamedThroughABase) {
  EXPECT_EQ(kept<HttpFailure>(Refused("r")), "Refused: r");
  EXPECT_EQ(kept<HttpFailure>(BadReply("b")), "BadReply: b");
  EXPECT_EQ(kept<Ended>(DeadlineExceeded("d")), "DeadlineExceeded: d");
  EXPECT_EQ(kept<HttpFailure>(Stopped("s", {.last = Retryable("r", {.status = 1})})),
            "Stopped: s | 1");
  EXPECT_EQ(kept<Ended>(Exhausted("e", {.attempts = 7, .last = nullptr})), "Exhausted: e");
  EXPECT_EQ(kept<HttpFailure>(Cooperative("c", {.status = 429})), "Cooperative: c | 429");
  EXPECT_EQ(kept(Throttled("t")), "Throttled: t");
  try {  // while another error is handled
    throw std::runtime_error("unrelated");
  } catch (const std::runtime_error&) {
    EXPECT_EQ(kept<HttpFailure>(Retryable("r")), "Retryable: r");
  }
}

TEST(FailurePtr, KeepsTheExceptionItselfInItsHandler) {
  FailurePtr held;
  try {
    throw Throttled("slow down");
  } catch (const HttpFailure& failure) {
    held = failure;
    EXPECT_EQ(held.get(), &failure);
  }
  EXPECT_THROW(held.raise(), Throttled);
  try {
    throw Both("b");
  } catch (const Retryable& failure) {
    held = failure;
  }
  EXPECT_THROW(held.raise(), Both);
}

TEST(FailurePtr, RefusesToCopyAPartOfAFailure) {
  struct More : Cooperative {
    using Cooperative::Cooperative;
  };
  EXPECT_THROW(kept<HttpFailure>(Throttled("t")), std::logic_error);
  EXPECT_THROW(kept<Retryable>(Both("b")), std::logic_error);
  EXPECT_THROW(kept<HttpFailure>(More("m")), std::logic_error);
}

TEST(Transport, AUrlErrorHoldsAndNamesItsReason) {
  const URLError error(gaierror("no such host"));
  EXPECT_STREQ(error.what(), "no such host");
  EXPECT_NE(dynamic_cast<const gaierror*>(error.reason()), nullptr);
  EXPECT_EQ(URLError("odd").reason(), nullptr);
}

}  // namespace
}  // namespace engines::http
