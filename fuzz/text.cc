// SPDX-License-Identifier: Apache-2.0
// Text from a stranger, as the library understands it, beside ICU's own strings.
#include <unicode/locid.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>

#include <algorithm>

#include "engines/http/text/literal.h"
#include "engines/http/text/unicode.h"
#include "engines/http/text/utf8.h"
#include "fuzz/expect.h"

namespace detail = engines::http::detail;
using fuzz::expect;
using icu::UnicodeString;

namespace {

std::string utf8(const UnicodeString& text) {
  std::string bytes;
  return text.toUTF8String(bytes);
}

void check_literal(const UnicodeString& literal, const UnicodeString& text) {
  const char16_t quote = literal[0];
  expect(quote == '\'' || quote == '"', "a literal begins with a quote");
  expect(literal.length() >= 2 && literal.endsWith(quote), "and ends with the same");
  const UnicodeString inside = literal.tempSubString(1, literal.length() - 2);
  for (std::int32_t i = 0; i < inside.length();) {
    const UChar32 c = inside.char32At(i);
    expect(c == ' ' || (u_isgraph(c) && !u_isUWhiteSpace(c)), "all of it can be printed");
    expect(c != quote, "no quote ends it early");
    i = inside.moveIndex32(i, c == '\\' ? 2 : 1);
  }
  expect(inside.unescape() == text, "it stands for the text");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const UnicodeString decoded = UnicodeString::fromUTF8(text);
  const std::string well_formed = utf8(decoded);
  expect(detail::replace_ill_formed(text) == well_formed, "decoding");
  expect(detail::is_utf8(text) == (well_formed == text), "well-formedness");
  expect(detail::char_count(text) == static_cast<std::size_t>(decoded.countChar32()), "length");
  const int count = size > 0 ? std::min<int>(data[0], decoded.length()) : 0;
  const std::string_view first = detail::first_chars(text, static_cast<std::size_t>(count));
  expect(detail::replace_ill_formed(std::string(first)) ==
             utf8(decoded.tempSubString(0, decoded.moveIndex32(0, count))),
         "the first characters");
  check_literal(UnicodeString::fromUTF8(detail::quoted(text)), decoded);
  const std::string lowered = utf8(UnicodeString(decoded).toLower(icu::Locale::getRoot()));
  expect(detail::lower(well_formed) == lowered, "lower case");
  return 0;
}
