// SPDX-License-Identifier: Apache-2.0
#include "engines/http/net/redirect.h"

#include <gtest/gtest.h>

#include "tests/support/outcome.h"
#include "tests/support/table.h"

namespace engines::http::net {
namespace {

TEST(Redirect, KeepsOrChangesTheRequestByTheUsualRules) {
  for (const test::Row& row : test::table("redirects", 3)) {
    const std::string &method = row[0], &status = row[1], &then = row[2];
    SCOPED_TRACE(method + " " + status);
    const Headers headers{{"Content-Type", "a/b"}, {"content-encoding", "x"}, {"Cookie", "c=d"}};
    const Request request("http://u:p@h/a", {.data = "{}", .headers = headers, .method = method});
    const auto next = next_hop(first_hop(request), std::stoi(status), "/b");
    ASSERT_EQ(next.has_value(), !then.empty());
    if (!next) continue;
    const bool keeps_body = method == then;
    EXPECT_EQ(next->method, then);
    EXPECT_EQ(next->url.text, "http://h/b");
    EXPECT_EQ(next->body.has_value(), keeps_body);
    EXPECT_EQ(next->headers, keeps_body ? headers : Headers({{"Cookie", "c=d"}}));
    EXPECT_EQ(next->credentials->password, "p");
  }
  EXPECT_FALSE(next_hop(first_hop(Request("http://h/")), 302, std::nullopt)) << "leads nowhere";
}

TEST(Redirect, TakesOnlyHarmlessHeadersToAnotherOrigin) {
  Headers harmless, all;
  for (const test::Row& row : test::table("redirected_headers", 3)) {
    all.add(row[1], row[2]);
    if (row[0] == "kept") harmless.add(row[1], row[2]);
  }
  for (const Request& request : {Request("http://h/", {.headers = all}),
                                 Request("http://user:s3cret@h/", {.headers = harmless})}) {
    for (const char* to : {"https://h/", "http://h:81/", "//other/", "http://x:y@other/"}) {
      const auto next = next_hop(first_hop(request), 307, to);
      const auto back = next_hop(next.value(), 307, "http://h/");
      EXPECT_EQ(next->headers, harmless) << to;
      EXPECT_EQ(back->headers, harmless) << "they do not come back";
      EXPECT_FALSE(next->credentials || back->credentials) << to;
    }
  }
}

TEST(Redirect, ARequestThatCannotBeSentIsRefusedWithoutBeingQuoted) {
  for (const test::Row& row : test::table("checked_requests", 4)) {
    const Request request("http://h:81/",
                          {.data = "{}", .headers = {{row[2], row[3]}}, .method = row[1]});
    const std::string how = test::outcome([&] { return first_hop(request), "sent"; });
    EXPECT_TRUE(how.starts_with(row[0])) << how;
    EXPECT_EQ(how.find("s3cret"), how.npos);
  }
}

}  // namespace
}  // namespace engines::http::net
