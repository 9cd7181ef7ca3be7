// SPDX-License-Identifier: Apache-2.0
#include "engines/http/text/case.h"

#include <unicode/ucasemap.h>
#include <unicode/utf8.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <new>

#include "engines/http/text/ascii.h"

namespace engines::http::detail {

std::string lower(std::string_view text) {
  if (std::ranges::all_of(text, [](char c) { return U8_IS_SINGLE(c); })) {
    std::string lowered(text);
    std::ranges::transform(lowered, lowered.begin(), lower_ascii);
    return lowered;
  }
  UErrorCode error = U_ZERO_ERROR;
  const std::unique_ptr<UCaseMap, decltype(&ucasemap_close)> root(
      ucasemap_open("", U_FOLD_CASE_DEFAULT, &error), &ucasemap_close);
  if (!root) throw std::bad_alloc();  // ICU's functions would use it unchecked
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
    if (lower_ascii(a[i]) != lower_ascii(b[i])) return false;
  }
  return a.size() == b.size();
}

}  // namespace engines::http::detail
