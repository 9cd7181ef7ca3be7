// SPDX-License-Identifier: Apache-2.0
#include "engines/http/redaction.h"

#include <gtest/gtest.h>

#include <iterator>
#include <sstream>
#include <string>

#include "tests/support/table.h"

namespace engines::http {
namespace {

/// The secrets, each in brackets.
std::string items(const Secrets& secrets) {
  std::string text;
  for (const std::string& secret : secrets) text += "<" + secret + ">";
  return text;
}

TEST(Secrets, AreTheCredentialsInHeadersAndUrls) {
  for (const test::Row& row : test::table("credentials", 3)) {
    const Headers headers(test::headers(row[1]));
    EXPECT_EQ(items(row[0] == "url"    ? secrets_of_url(row[1])
                    : row[0] == "call" ? detail::secrets_of_call({"mine"}, headers, "http://h")
                                       : secrets_of(headers)),
              row[2])
        << row[1];
  }
}

TEST(Secrets, AnyRangeIsReadOnce) {
  struct OnePass {
    std::istringstream words;
    auto begin() { return std::istream_iterator<std::string>(words); }
    auto end() { return std::istream_iterator<std::string>(); }
  };
  EXPECT_EQ(items(OnePass{std::istringstream("first second")}), "<first><second>");
  const char* const array[] = {"a", "b"};
  const std::string named = "ab";
  EXPECT_EQ(items({{"a", "b"}}), "<a><b>") << "not a pair of iterators";
  EXPECT_EQ(items({named, "b"}) + items({{named}}), "<ab><b><ab>");
  EXPECT_EQ(items(Secrets().followed_by(Secrets(array)).followed_by({"c"})), "<a><b><c>");
}

TEST(Redact, RemovesSecretsTheirCutStartsAndEchoedCredentials) {
  for (const test::Row& row : test::table("redaction", 4)) {
    const test::Row secrets = test::parts(row[0]);
    EXPECT_EQ(
        row[3].empty() ? redact(row[1], secrets) : excerpt(row[1], secrets, std::stoul(row[3])),
        row[2].empty() ? row[1] : row[2]);
  }
  EXPECT_EQ(excerpt(std::string(1000, 'a')), std::string(300, 'a'));
  EXPECT_EQ(_without_cut_secret("no secret", ""), "no secret");
  EXPECT_EQ(_without_cut_secret("k=0123456789", "0123456789"), "k=0123456789");
  EXPECT_EQ(_without_cut_secret("k=012345678", "0123456789"), "k=[redacted]");
}

}  // namespace
}  // namespace engines::http
