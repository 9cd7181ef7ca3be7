// SPDX-License-Identifier: Apache-2.0
#include "engines/http/text/unicode.h"

#include <unicode/bytestream.h>
#include <unicode/casemap.h>
#include <unicode/uchar.h>

#include <algorithm>
#include <cstddef>
#include <new>

#include "engines/http/text/utf8.h"

namespace engines::http::detail {
namespace {

char lower_ascii(char c) noexcept {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

std::string_view without_leading(std::string_view text, UBool (*is_space)(UChar32)) noexcept {
  std::size_t start = 0;
  for (std::size_t position = 0; start < text.size(); start = position) {
    if (!is_space(static_cast<UChar32>(next_char(text, position)))) break;
  }
  return text.substr(start);
}

}  // namespace

std::string lower(std::string_view text) {
  std::string lowered;
  if (is_ascii(text)) {
    lowered = text;
    std::ranges::transform(lowered, lowered.begin(), lower_ascii);
    return lowered;
  }
  icu::StringByteSink<std::string> sink(&lowered);
  UErrorCode error = U_ZERO_ERROR;
  icu::CaseMap::utf8ToLower("", 0, text, sink, nullptr, error);
  if (U_FAILURE(error)) throw std::bad_alloc();  // nothing else can fail
  return lowered;
}

bool equal_ignoring_case(std::string_view a, std::string_view b) {
  if (std::ranges::equal(a, b, {}, lower_ascii, lower_ascii)) return true;
  // Outside ASCII different bytes can be equal: the Kelvin sign is a "k".
  return !(is_ascii(a) && is_ascii(b)) && lower(a) == lower(b);
}

std::string_view trim(std::string_view text) noexcept {
  text = without_leading(text, u_isUWhiteSpace);
  std::size_t end = 0;
  for (std::size_t position = 0; position < text.size();) {
    if (!u_isUWhiteSpace(static_cast<UChar32>(next_char(text, position)))) end = position;
  }
  return text.substr(0, end);
}

std::string_view skip_space_and_separators(std::string_view text) noexcept {
  return without_leading(text, u_isspace);
}

}  // namespace engines::http::detail
