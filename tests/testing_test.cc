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
  for (int i = 1; i < 300; ++i) transport.reply("x");
  std::atomic<std::size_t> size = 0;
  const auto send = [&size, copy = transport] {
    for (int i = 0; i < 100; ++i) {
      size += copy(Request("http://a.test"), {.timeout = 1, .time_left = 2})->read(100).size();
    }
  };
  { const std::jthread threads[]{std::jthread(send), std::jthread(send), std::jthread(send)}; }
  EXPECT_EQ(size, 5U + 299) << "each step once";
  EXPECT_EQ(transport.unplayed(), 1U);
  EXPECT_EQ(transport.sent().back().time_left, 2.0);
}

TEST(ScriptedTransport, ThrowsTheErrorsOfItsScriptAsTheKindsThatTheyAre) {
  ScriptedTransport transport;
  const auto send = [&] { transport(Request("http://a.test"), {.timeout = 1}); };
  transport.fail(7).reply("", 199).reply("", 300);
  EXPECT_THROW(send(), int);
  EXPECT_THROW(send(), HTTPError);
  EXPECT_THROW(send(), HTTPError);
  EXPECT_THROW(send(), std::logic_error);  // beyond the script
  const TimeoutError slow("t");
  EXPECT_THROW(Piece(static_cast<const OSError&>(slow)), std::logic_error);
}

}  // namespace
}  // namespace engines::http::testing
