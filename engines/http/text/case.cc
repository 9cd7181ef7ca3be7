// SPDX-License-Identifier: Apache-2.0
#include "engines/http/text/case.h"

#include <unicode/bytestream.h>
#include <unicode/casemap.h>
#include <unicode/utf8.h>

#include <algorithm>
#include <new>

#include "engines/http/text/ascii.h"

namespace engines::http::detail {

namespace {

bool is_ascii(std::string_view text) noexcept {
  return std::ranges::all_of(text, [](char c) { return U8_IS_SINGLE(c); });
}

}  // namespace

std::string lower(std::string_view text) {
  if (is_ascii(text)) {
    std::string lowered(text);
    std::ranges::transform(lowered, lowered.begin(), lower_ascii);
    return lowered;
  }
  std::string lowered;
  icu::StringByteSink<std::string> sink(&lowered);
  UErrorCode error = U_ZERO_ERROR;
  icu::CaseMap::utf8ToLower("", 0, text, sink, nullptr, error);
  if (U_FAILURE(error)) throw std::bad_alloc();
  return lowered;
}

bool equal_ignoring_case(std::string_view a, std::string_view b) {
  if (std::ranges::equal(a, b, {}, lower_ascii, lower_ascii)) return true;
  // Outside ASCII different bytes can be equal: the Kelvin sign is a "k".
  return !(is_ascii(a) && is_ascii(b)) && lower(a) == lower(b);
}

}  // namespace engines::http::detail
