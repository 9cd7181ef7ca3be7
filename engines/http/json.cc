// SPDX-License-Identifier: Apache-2.0
#include "engines/http/json.h"

#include "engines/http/json/decoder.h"
#include "engines/http/text/utf8.h"

namespace engines::http {

std::optional<Json> decode_json(std::string_view text) {
  if (!detail::is_utf8(text)) return std::nullopt;
  return detail::decode_utf8_json(text);
}

void detail::write_json(JsonEncoder& out, const Json& value) { write_tree(out, value); }

}  // namespace engines::http
