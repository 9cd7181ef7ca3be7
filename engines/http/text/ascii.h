// SPDX-License-Identifier: Apache-2.0
// The digits and letters of ASCII, the same in every locale.
#pragma once

#include <string>
#include <string_view>

namespace engines::http::detail {

inline constexpr std::string_view HEX_DIGITS = "0123456789abcdef";

constexpr bool is_digit(char c) noexcept { return c >= '0' && c <= '9'; }

constexpr char lower_ascii(char c) noexcept {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

/// The value of a hexadecimal digit, -1 for any other character.
constexpr int hex_value(char c) noexcept {
  if (is_digit(c)) return c - '0';
  const char letter = lower_ascii(c);
  return letter >= 'a' && letter <= 'f' ? letter - 'a' + 10 : -1;
}

/// Appends a byte as URLs encode it (RFC 3986, section 2.1).
inline void append_percent_encoded(std::string& out, unsigned char byte) {
  constexpr std::string_view DIGITS = "0123456789ABCDEF";
  out += {'%', DIGITS[byte >> 4], DIGITS[byte & 0xF]};
}

}  // namespace engines::http::detail
