#include "engines/http/net/redirect.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace engines::http::net {
namespace {

TEST(Redirect, KeepsOrChangesTheRequestByTheUsualRules) {
  struct Row {
    const char* method;
    int status;
    const char* then;  // the method that follows; null: the reply is final
  };
  for (const auto& [method, status, then] : std::vector<Row>{{"POST", 301, "GET"},
                                                             {"POST", 302, "GET"},
                                                             {"POST", 303, "GET"},
                                                             {"POST", 307, "POST"},
                                                             {"PUT", 308, "PUT"},
                                                             {"PUT", 302, "PUT"},
                                                             {"PUT", 303, "GET"},
                                                             {"HEAD", 303, "HEAD"},
                                                             {"GET", 301, "GET"},
                                                             {"POST", 200, nullptr},
                                                             {"POST", 300, nullptr},
                                                             {"POST", 304, nullptr},
                                                             {"POST", 305, nullptr}}) {
    SCOPED_TRACE(std::string(method) + " " + std::to_string(status));
    const Request request("http://u:p@h/a", {.data = "{}",
                                             .headers = {{"Content-Type", "a/b"},
                                                         {"content-encoding", "x"},
                                                         {"X-Api-Key", "key"},
                                                         {"Cookie", "c=d"}},
                                             .method = method});
    const auto next = next_hop(first_hop(request), status, "/b");
    ASSERT_EQ(next.has_value(), then != nullptr);
    if (!next) continue;
    const bool keeps_body = std::string(method) == then;
    EXPECT_EQ(next->method, then);
    EXPECT_EQ(next->url->text, "http://h/b");
    EXPECT_EQ(next->body.has_value(), keeps_body);
    EXPECT_EQ(next->headers->get("content-type").has_value(), keeps_body);
    EXPECT_EQ(next->headers->get("content-encoding").has_value(), keeps_body);
    EXPECT_EQ(next->headers->get("x-api-key"), "key") << "the same origin";
    EXPECT_EQ(next->credentials->password, "p");
  }
}

TEST(Redirect, TakesOnlyHarmlessHeadersToAnotherOrigin) {
  const Headers harmless{{"ACCEPT", "a"},
                         {"Accept-Language", "b"},
                         {"Content-Type", "c"},
                         {"Content-Language", "d"},
                         {"User-Agent", "e"}};
  Headers all = harmless;
  for (const char* name :
       {"authorization", "Proxy-Authorization", "X-API-Key", "Cookie", "api-key", "x-goog-api-key",
        "X-Auth-Token", "Ocp-Apim-Subscription-Key", "X-Other", "Host", "Accept-Encoding"}) {
    all.add(name, name == std::string("Host") ? "h" : "s3cret");
  }
  const Request with_headers("http://h/", {.headers = all});
  const Request with_userinfo("http://user:s3cret@h/", {.headers = harmless});
  for (const Request* request : {&with_headers, &with_userinfo}) {
    for (const char* to : {"https://h/", "http://h:81/", "//other/", "http://x:y@other/"}) {
      const auto next = next_hop(first_hop(*request), 307, to);
      ASSERT_TRUE(next);
      EXPECT_EQ(*next->headers, harmless) << to;
      EXPECT_FALSE(next->credentials) << to;
      const auto back = next_hop(*next, 307, "http://h/");
      EXPECT_EQ(*back->headers, harmless) << "they do not come back";
      EXPECT_FALSE(back->credentials);
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
    try {
      first_hop(request);
      ADD_FAILURE() << part;
    } catch (const std::invalid_argument& error) {
      EXPECT_NE(std::string(error.what()).find(part), std::string::npos) << error.what();
      EXPECT_EQ(std::string(error.what()).find("s3cret"), std::string::npos) << error.what();
    }
  }
  for (const Request& sound : {with("A", ""), with("A", "\t x\xc3\xa9"),
                               with("content-length", "2"), with("Host", "H:81"), by("PURGE")}) {
    EXPECT_NO_THROW(first_hop(sound));
  }
}

}  // namespace
}  // namespace engines::http::net
