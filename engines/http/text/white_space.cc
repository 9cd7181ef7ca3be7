// SPDX-License-Identifier: Apache-2.0
#include "engines/http/text/white_space.h"

#include <unicode/uchar.h>

#include <cstddef>

#include "engines/http/text/utf8.h"

namespace engines::http::detail {
namespace {

std::string_view trim_start(std::string_view text, UBool (*is_space)(UChar32)) noexcept {
  std::size_t start = 0;
  for (std::size_t position = 0; start < text.size(); start = position) {
    if (!is_space(static_cast<UChar32>(next_char(text, position)))) break;
  }
  return text.substr(start);
}

}  // namespace

std::string_view trim(std::string_view text) noexcept {
  text = trim_start(text, u_isUWhiteSpace);
  std::size_t end = 0;
  for (std::size_t position = 0; position < text.size();) {
    if (!u_isUWhiteSpace(static_cast<UChar32>(next_char(text, position)))) end = position;
  }
  return text.substr(0, end);
}

std::string_view trim_start_and_separators(std::string_view text) noexcept {
  return trim_start(text, u_isspace);
}

}  // namespace engines::http::detail
