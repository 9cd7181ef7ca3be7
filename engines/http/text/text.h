// Text as the library understands it: UTF-8 in std::string, counted in code points. Text that is
// not well formed is ordinary input: each maximal ill-formed subsequence counts as one character
// and reads as U+FFFD (The Unicode Standard, section 3.9, "U+FFFD Substitution of Maximal
// Subparts").
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace engines::http::detail {

bool is_utf8(std::string_view text) noexcept;

/// The text with every ill-formed subsequence replaced; the very same text when there is none.
std::string decode_utf8(std::string text);

/// Appends the UTF-8 form of a code point; a surrogate or a value beyond U+10FFFF as U+FFFD.
void append_utf8(std::string& out, char32_t code_point);

/// How many characters the text has.
std::size_t length(std::string_view text) noexcept;

/// The first `count` characters of the text. Looks no further than they reach.
std::string_view first_chars(std::string_view text, std::size_t count) noexcept;

/// The text in lower case: Unicode's full mapping, independent of any locale.
std::string lower(std::string_view text);

/// Whether two texts are the same in lower case.
bool equal_ignoring_case(std::string_view a, std::string_view b);

/// The text without the white space (the White_Space property) at both ends.
std::string_view trim(std::string_view text) noexcept;

/// The text without its leading white space, the information separators U+001C to U+001F included.
std::string_view trim_start_and_separators(std::string_view text) noexcept;

/// The text as a quoted literal: in single quotes, or in double quotes when it holds a single quote
/// and no double quote; backslashes, the enclosing quote and what is not printable are escaped.
std::string quoted(std::string_view text);

}  // namespace engines::http::detail
