// SPDX-License-Identifier: Apache-2.0
#include "engines/http/text/utf8.h"

#include <unicode/utf8.h>

#include <cstdint>
#include <cstring>

namespace engines::http::detail {
namespace {

/// The position of the first byte outside ASCII from `position` on, or the text's size.
std::size_t skip_ascii(std::string_view text, std::size_t position) noexcept {
  constexpr std::uint64_t NOT_ASCII = 0x8080808080808080;
  for (std::uint64_t eight; text.size() - position >= sizeof eight; position += sizeof eight) {
    std::memcpy(&eight, text.data() + position, sizeof eight);
    if ((eight & NOT_ASCII) != 0) break;
  }
  while (position < text.size() && U8_IS_SINGLE(text[position])) ++position;
  return position;
}

}  // namespace

bool is_ascii(std::string_view text) noexcept { return skip_ascii(text, 0) == text.size(); }

bool is_utf8(std::string_view text) noexcept {
  for (std::size_t position = 0;;) {
    position = skip_ascii(text, position);
    if (position == text.size()) return true;
    const std::size_t start = position;
    if (next_char(text, position) != REPLACEMENT) continue;
    // U+FFFD itself is well formed.
    if (text.substr(start, position - start) != "\ufffd") return false;
  }
}

std::string replace_ill_formed(std::string text) {
  if (is_utf8(text)) return text;
  std::string decoded;
  decoded.reserve(text.size());
  for (std::size_t position = 0; position < text.size();) {
    append_utf8(decoded, next_char(text, position));
  }
  return decoded;
}

void append_utf8(std::string& out, char32_t code_point) {
  if (code_point > 0x10FFFF || U_IS_SURROGATE(code_point)) code_point = REPLACEMENT;
  char bytes[U8_MAX_LENGTH];
  std::size_t size = 0;
  U8_APPEND_UNSAFE(bytes, size, code_point);
  out.append(bytes, size);
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wconversion"  // ICU's macro narrows

char32_t next_char(std::string_view text, std::size_t& position) noexcept {
  UChar32 c = 0;
  U8_NEXT_OR_FFFD(text.data(), position, text.size(), c);
  return static_cast<char32_t>(c);
}

#pragma GCC diagnostic pop

std::size_t char_count(std::string_view text) noexcept {
  std::size_t count = 0;
  for (std::size_t position = 0; position < text.size(); ++count) next_char(text, position);
  return count;
}

std::string_view first_chars(std::string_view text, std::size_t count) noexcept {
  std::size_t position = 0;
  for (; count > 0 && position < text.size(); --count) next_char(text, position);
  return text.substr(0, position);
}

}  // namespace engines::http::detail
