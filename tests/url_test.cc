// SPDX-License-Identifier: Apache-2.0
#include "engines/http/net/url.h"

#include <gtest/gtest.h>

#include "tests/support/outcome.h"
#include "tests/support/table.h"

namespace engines::http::net {
namespace {

std::string taken_apart(const Url& url) {
  const Origin& origin = url.origin;
  std::string parts = origin.scheme + " " + origin.host + " " + origin.zone + " " + origin.port +
                      " " + url.target + " " + url.text;
  if (url.credentials) parts += " " + url.credentials->user + "|" + url.credentials->password;
  return parts;
}

std::string read_as(const std::string& what, const std::string& text) {
  if (what == "URL") return taken_apart(parse_url(text));
  if (what == "proxy") return taken_apart(parse_proxy_url(text));
  const auto url = resolve(parse_url("http://u:p@h:81/a/b?c"), text);
  return url ? url->text : "none";
}

TEST(Url, IsTakenApartOrRefusedWithoutBeingQuoted) {
  for (const auto& row : test::table("urls", 3)) {
    const std::string how = test::outcome([&] { return read_as(row[0], row[1]); });
    EXPECT_TRUE(how == row[2] || (how.starts_with("invalid") && how.starts_with(row[2])))
        << row[0] << " " << row[1] << ": " << how;
    EXPECT_EQ(how.find("s3cret"), how.npos);
  }
}

}  // namespace
}  // namespace engines::http::net
