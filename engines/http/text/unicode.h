// SPDX-License-Identifier: Apache-2.0
// The letter case and the white space of UTF-8 text, by Unicode's rules, the same in every locale.
#pragma once

#include <string>
#include <string_view>

namespace engines::http::detail {

/// The text in lower case (Unicode's full mapping).
std::string lower(std::string_view text);

/// Whether two texts are the same in lower case.
bool equal_ignoring_case(std::string_view a, std::string_view b);

/// The text without the white space (the White_Space property) at both ends.
std::string_view trim(std::string_view text) noexcept;

/// The text without leading white space and information separators (U+001C to U+001F).
std::string_view skip_space_and_separators(std::string_view text) noexcept;

}  // namespace engines::http::detail
