// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string_view>

namespace engines::http::detail {

/// UTF-8 text without the white space (the White_Space property) at both ends.
std::string_view trim(std::string_view text) noexcept;

/// The text without its leading white space, the information separators U+001C to U+001F included.
std::string_view trim_start_and_separators(std::string_view text) noexcept;

}  // namespace engines::http::detail
