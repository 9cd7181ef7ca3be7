// SPDX-License-Identifier: Apache-2.0
// JSON as the library reads and writes it: RFC 8259, and the numbers NaN, Infinity and -Infinity.
// `Json`, `encode_json` and the JSON form of each C++ type are in body.h.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string_view>

#include "engines/http/body.h"
#include "engines/http/export.h"

namespace engines::http {

/// The JSON value of a text, or none when the text is not JSON.
///
/// The text is one value of any kind, with white space around it, in UTF-8 (section 8.1: without a
/// byte order mark; ill-formed UTF-8 is not JSON). Where RFC 8259 leaves a choice:
///
/// - NaN, Infinity and -Infinity are numbers.
/// - A member name that occurs twice keeps its first place and its last value.
/// - An integer is exact within 64 bits, signed when negative, else unsigned, and beyond them the
///   nearest double. -0 is the double -0.0, which keeps the sign. Other numbers are the nearest
///   double, which may be zero or an infinity.
/// - An escaped surrogate without its other half is U+FFFD.
/// - More than 1,000 nested arrays and objects are not JSON.
///
/// Memory and time are proportional to the size of the text; the time has an extra factor of log n
/// for an object of n members. The stack grows with the depth, to less than 0.5 MB.
ENGINES_HTTP_EXPORT std::optional<Json> decode_json(std::string_view text);

}  // namespace engines::http
