// SPDX-License-Identifier: Apache-2.0
#include "engines/http/text/case.h"

#include <gtest/gtest.h>

#include <tuple>
#include <typeinfo>

#include "engines/http/text/literal.h"
#include "engines/http/text/type_name.h"
#include "engines/http/text/utf8.h"
#include "engines/http/text/white_space.h"

namespace engines::http::detail {
namespace {

template <class>
struct Template {};
struct [[gnu::abi_tag("tag")]] Tagged{};

TEST(Text, IllFormedSubsequencesAreOneCharacterEach) {
  const std::tuple<std::string, std::string, std::size_t> cases[] = {
      {"é€😀", "é€😀", 3},
      {"12345678\xff", "12345678\ufffd", 9},
      {"\xf0\x9f\x98|\xe2\x28", "\ufffd|\ufffd(", 4},
      {"\xed\xa0\x80", "\ufffd\ufffd\ufffd", 3},
      {"\xc0\xaf\xf5", "\ufffd\ufffd\ufffd", 3}};
  for (const auto& [text, decoded, count] : cases) {
    EXPECT_EQ(decode_utf8(text), decoded);
    EXPECT_EQ(is_utf8(text), text == decoded) << decoded;
    EXPECT_EQ(length(text), count) << decoded;
    EXPECT_EQ(first_chars(text, count), text);
    EXPECT_EQ(length(first_chars(text, 2)), 2U) << decoded;
  }
}

TEST(Text, CaseAndWhiteSpaceAreThoseOfUnicode) {
  EXPECT_EQ(lower("CONTENT-Type \u00c9\u0130"), "content-type \u00e9i\u0307");
  EXPECT_TRUE(equal_ignoring_case("X-\u00c9", "x-\u00e9"));
  EXPECT_FALSE(equal_ignoring_case("x-a", "x-ab") || equal_ignoring_case("x-[", "x-{"));
  EXPECT_EQ(trim(" \u2003\u0085\ta b\u00a0\n"), "a b");
  EXPECT_EQ(trim("\x1c|\x80 "), "\x1c|\x80");
  EXPECT_EQ(trim_start_and_separators("\x1f \u2003<a> "), "<a> ");
}

TEST(Text, AQuotedLiteralEscapesWhatIsNotPrintable) {
  EXPECT_EQ(quoted("a\\\t\n\r\x01\x7f \u0085\u200b\U000e0001\u00a0é\xff"),
            R"('a\\\t\n\r\x01\x7f \x85\u200b\U000e0001\xa0é)"
            "\ufffd'");
  EXPECT_EQ(quoted("it's"), "\"it's\"");
  EXPECT_EQ(quoted("'\""), R"('\'"')");
}

TEST(Text, ATypeNameIsThePlainOne) {
  struct Local {};
  EXPECT_EQ(type_name(typeid(Local)), "Local");
  EXPECT_EQ(type_name(typeid(Tagged)), "Tagged");
  EXPECT_EQ(type_name(typeid(Template<std::string>)), "Template");
  EXPECT_EQ(type_name(typeid(int)), "int");
}

}  // namespace
}  // namespace engines::http::detail
