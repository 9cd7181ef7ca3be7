#include "engines/http/json.h"

#include <locale>
#include <ostream>
#include <sstream>
#include <utility>

#include "engines/http/json/decoder.h"
#include "engines/http/text/utf8.h"

namespace engines::http {

std::optional<Json> decode_json(std::string_view text) {
  if (!detail::is_utf8(text)) return std::nullopt;
  return detail::decode_utf8_json(text);
}

std::string encode_json(const Body& body) {
  detail::JsonWriter out;
  detail::write_body(out, body);
  return out.take();
}

std::optional<std::string> encode_body(const Body& body) {
  std::string text = encode_json(body);
  if (text == "null") return std::nullopt;
  return text;
}

namespace detail {

void write_json(JsonWriter& out, const Json& value) { write_tree(out, value); }

void write_body(JsonWriter& out, const Body& body) {
  if (body.write_ == nullptr) return out.null();
  body.write_(out, body.value_);
}

std::string printed(void (*print)(std::ostream&, const void*), const void* value) {
  std::ostringstream stream;
  stream.imbue(std::locale::classic());
  print(stream, value);
  return std::move(stream).str();
}

}  // namespace detail
}  // namespace engines::http
