// SPDX-License-Identifier: Apache-2.0
// Text as the library understands it: UTF-8 in std::string, counted in code points. Text that is
// not well formed is ordinary input: each maximal ill-formed subsequence counts as one character
// and reads as U+FFFD (The Unicode Standard, section 3.9, "U+FFFD Substitution of Maximal
// Subparts").
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace engines::http::detail {

inline constexpr char32_t REPLACEMENT = 0xFFFD;

bool is_ascii(std::string_view text) noexcept;
bool is_utf8(std::string_view text) noexcept;

/// The text with every ill-formed subsequence replaced; the very same text when there is none.
std::string replace_ill_formed(std::string text);

/// Appends the UTF-8 form of a code point; a surrogate or a value beyond U+10FFFF as U+FFFD.
void append_utf8(std::string& out, char32_t code_point);

/// The code point of the character at `position`, U+FFFD for an ill-formed one. Moves `position`
/// behind it.
char32_t next_char(std::string_view text, std::size_t& position) noexcept;

/// How many characters the text has.
std::size_t char_count(std::string_view text) noexcept;

/// The first `count` characters of the text. Looks no further than they reach.
std::string_view first_chars(std::string_view text, std::size_t count) noexcept;

}  // namespace engines::http::detail
