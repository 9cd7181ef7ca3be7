// SPDX-License-Identifier: Apache-2.0
#include "engines/http/net/redirect.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "tests/support/outcome.h"

namespace engines::http::net {
namespace {

TEST(Redirect, KeepsOrChangesTheRequestByTheUsualRules) {
  for (const char* row : {"POST 301 GET", "POST 302 GET", "POST 303 GET", "POST 307 POST",
                          "PUT 308 PUT", "PUT 302 PUT", "PUT 303 GET", "HEAD 303 HEAD",
                          "GET 301 GET", "POST 200", "POST 300", "POST 304", "POST 305"}) {
    SCOPED_TRACE(row);
    std::string method, then;  // the method that follows; none: the reply is final
    int status = 0;
    std::istringstream(row) >> method >> status >> then;
    const Headers headers{{"Content-Type", "a/b"}, {"content-encoding", "x"}, {"Cookie", "c=d"}};
    const Request request("http://u:p@h/a", {.data = "{}", .headers = headers, .method = method});
    const auto next = next_hop(first_hop(request), status, "/b");
    ASSERT_EQ(next.has_value(), !then.empty());
    if (!next) continue;
    const bool keeps_body = method == then;
    EXPECT_EQ(next->method, then);
    EXPECT_EQ(next->url->text, "http://h/b");
    EXPECT_EQ(next->body.has_value(), keeps_body);
    EXPECT_EQ(*next->headers, keeps_body ? headers : Headers({{"Cookie", "c=d"}}));
    EXPECT_EQ(next->credentials->password, "p");
  }
  EXPECT_FALSE(next_hop(first_hop(Request("http://h/")), 302, std::nullopt)) << "leads nowhere";
}

TEST(Redirect, TakesOnlyHarmlessHeadersToAnotherOrigin) {
  const Headers harmless{{"ACCEPT", "a"},
                         {"Accept-Language", "a"},
                         {"Content-Type", "a"},
                         {"Content-Language", "a"},
                         {"User-Agent", "a"}};
  Headers all = harmless;
  for (const char* name :
       {"authorization", "Proxy-Authorization", "X-API-Key", "Cookie", "Accept-Encoding"}) {
    all.add(name, "s3cret");
  }
  all.add("Host", "h");
  for (const Request& request : {Request("http://h/", {.headers = all}),
                                 Request("http://user:s3cret@h/", {.headers = harmless})}) {
    for (const char* to : {"https://h/", "http://h:81/", "//other/", "http://x:y@other/"}) {
      const auto next = next_hop(first_hop(request), 307, to);
      const auto back = next_hop(next.value(), 307, "http://h/");
      EXPECT_EQ(*next->headers, harmless) << to;
      EXPECT_EQ(*back->headers, harmless) << "they do not come back";
      EXPECT_FALSE(next->credentials || back->credentials) << to;
    }
  }
}

TEST(Redirect, ARequestThatCannotBeSentIsRefusedWithoutBeingQuoted) {
  const auto with = [](std::string name, std::string value) {
    return Request("http://h:81/", {.data = "{}", .headers = {{name, value}}, .method = "POST"});
  };
  const auto by = [](std::string method) { return Request("http://h/", {.method = method}); };
  for (const auto& [request, part] : std::vector<std::pair<Request, const char*>>{
           {with("", "s3cret"), "header name"},
           {with("A:", "s3cret"), "header name"},
           {with("A", "s3cret\r\nB: c"), "header A"},
           {with("A", std::string("s3cret\0", 7)), "header A"},
           {with("A", "s3cret\x7f"), "header A"},
           {with("Content-Length", "3"), "Content-Length"},
           {with("Transfer-Encoding", "chunked"), "Transfer-Encoding"},
           {with("Host", "s3cret"), "Host"},
           {with("Host", "s3cret@h:81"), "Host"},
           {with("Host", "h"), "Host"},
           {with("Expect", "100-continue"), "Expect"},
           {by(""), "method"},
           {by("GET /s3cret"), "method"},
           {by("CONNECT"), "method"}}) {
    const std::string how = test::outcome([&given = request] { return first_hop(given).method; });
    EXPECT_TRUE(how.starts_with("invalid_argument: ")) << how;
    EXPECT_TRUE(how.find(part) < how.npos && how.find("s3cret") == how.npos) << how;
  }
  for (const Request& sound : {with("A", ""), with("A", "\t x\xc3\xa9"),
                               with("content-length", "2"), with("Host", "H:81"), by("PURGE")}) {
    EXPECT_NO_THROW(first_hop(sound));
  }
}

}  // namespace
}  // namespace engines::http::net
