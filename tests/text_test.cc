// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <typeinfo>

#include "engines/http/text/literal.h"
#include "engines/http/text/type_name.h"
#include "engines/http/text/unicode.h"
#include "engines/http/text/utf8.h"
#include "tests/support/table.h"

namespace engines::http::detail {
namespace {

template <class>
struct Template {};
struct [[gnu::abi_tag("tag")]] Tagged{};

TEST(Text, IllFormedSubsequencesAreOneCharacterEach) {
  for (const test::Row& row : test::table("utf8", 3)) {
    const std::string &text = row[0], &decoded = row[1].empty() ? text : row[1];
    EXPECT_EQ(replace_ill_formed(text), decoded);
    EXPECT_EQ(is_utf8(text), text == decoded) << decoded;
    EXPECT_EQ(std::to_string(char_count(text)), row[2]) << decoded;
    EXPECT_EQ(first_chars(text, char_count(text)), text);
    EXPECT_EQ(char_count(first_chars(text, 2)), 2U) << decoded;
  }
}

TEST(Text, CaseWhiteSpaceAndQuotesAreThoseOfUnicode) {
  for (const test::Row& row : test::table("text", 3)) {
    const std::string &what = row[0], &text = row[1];
    EXPECT_EQ(what == "lower"   ? lower(text)
              : what == "quote" ? detail::quoted(text)
              : what == "trim"  ? std::string(trim(text))
                                : std::string(skip_space_and_separators(text)),
              row[2]);
  }
  EXPECT_TRUE(equal_ignoring_case("X-\u00c9", "x-\u00e9"));
  EXPECT_FALSE(equal_ignoring_case("x-a", "x-ab") || equal_ignoring_case("x-[", "x-{"));
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
