// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <string_view>

namespace engines::http::detail {

/// The bytes as base64 (RFC 4648, section 4).
std::string base64(std::string_view bytes);

}  // namespace engines::http::detail
