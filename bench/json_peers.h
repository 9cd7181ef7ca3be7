// JSON read and written by others.
#pragma once

#include <string>

#include "engines/http/json.h"

namespace bench {

void parse_nlohmann(const std::string& text);
void parse_rapidjson(const std::string& text);
void parse_simdjson(const std::string& text);

/// simdjson's document, converted into the value that `decode_json` returns.
engines::http::Json convert_simdjson(const std::string& text);

}  // namespace bench
