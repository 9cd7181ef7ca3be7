// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "engines/http/export.h"

namespace engines::http::detail {

/// A text in a braced list. Unlike a string it is not made from a pair of iterators, so that
/// `{{"a", "b"}}` is never one text.
struct ENGINES_HTTP_EXPORT GivenText {
  template <class Given>
  requires(std::is_convertible_v<Given, std::string> ||
           std::is_convertible_v<Given, std::string_view>) GivenText(Given&& given)
      : text(std::forward<Given>(given)) {}

  std::string text;
};

/// A name and its value in a braced list.
using GivenField = std::pair<GivenText, GivenText>;

}  // namespace engines::http::detail
