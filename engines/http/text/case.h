// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <string_view>

namespace engines::http::detail {

/// UTF-8 text in lower case: Unicode's full mapping, the same in every locale.
std::string lower(std::string_view text);

/// Whether two texts are the same in lower case.
bool equal_ignoring_case(std::string_view a, std::string_view b);

}  // namespace engines::http::detail
