// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <string_view>

namespace engines::http::detail {

/// UTF-8 text as a quoted literal, for an error text: in single quotes, or in double quotes when it
/// holds a single quote and no double quote; backslashes, the enclosing quote and what is not
/// printable are escaped.
std::string quoted(std::string_view text);

}  // namespace engines::http::detail
