// SPDX-License-Identifier: Apache-2.0
// What the decoder and the encoder share.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace engines::http::detail {

/// How deeply arrays and objects may be nested. It bounds the stack of a recursive walk through a
/// value, and ends the walk through a value that contains itself.
inline constexpr int MAX_JSON_DEPTH = 1000;

/// The characters with an escape of one letter, and those letters in the same order. The slash is
/// only read: as it stands for itself, the encoder does not escape it.
inline constexpr std::string_view ESCAPED = "\"\\\n\r\t\b\f/";
inline constexpr std::string_view ESCAPE_LETTERS = "\"\\nrtbf/";

/// Whether a character stands for itself in a JSON string.
constexpr bool is_plain(char c) noexcept {
  return c != '"' && c != '\\' && static_cast<unsigned char>(c) >= 0x20;
}

/// Whether each of eight characters stands for itself in a JSON string.
inline bool are_plain(std::uint64_t eight) noexcept {
  constexpr std::uint64_t EACH = 0x0101010101010101;
  constexpr std::uint64_t HIGH_BITS = 0x80 * EACH;
  // `(x - n * EACH) & ~x` has a high bit if and only if some byte of x is below n (up to 0x80). It
  // need not be the bit of that byte: a borrow may set the one of the byte above.
  const std::uint64_t quote = eight ^ '"' * EACH;
  const std::uint64_t backslash = eight ^ '\\' * EACH;
  const std::uint64_t found = ((eight - 0x20 * EACH) & ~eight) | ((quote - EACH) & ~quote) |
                              ((backslash - EACH) & ~backslash);
  return (found & HIGH_BITS) == 0;
}

/// The first character from `begin` on that does not stand for itself in a JSON string, or `end`.
inline const char* skip_plain(const char* begin, const char* end) noexcept {
  for (std::uint64_t eight; end - begin >= std::ptrdiff_t{sizeof eight}; begin += sizeof eight) {
    std::memcpy(&eight, begin, sizeof eight);
    if (!are_plain(eight)) break;
  }
  while (begin != end && is_plain(*begin)) ++begin;
  return begin;
}

}  // namespace engines::http::detail
