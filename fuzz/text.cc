// SPDX-License-Identifier: Apache-2.0
// Text from a stranger, as the library understands it, beside ICU's own strings; and the names of
// types.
#include <unicode/locid.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <typeinfo>

#include "engines/http/text/case.h"
#include "engines/http/text/literal.h"
#include "engines/http/text/type_name.h"
#include "engines/http/text/utf8.h"
#include "engines/http/text/white_space.h"
#include "fuzz/expect.h"

namespace detail = engines::http::detail;
using fuzz::expect;
using icu::UnicodeString;

namespace {

std::string utf8(const UnicodeString& text) {
  std::string bytes;
  return text.toUTF8String(bytes);
}

/// What a quoted literal stands for, read by the rules of its escapes alone.
UnicodeString unquoted(const UnicodeString& literal) {
  const char16_t quote = literal[0];
  expect(literal.length() >= 2 && (quote == '\'' || quote == '"'), "a literal begins with a quote");
  expect(literal[literal.length() - 1] == quote, "and ends with the same");
  UnicodeString text;
  for (std::int32_t i = 1; i < literal.length() - 1; i = literal.moveIndex32(i, 1)) {
    const UChar32 c = literal.char32At(i);
    expect(c == ' ' || (u_isgraph(c) && !u_isUWhiteSpace(c)), "all of it can be printed");
    expect(c != quote, "no quote ends it early");
    if (c != '\\') text.append(c);
    if (c != '\\') continue;
    const char16_t kind = literal[++i];
    const int digits = kind == 'x' ? 2 : kind == 'u' ? 4 : kind == 'U' ? 8 : 0;
    UChar32 code = kind == 't' ? '\t' : kind == 'n' ? '\n' : kind == 'r' ? '\r' : kind;
    if (digits > 0) code = std::stoi(utf8(literal.tempSubString(i + 1, digits)), nullptr, 16);
    if (digits == 0) expect(code < ' ' || kind == '\\' || kind == quote, "known escapes only");
    text.append(code);
    i += digits;
  }
  return text;
}

UnicodeString trimmed(const UnicodeString& text) {
  std::int32_t begin = 0;
  std::int32_t end = text.length();  // white space is in the basic plane
  while (begin < end && u_isUWhiteSpace(text[begin])) ++begin;
  while (begin < end && u_isUWhiteSpace(text[end - 1])) --end;
  return text.tempSubStringBetween(begin, end);
}

void check_text(const std::string& text, std::size_t count) {
  const UnicodeString decoded = UnicodeString::fromUTF8(text);
  const std::string well_formed = utf8(decoded);
  expect(detail::decode_utf8(text) == well_formed, "decoding");
  expect(detail::is_utf8(text) == (well_formed == text), "well-formedness");
  expect(detail::length(text) == static_cast<std::size_t>(decoded.countChar32()), "length");
  const std::int32_t end =
      decoded.moveIndex32(0, static_cast<std::int32_t>(std::min(count, text.size())));
  expect(detail::decode_utf8(std::string(detail::first_chars(text, count))) ==
             utf8(decoded.tempSubString(0, end)),
         "the first characters");
  expect(unquoted(UnicodeString::fromUTF8(detail::quoted(text))) == decoded, "quoted literal");

  const std::string lower = utf8(UnicodeString(decoded).toLower(icu::Locale::getRoot()));
  expect(detail::lower(well_formed) == lower, "lower case");
  expect(detail::equal_ignoring_case(well_formed, lower) ==
             (utf8(UnicodeString::fromUTF8(lower).toLower(icu::Locale::getRoot())) == lower),
         "equality but for case");
  expect(detail::trim(well_formed) == utf8(trimmed(decoded)), "trimming");
}

/// A type with any mangled name.
struct Type : std::type_info {
  explicit Type(const char* name) : std::type_info(name) {}
};

/// Names of namespaces and a type, taken from the text, as a compiler mangles them (Itanium C++
/// ABI, section 5.1.4), some of them templates.
void check_type_name(std::string_view text) {
  detail::type_name(Type(std::string(text).c_str()));
  std::string mangled = "N";
  std::string last;
  while (!text.empty() && mangled.size() < 400) {
    last = "n";
    const std::size_t size = std::min(text.size(), std::size_t{1} + (text[0] & 4 ? 7 : 3));
    for (const char c : text.substr(0, size)) last += static_cast<char>('a' + (c & 15));
    mangled += std::to_string(last.size()) + last;
    if (text[0] & 64) mangled += "IiN1x1yIcEEFvvEE";
    text.remove_prefix(size);
  }
  if (!last.empty()) {
    expect(detail::type_name(Type((mangled + "E").c_str())) == last, "a type's plain name");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  check_text(text, size > 0 ? data[0] : 0);
  check_type_name(text);
  return 0;
}
