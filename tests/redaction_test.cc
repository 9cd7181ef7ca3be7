// SPDX-License-Identifier: Apache-2.0
#include "engines/http/redaction.h"

#include <gtest/gtest.h>

#include <iterator>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

namespace engines::http {
namespace {

/// The secrets, each in brackets.
std::string items(const Secrets& secrets) {
  std::string text;
  for (const std::string& secret : secrets) text += "<" + secret + ">";
  return text;
}

/// Each text is redacted where, and only where, it is in angle brackets here.
void expect_redacted(const Secrets& secrets, std::initializer_list<std::string_view> texts) {
  for (const std::string_view marked : texts) {
    std::string text, expected;
    bool inside = false;
    for (const char c : marked) {
      if (c == '<') expected += REDACTED;
      if (c == '<' || c == '>') {
        inside = c == '<';
      } else {
        text += c;
        if (!inside) expected += c;
      }
    }
    EXPECT_EQ(redact(text, secrets), expected) << marked;
  }
}

TEST(SecretsOf, CollectsValuesAndTheCredentialsInThem) {
  const std::pair<Headers, std::string> table[] = {
      {{{"Authorization", "Bearer abc"}, {"X-Api-Key", "k"}, {"Accept", "a"}},
       "<Bearer abc><abc><k>"},
      {{{"authorization", "token  zq8x"}, {" authorization", "no"}}, "<token  zq8x><zq8x>"},
      {{{"Authorization", ""}}, ""},
      {{{"Authorization", "Basic\tx"}}, "<Basic\tx>"},  // only a space parts scheme and token
      {{{"Proxy-Authorization", " Bearer x y "}}, "< Bearer x y ><x y>"},
      {{{"X-Api-\u212Aey", "kelvin"}}, "<kelvin>"},  // the Kelvin sign is a k in lower case
      {{{"Authorization", "\u00A0Bearer \u2003tok\u3000"}}, "<\u00A0Bearer \u2003tok\u3000><tok>"},
      {{{"Authorization", "\xff \xfe"}}, "<\xff \xfe><\xfe>"}};
  for (const auto& [headers, expected] : table) EXPECT_EQ(items(secrets_of(headers)), expected);
}

TEST(SecretsOfUrl, ThePasswordAndWhatIsSentOfIt) {
  const std::pair<std::string, std::string> table[] = {
      {"a:%fB%Ff%aA", "<%fB%Ff%aA><\xfb\xff\xaa><YTr7/6o=>"},
      {"us:p%40%g4%4g@s%4", "<p%40%g4%4g@s%4><p@%g4%4g@s%4><dXM6cEAlZzQlNGdAcyU0>"},
      {"us%65r:p%0A%39:", "<p%0A%39:><p\n9:><dXNlcjpwCjk6>"}};
  for (const auto& [userinfo, expected] : table) {
    for (const char* rest : {"/x@y", "?@", "#@", ""}) {
      EXPECT_EQ(items(secrets_of_url("http://" + userinfo + "@h" + rest)), expected);
    }
  }
  for (const char* url : {"http://h/a:b@c", "a:b@c"}) EXPECT_TRUE(secrets_of_url(url).empty());
}

TEST(SecretsOfCall, WhatHeadersNamesSayIsACredential) {
  const std::pair<Headers, std::string> table[] = {
      {{{"X-Api-Key", " k-1 "}, {"api-key", "k-2"}, {"Authorization", "Bearer t"}},
       "< k-1 ><Bearer t><t><k-1><k-2><Bearer t><t>"},
      {{{"x-goog-api-key", "g"}, {"Ocp-Apim-Subscription-Key", "o"}, {"X-AUTH-TOKEN", "JWT j=k"}},
       "<g><o><JWT j=k><j=k>"},
      {{{"Cookie", "a= 1 ; b==2;c"}, {"Accept", "a/b"}, {"X-Request-Id", "r"}, {"Keep-Alive", "1"}},
       "<a= 1 ; b==2;c><1 ; b==2;c><1><=2>"}};
  for (const auto& [headers, expected] : table) {
    EXPECT_EQ(items(_secrets_of_call({"mine"}, headers, "http://h")), "<mine>" + expected);
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

TEST(Redact, KnownSecretsAndTheirCutStarts) {
  // Characters count, not bytes. The longest start goes, not the first that fits.
  expect_redacted({"1234567", "12345678", "abcdefghijk", "aaaaaaaaaa", "ababababababx", "ééééééé",
                   "pa$$w\\0rd.*", ""},
                  {"a 1234567 b", "a <12345678> b <12345678>", "x=abcd", "<abcdefgh>", "ééééééé",
                   "<aaaaaaaaaa>aa", "<ababababab>", "\"<pa$$w\\0rd.*>\"", ""});
  expect_redacted({"0123456789abcdef", "é2345678é"},
                  {"k=<0123456789>", "k=<01234567>", "k=0123456", "k=0123456789 ", "k=é234567",
                   "k=<é2345678>"});
  // The longest first; each secret is replaced, then cut.
  expect_redacted({"abcdefgh", "abcdefgh12", "abcdefgh"}, {"x <abcdefgh12> y <abcdefgh> z"});
  expect_redacted({"secret-one-long", "secret-one-lo"}, {"x <secret-one-lo>"});
  // Not UTF-8: as its own bytes, or as a reader has decoded them.
  expect_redacted({"caf\xe9-secret"}, {"a <caf\xe9-secret> b", "a <caf\uFFFD-secret> b"});
  expect_redacted({"caf\uFFFD-secret", "1234567ééé"}, {"a <caf\xe9-secret> b", "<1234567é\xc3>"});
  expect_redacted({"one\xff-two-three-four", "-two-three-\xff"}, {"<one\uFFFD-two-three>"});
  EXPECT_EQ(redact("\xc3\xa9-secret \xff", {"\xa9-secret"}), "\uFFFD[redacted] \uFFFD");
}

TEST(Redact, EchoedCredentials) {
  // No word begins behind a letter. U+180E is not white space. A blank may be the credential.
  expect_redacted(
      {}, {R"({"headers": {"Authorization": "<Bearer abc.def>"}})",
           "AUTHORIZATION:", "WWW-Authenticate: Bearer <realm=x>, error=invalid_token",
           "AUTHORIZATION:< >", "authorization=<Basic dXNlcjpwYXNz>; path=/",
           "proxy-authorization: <x>", "reauthorization: x", "éauthorization: x",
           "authorizations: x", "authorization:\n< >\n;", R"(authorization\": \"<token xyz>\")",
           "Authorization\r\n :\n\t<abc>\r\nnext", "authorization\u3000=\u2003<x>",
           "bearer\u0085<tok>", "bearer\u180etok", "bearer <ab\u180ecd> ef",
           "forbearer x BEARER <y>}", "bearer <\xff\xfe> tail", "Bearer <[o]n!e> bearer <two>"});
  expect_redacted({"0123456789"}, {"Authorization: <Bearer 0123456789>"});
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
  const std::string a(1000, 'a'), secret = "0123456789abcdefghij";
  const std::string a290 = a.substr(0, 290), held = a290 + secret + a, cut = a290 + "0123456789";
  // 64 characters and the longest secret beyond the limit are looked at, and no more.
  const std::string token = "bearer " + a.substr(0, 20 + 64 - 7);
  const std::tuple<std::string, Secrets, std::size_t, std::string> table[] = {
      {a, {}, SIZE_MAX, a},
      {held, {secret}, 300, a290 + "[redacted]"},
      {held, {}, 300, cut},
      {a290 + " bearer abcdefghijklmnop", {}, 301, a290 + " bearer [re"},
      {token + ";", {}, 20, "bearer [redacted]"},
      {token + a.substr(0, 20) + ";", {secret}, 20, "bearer [redacted]"},
      {token.substr(0, 83) + " 01234567", {"01234567"}, 20, "bearer [redacted] [r"},
      {"ééé\xff" + std::string("abc"), {}, 5, "ééé\uFFFDa"}};
  for (const auto& [text, secrets, limit, expected] : table) {
    EXPECT_EQ(excerpt(text, secrets, limit), expected);
  }
  EXPECT_EQ(excerpt(a), a.substr(0, 300));
}

}  // namespace
}  // namespace engines::http
