// SPDX-License-Identifier: Apache-2.0
// Bytes written as ASCII text, and read from it.
#pragma once

#include <string>
#include <string_view>

namespace engines::http::detail {

/// As base64 (RFC 4648, section 4).
std::string base64(std::string_view bytes);

/// Appends a byte as URLs encode it (RFC 3986, section 2.1).
void append_percent_encoded(std::string& out, unsigned char byte);

/// The text with every percent-encoded byte decoded; any other "%" stays.
std::string percent_decoded(std::string_view text);

}  // namespace engines::http::detail
