// SPDX-License-Identifier: Apache-2.0
#include "engines/http/text/white_space.h"

#include <unicode/uchar.h>
#include <unicode/utf8.h>

#include <cstddef>

#include "engines/http/text/utf8.h"

namespace engines::http::detail {
namespace {

/// The character that ends at `end`, which moves before it; negative when it is ill formed.
UChar32 previous_char(std::string_view text, std::size_t& end) noexcept {
  const std::size_t old_end = end--;
  while (end > 0 && old_end - end < U8_MAX_LENGTH && U8_IS_TRAIL(text[end])) --end;
  std::size_t position = end;
  const UChar32 c = next_char(text.substr(0, old_end), position);
  return position == old_end ? c : U_SENTINEL;
}

template <class Predicate>
std::string_view trim_start(std::string_view text, Predicate is_space) noexcept {
  std::size_t start = 0;
  for (std::size_t position = 0; start < text.size(); start = position) {
    const UChar32 c = next_char(text, position);
    if (c < 0 || !is_space(c)) break;
  }
  return text.substr(start);
}

}  // namespace

std::string_view trim(std::string_view text) noexcept {
  text = trim_start(text, [](UChar32 c) { return u_isUWhiteSpace(c) != 0; });
  std::size_t end = text.size();
  for (std::size_t position = end; end > 0; end = position) {
    const UChar32 c = previous_char(text, position);
    if (c < 0 || u_isUWhiteSpace(c) == 0) break;
  }
  return text.substr(0, end);
}

std::string_view trim_start_and_separators(std::string_view text) noexcept {
  return trim_start(text, [](UChar32 c) { return u_isspace(c) != 0; });
}

}  // namespace engines::http::detail
