// SPDX-License-Identifier: Apache-2.0
#include "engines/http/text/literal.h"

#include <fmt/format.h>
#include <unicode/uchar.h>

#include <cstddef>
#include <cstdint>

#include "engines/http/text/utf8.h"

namespace engines::http::detail {
namespace {

bool is_printable(char32_t c) noexcept {
  constexpr auto OTHERS_AND_SEPARATORS = U_GC_C_MASK | U_GC_Z_MASK;
  return c == ' ' || (U_GET_GC_MASK(static_cast<UChar32>(c)) & OTHERS_AND_SEPARATORS) == 0;
}

std::string numbered_escape(std::uint32_t c) {
  if (c <= 0xFF) return fmt::format("\\x{:02x}", c);
  return c <= 0xFFFF ? fmt::format("\\u{:04x}", c) : fmt::format("\\U{:08x}", c);
}

}  // namespace

std::string quoted(std::string_view text) {
  constexpr std::u32string_view ESCAPED = U"\t\n\r";
  constexpr std::string_view LETTERS = "tnr";
  const bool has_single = text.find('\'') != std::string_view::npos;
  const bool has_double = text.find('"') != std::string_view::npos;
  const char quote = has_single && !has_double ? '"' : '\'';
  std::string literal(1, quote);
  for (std::size_t position = 0; position < text.size();) {
    const char32_t c = next_char(text, position);
    if (c == U'\\' || c == static_cast<unsigned char>(quote)) {
      literal += {'\\', static_cast<char>(c)};
    } else if (const auto i = ESCAPED.find(c); i != std::u32string_view::npos) {
      literal += {'\\', LETTERS[i]};
    } else if (is_printable(c)) {
      append_utf8(literal, c);
    } else {
      literal += numbered_escape(c);
    }
  }
  return literal += quote;
}

}  // namespace engines::http::detail
