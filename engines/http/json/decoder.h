// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string_view>

namespace engines::http::detail {

/// The JSON value of a text that is known to be well-formed UTF-8, or none when the text is not
/// JSON. `decode_json` says what is JSON.
std::optional<nlohmann::ordered_json> decode_utf8_json(std::string_view text);

}  // namespace engines::http::detail
