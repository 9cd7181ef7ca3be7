#include "engines/http/text/text.h"

#include <unicode/ucasemap.h>
#include <unicode/uchar.h>
#include <unicode/utf8.h>

#include <algorithm>
#include <bit>
#include <cstdint>
#include <memory>
#include <new>

#include "engines/http/text/scan.h"

namespace engines::http::detail {
namespace {

constexpr char32_t REPLACEMENT = 0xFFFD;

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wconversion"  // ICU's macro narrows

/// The character at `position`, which moves behind it; negative when it is ill formed.
UChar32 next(std::string_view text, std::size_t& position) noexcept {
  UChar32 c = 0;
  U8_NEXT(text.data(), position, text.size(), c);
  return c;
}

#pragma GCC diagnostic pop

/// The character that ends at `end`, which moves before it; negative when it is ill formed.
UChar32 previous(std::string_view text, std::size_t& end) noexcept {
  const std::size_t old_end = end--;
  while (end > 0 && old_end - end < U8_MAX_LENGTH && U8_IS_TRAIL(text[end])) --end;
  std::size_t position = end;
  const UChar32 c = next(text.substr(0, old_end), position);
  return position == old_end ? c : U_SENTINEL;
}

/// Moves `position` over ASCII, several bytes at a time.
void skip_ascii(std::string_view text, std::size_t& position) noexcept {
  for (; text.size() - position >= Block::SIZE; position += Block::SIZE) {
    if (const unsigned found = Block(text.data() + position).not_ascii()) {
      position += static_cast<std::size_t>(std::countr_zero(found));
      return;
    }
  }
  while (position < text.size() && U8_IS_SINGLE(text[position])) ++position;
}

/// The position of the first ill-formed sequence, or the text's size.
std::size_t first_ill_formed(std::string_view text) noexcept {
  for (std::size_t position = 0;;) {
    skip_ascii(text, position);
    std::size_t start = position;
    do {  // to the end of a run of other characters
      if (start == text.size() || next(text, position) < 0) return start;
      start = position;
    } while (position < text.size() && !U8_IS_SINGLE(text[position]));
  }
}

bool is_ascii(std::string_view text) noexcept {
  std::size_t position = 0;
  skip_ascii(text, position);
  return position == text.size();
}

char ascii_lower(char c) noexcept {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool is_printable(UChar32 c) noexcept {
  constexpr std::uint32_t NOT_PRINTABLE = U_GC_CC_MASK | U_GC_CF_MASK | U_GC_CS_MASK |
                                          U_GC_CO_MASK | U_GC_CN_MASK | U_GC_ZL_MASK |
                                          U_GC_ZP_MASK | U_GC_ZS_MASK;
  return c == ' ' || (U_GET_GC_MASK(c) & NOT_PRINTABLE) == 0;
}

void append_hex(std::string& out, std::string_view prefix, UChar32 value, int digits) {
  out += prefix;
  for (int shift = 4 * (digits - 1); shift >= 0; shift -= 4) {
    out += "0123456789abcdef"[(value >> shift) & 0xF];
  }
}

template <class Predicate>
std::string_view trim_start(std::string_view text, Predicate is_space) noexcept {
  std::size_t start = 0;
  for (std::size_t position = 0; start < text.size(); start = position) {
    const UChar32 c = next(text, position);
    if (c < 0 || !is_space(c)) break;
  }
  return text.substr(start);
}

}  // namespace

bool is_utf8(std::string_view text) noexcept { return first_ill_formed(text) == text.size(); }

std::string decode_utf8(std::string text) {
  std::size_t position = first_ill_formed(text);
  if (position == text.size()) return text;
  const std::string_view bytes = text;
  std::string decoded(bytes.substr(0, position));
  while (position < bytes.size()) {
    const std::size_t start = position;
    if (next(bytes, position) < 0) {
      append_utf8(decoded, REPLACEMENT);
    } else {
      decoded += bytes.substr(start, position - start);
    }
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

std::size_t length(std::string_view text) noexcept {
  std::size_t count = 0;
  for (std::size_t position = 0; position < text.size(); ++count) next(text, position);
  return count;
}

std::string_view first_chars(std::string_view text, std::size_t count) noexcept {
  std::size_t position = 0;
  for (; count > 0 && position < text.size(); --count) next(text, position);
  return text.substr(0, position);
}

std::string lower(std::string_view text) {
  if (is_ascii(text)) {
    std::string lowered(text);
    std::ranges::transform(lowered, lowered.begin(), ascii_lower);
    return lowered;
  }
  UErrorCode error = U_ZERO_ERROR;
  const std::unique_ptr<UCaseMap, decltype(&ucasemap_close)> root(
      ucasemap_open("", U_FOLD_CASE_DEFAULT, &error), &ucasemap_close);
  if (!root) throw std::bad_alloc();  // ICU's functions do not look
  // Lower-casing at most triples a character's bytes.
  std::string lowered(3 * text.size(), '\0');
  const std::int32_t size =
      ucasemap_utf8ToLower(root.get(), lowered.data(), static_cast<std::int32_t>(lowered.size()),
                           text.data(), static_cast<std::int32_t>(text.size()), &error);
  if (error == U_MEMORY_ALLOCATION_ERROR) throw std::bad_alloc();
  lowered.resize(U_FAILURE(error) ? 0 : static_cast<std::size_t>(size));
  return lowered;
}

bool equal_ignoring_case(std::string_view a, std::string_view b) {
  const std::size_t size = std::min(a.size(), b.size());
  for (std::size_t i = 0; i < size; ++i) {
    if (!U8_IS_SINGLE(a[i]) || !U8_IS_SINGLE(b[i])) return lower(a) == lower(b);
    if (a[i] != b[i] && ascii_lower(a[i]) != ascii_lower(b[i])) return false;
  }
  return a.size() == b.size();
}

std::string_view trim(std::string_view text) noexcept {
  text = trim_start(text, [](UChar32 c) { return u_isUWhiteSpace(c) != 0; });
  std::size_t end = text.size();
  for (std::size_t position = end; end > 0; end = position) {
    const UChar32 c = previous(text, position);
    if (c < 0 || u_isUWhiteSpace(c) == 0) break;
  }
  return text.substr(0, end);
}

std::string_view trim_start_and_separators(std::string_view text) noexcept {
  return trim_start(text, [](UChar32 c) { return u_isspace(c) != 0; });
}

std::string quoted(std::string_view text) {
  const bool has_single = text.find('\'') != std::string_view::npos;
  const bool has_double = text.find('"') != std::string_view::npos;
  const char quote = has_single && !has_double ? '"' : '\'';
  std::string literal(1, quote);
  for (std::size_t position = 0; position < text.size();) {
    const UChar32 decoded = next(text, position);
    const UChar32 c = decoded < 0 ? static_cast<UChar32>(REPLACEMENT) : decoded;
    if (c == '\\' || c == quote) {
      literal += {'\\', static_cast<char>(c)};
    } else if (c == '\t') {
      literal += "\\t";
    } else if (c == '\n') {
      literal += "\\n";
    } else if (c == '\r') {
      literal += "\\r";
    } else if (is_printable(c)) {
      append_utf8(literal, static_cast<char32_t>(c));
    } else if (c <= 0xFF) {
      append_hex(literal, "\\x", c, 2);
    } else if (c <= 0xFFFF) {
      append_hex(literal, "\\u", c, 4);
    } else {
      append_hex(literal, "\\U", c, 8);
    }
  }
  return literal += quote;
}

}  // namespace engines::http::detail
