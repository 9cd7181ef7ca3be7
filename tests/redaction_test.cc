#include "engines/http/redaction.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

namespace engines::http {
namespace {

std::vector<std::string> items(const Secrets& secrets) { return {secrets.begin(), secrets.end()}; }

TEST(SecretsOf, CollectsValuesAndTheCredentialsInThem) {
  const std::vector<std::pair<Headers, std::vector<std::string>>> table{
      {{{"Authorization", "Bearer abcdefghijkl"}, {"X-Api-Key", "k-123"}, {"Accept", "a/b"}},
       {"Bearer abcdefghijkl", "abcdefghijkl", "k-123"}},
      {{{"authorization", "token  zq8x1234567890"}}, {"token  zq8x1234567890", "zq8x1234567890"}},
      {{{"Authorization", "Basic"}}, {"Basic"}},
      {{{"Authorization", ""}}, {}},
      {{{"Authorization", "Basic\tx"}}, {"Basic\tx"}},  // only a space parts scheme and token
      {{{"Proxy-Authorization", " Bearer x y "}}, {" Bearer x y ", "x y"}},
      {{{"X-API-KEY", "k"}, {" authorization", "no"}}, {"k"}},
      {{{"X-Api-\u212Aey", "kelvin"}}, {"kelvin"}},  // the Kelvin sign is a k in lower case
      {{{"Authorization", "\u00A0Bearer \u2003tok\u3000"}},
       {"\u00A0Bearer \u2003tok\u3000", "tok"}},
      {{{"Authorization", "\xff \xfe"}}, {"\xff \xfe", "\xfe"}},
  };
  for (const auto& [headers, expected] : table) EXPECT_EQ(items(secrets_of(headers)), expected);
}

TEST(SecretsOfUrl, ThePasswordAndWhatIsSentOfIt) {
  const std::vector<std::array<std::string, 4>> table{
      {"a", "%fB%Ff%aA", "\xfb\xff\xaa", "YTr7/6o="},
      {"us", "p%40%gg%4g@s%4", "p@%gg%4g@s%4", "dXM6cEAlZ2clNGdAcyU0"},
      {"us%65r", "p%0A%39:", "p\n9:", "dXNlcjpwCjk6"}};
  for (const auto& [user, given, password, sent] : table) {
    for (const char* rest : {"/x@y", "?@", "#@", ""}) {
      const auto found = items(secrets_of_url("http://" + user + ":" + given + "@h" + rest));
      for (const std::string& secret : {given, password, sent}) {
        EXPECT_NE(std::ranges::find(found, secret), found.end()) << secret;
      }
    }
  }
  for (const char* url : {"http://h/a:b@c", "a:b@c"}) EXPECT_TRUE(secrets_of_url(url).empty());
}

TEST(SecretsOfCall, WhatHeadersNamesSayIsACredential) {
  const std::vector<std::pair<Headers, std::vector<std::string>>> table{
      {{{"X-Api-Key", " k-1 "}, {"api-key", "k-2"}, {"Authorization", "Bearer t"}},
       {"mine", " k-1 ", "Bearer t", "t", "k-1", "k-2", "Bearer t", "t"}},
      {{{"x-goog-api-key", "g"}, {"Ocp-Apim-Subscription-Key", "o"}, {"X-AUTH-TOKEN", "JWT j"}},
       {"mine", "g", "o", "JWT j", "j"}},
      {{{"Cookie", "a=1; b==2;c"}, {"Accept", "a/b"}, {"X-Request-Id", "r"}, {"Keep-Alive", "1"}},
       {"mine", "a=1; b==2;c", "b==2;c", "1", "=2"}},
  };
  for (const auto& [headers, expected] : table) {
    EXPECT_EQ(items(_secrets_of_call({"mine"}, headers, "http://h")), expected);
  }
}

TEST(Secrets, AnyRangeIsReadOnce) {
  struct OnePass {
    std::istringstream words;
    auto begin() { return std::istream_iterator<std::string>(words); }
    auto end() { return std::istream_iterator<std::string>(); }
  };
  EXPECT_EQ(items(OnePass{std::istringstream("first-secret second-secret")}),
            (std::vector<std::string>{"first-secret", "second-secret"}));
  const char* const array[] = {"a", "b"};
  EXPECT_EQ(Secrets(array).size(), 2U);
  EXPECT_EQ(Secrets(array)[1], "b");
  const std::string named = "ab";
  EXPECT_EQ(items({{"a", "b"}}), (std::vector<std::string>{"a", "b"})) << "not a pair of iterators";
  EXPECT_EQ(items({named, "b"}), (std::vector<std::string>{"ab", "b"}));
  EXPECT_EQ(items({{named}}), std::vector{named});
  EXPECT_EQ(items(Secrets().followed_by(Secrets(array)).followed_by({"c"})),
            (std::vector<std::string>{"a", "b", "c"}));
}

TEST(Redact, KnownSecretsAndTheirCutStarts) {
  const std::vector<std::tuple<std::string, std::vector<std::string>, std::string>> table{
      {"a 1234567 b", {"1234567"}, "a 1234567 b"},
      {"a 12345678 b 12345678", {"12345678"}, "a [redacted] b [redacted]"},
      {"xx abcdefgh12 yy abcdefgh zz",
       {"abcdefgh", "abcdefgh12", "abcdefgh"},
       "xx [redacted] yy [redacted] zz"},
      {"key=0123456789", {"0123456789abcdef"}, "key=[redacted]"},
      {"key=01234567", {"0123456789abcdef"}, "key=[redacted]"},
      {"key=0123456", {"0123456789abcdef"}, "key=0123456"},
      {"key=0123456789 ", {"0123456789abcdef"}, "key=0123456789 "},
      {"abcdefgh", {"abcdefghijk"}, "[redacted]"},
      {"x=abcd", {"abcdefgh"}, "x=abcd"},
      {"", {"abcdefgh", ""}, ""},
      {"aaaaaaaaaaaa", {"aaaaaaaaaa"}, "[redacted]aa"},
      // The longest start goes, not the first that fits; each secret is replaced, then cut.
      {"ababababab", {"ababababababx"}, "[redacted]"},
      {"x secret-one-lo", {"secret-one-long", "secret-one-lo"}, "x [redacted]"},
      // Characters count, not bytes: seven of them are no secret, in whatever script.
      {"\u00e9\u00e9\u00e9\u00e9\u00e9\u00e9\u00e9",
       {"\u00e9\u00e9\u00e9\u00e9\u00e9\u00e9\u00e9"},
       "\u00e9\u00e9\u00e9\u00e9\u00e9\u00e9\u00e9"},
      {"k=\u00e9234567", {"\u00e92345678"}, "k=\u00e9234567"},
      {"k=\u00e92345678", {"\u00e92345678\u00e9"}, "k=[redacted]"},
      {"quote \"pa$$w\\0rd.*\" end", {"pa$$w\\0rd.*"}, "quote \"[redacted]\" end"},
      // Not UTF-8: as its own bytes, or as a reader has decoded them.
      {"a caf\xe9-secret b", {"caf\xe9-secret"}, "a [redacted] b"},
      {"\xc3\xa9-secret", {"\xa9-secret"}, "\uFFFD[redacted]"},
      {"a caf\uFFFD-secret b", {"caf\xe9-secret"}, "a [redacted] b"},
      {"a caf\xe9-secret b", {"caf\uFFFD-secret"}, "a [redacted] b"},
      {"\xff ok-secret \xff", {"ok-secret"}, "\uFFFD [redacted] \uFFFD"},
      {"one\uFFFD-two-three", {"one\xff-two-three-four-five", "-two-three-\xff"}, "[redacted]"},
      {"k=1234567\u00e9\xc3", {"1234567\u00e9\u00e9\u00e9"}, "k=[redacted]"},
  };
  for (const auto& [text, secrets, expected] : table) {
    EXPECT_EQ(redact(text, secrets), expected) << text;
  }
}

TEST(Redact, EchoedCredentials) {
  const std::vector<std::pair<std::string, std::string>> table{
      {R"({"headers": {"Authorization": "Bearer abc.def"}})",
       R"({"headers": {"Authorization": "[redacted]"}})"},
      {"WWW-Authenticate: Bearer realm=x, error=invalid_token",
       "WWW-Authenticate: Bearer [redacted], error=invalid_token"},
      {"authorization=Basic dXNlcjpwYXNz; path=/", "authorization=[redacted]; path=/"},
      {"proxy-authorization: x", "proxy-authorization: [redacted]"},
      {"reauthorization: x", "reauthorization: x"},
      {"\u00e9authorization: x", "\u00e9authorization: x"},  // a letter before: no word begins
      {"authorizations: x", "authorizations: x"},
      {"AUTHORIZATION:", "AUTHORIZATION:"},
      {"AUTHORIZATION: ", "AUTHORIZATION:[redacted]"},
      {R"(authorization\": \"token xyz\")", R"(authorization\": \"[redacted]\")"},
      {"Authorization\r\n :\n\tabc\r\nnext", "Authorization\r\n :\n\t[redacted]\r\nnext"},
      {"authorization:\n \n;", "authorization:\n[redacted]\n;"},  // the blank is the credential
      {"authorization\u3000=\u2003x", "authorization\u3000=\u2003[redacted]"},
      {"bearer\u0085tok", "bearer\u0085[redacted]"},
      {"bearer\u180etok", "bearer\u180etok"},            // not white space
      {"bearer ab\u180ecd ef", "bearer [redacted] ef"},  // so it ends no credential either
      {"forbearer x BEARER y}", "forbearer x BEARER [redacted]}"},
      {"bearer \xff\xfe tail", "bearer [redacted] tail"},
      {"Bearer [o]n!e bearer two", "Bearer [redacted] bearer [redacted]"},
  };
  for (const auto& [text, expected] : table) EXPECT_EQ(redact(text), expected) << text;
  EXPECT_EQ(redact("Authorization: Bearer 0123456789", {"0123456789"}),
            "Authorization: [redacted]");
}

TEST(Redact, LongHostileTextIsLinear) {
  const std::string blanks(1 << 20, ' ');
  EXPECT_EQ(redact("authorization" + blanks).size(), 13 + blanks.size());
  std::string words;
  for (int i = 0; i < 100000; ++i) words += "bearer \n;authorization \n";
  EXPECT_EQ(redact(words), words);
  EXPECT_EQ(redact(std::string(1 << 20, '\xff')).size(), 3U << 20);
}

TEST(WithoutCutSecret, LooksOnlyForProperStarts) {
  EXPECT_EQ(_without_cut_secret("k=0123456789", "0123456789"), "k=0123456789");
  EXPECT_EQ(_without_cut_secret("k=012345678", "0123456789"), "k=[redacted]");
}

TEST(Excerpt, IsRedactedBeforeItIsCut) {
  const std::string a(1000, 'a');
  const std::string secret = "0123456789abcdefghij";
  const std::string held = a.substr(0, 290) + secret + a.substr(310);
  EXPECT_EQ(excerpt("", {secret}), "");
  EXPECT_EQ(excerpt(a), a.substr(0, 300));
  EXPECT_EQ(excerpt(a, {}, 0), "");
  EXPECT_EQ(excerpt(a, {}, SIZE_MAX), a);
  EXPECT_EQ(excerpt(held, {secret}), a.substr(0, 290) + "[redacted]");
  EXPECT_EQ(excerpt(held), a.substr(0, 290) + "0123456789");
  EXPECT_EQ(excerpt(a.substr(0, 280) + " Authorization: Bearer abcdefghijklmnop"),
            a.substr(0, 280) + " Authorization: [red");
  EXPECT_EQ(excerpt("abc x", {"", "abc"}), "abc x");
  // 64 characters and the longest secret beyond the limit are looked at, and no more.
  const std::string credential = "bearer " + a.substr(0, 20 + 64 - 7);
  EXPECT_EQ(excerpt(credential + ";", {}, 20), "bearer [redacted]");
  EXPECT_EQ(excerpt(credential + a.substr(0, 20) + ";", {secret}, 20), "bearer [redacted]");
  EXPECT_EQ(excerpt(credential.substr(0, 77) + " " + secret, {secret}, 20), "bearer [redacted] [r");
  EXPECT_EQ(excerpt("\u00e9\u00e9\u00e9\xff"
                    "abc",
                    {}, 5),
            "\u00e9\u00e9\u00e9\uFFFD"
            "a");
}

}  // namespace
}  // namespace engines::http
