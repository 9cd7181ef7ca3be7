// SPDX-License-Identifier: Apache-2.0
#include "engines/http/testing.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace engines::http::testing {
namespace {

TEST(ScriptedTransport, ServesSeveralThreads) {
  ScriptedTransport transport;
  transport.then([transport](const Request&, TransportOptions) mutable {
    return transport.reply("last"), reply_of({"first"});
  });
  for (int i = 1; i < 400; ++i) transport.reply(std::to_string(i));
  EXPECT_EQ(transport.unplayed(), 400U);
  std::atomic<std::size_t> size = 0;
  const auto send = [&size, copy = transport] {
    for (int i = 0; i < 100; ++i) {
      size += copy(Request("http://a.test"), {.timeout = 1, .time_left = 2})->read(100).size();
    }
  };
  {
    const std::jthread threads[] = {std::jthread(send), std::jthread(send), std::jthread(send),
                                    std::jthread(send)};
  }
  EXPECT_EQ(size, 9U + 90 * 2 + 300 * 3 + 5);  // each step once, in whatever order
  EXPECT_EQ(transport.sent().size(), 400U);
  EXPECT_EQ(transport.sent().back().time_left, 2.0);
  EXPECT_EQ(transport.unplayed(), 1U);
}

TEST(ScriptedTransport, ThrowsTheErrorsOfItsScriptAsTheKindsThatTheyAre) {
  ScriptedTransport transport;
  const Request request("http://a.test");
  const Retryable busy("busy");
  transport.fail(static_cast<const HttpFailure&>(busy)).fail(TimeoutError("t")).fail(7);
  EXPECT_THROW(transport(request, {.timeout = 1}), Retryable);
  EXPECT_THROW(transport(request, {.timeout = 1}), TimeoutError);
  EXPECT_THROW(transport(request, {.timeout = 1}), int);
  EXPECT_THROW(transport(request, {.timeout = 1}), std::logic_error);  // beyond the script
  const TimeoutError slow("t");
  EXPECT_THROW(transport.fail(static_cast<const OSError&>(slow)), std::logic_error);
  EXPECT_THROW(Piece(static_cast<const OSError&>(slow)), std::logic_error);
}

}  // namespace
}  // namespace engines::http::testing
