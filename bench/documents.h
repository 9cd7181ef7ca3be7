// SPDX-License-Identifier: Apache-2.0
// The texts and values that are sent, read and written. The same in every run.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "engines/http/json.h"

namespace bench {

inline constexpr std::size_t LARGE_BYTES = 16 * 1024 * 1024 - 4096;  // within `max_body_bytes`

/// A chat request of about 1 KB: a few messages, options, a schema.
engines::http::Json chat_request();

/// A small reply, of about 1 KB.
std::string small_json();

/// A long conversation of about so many bytes: sentences with escapes and some characters outside
/// ASCII.
std::string chat_json(std::size_t bytes);

/// Vectors of 1,536 numbers as embedding services send them, about so many bytes and never more.
std::string embeddings_json(std::size_t bytes);

/// Numbers like those of an embedding: of single precision, between -1 and 1.
std::vector<float> numbers(std::size_t count);

}  // namespace bench
