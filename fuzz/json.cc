// SPDX-License-Identifier: Apache-2.0
// JSON from a stranger, and values to send, which the same bytes are in the format CBOR: what is
// written reads back the same; nlohmann's parser and writer agree.
#include <nlohmann/json.hpp>

#include "engines/http/body.h"
#include "engines/http/json.h"
#include "fuzz/expect.h"

using engines::http::decode_json;
using engines::http::encode_json;
using engines::http::Json;
using fuzz::expect;

namespace {

constexpr std::size_t SURELY_SHALLOW = 1000;  // bytes: too few for values nested too deep

/// What nlohmann's parser refuses by design: the three words, escaped surrogates without their
/// other half, infinite doubles.
bool is_extension(std::string_view text) {
  return text.find_first_of("NIeE") != text.npos || text.find("\\u") != text.npos ||
         text.size() > 300;  // an integer so long is an infinite double
}

void check_value(const Json& value) {
  std::string written, expected;
  try {
    expected = value.dump();  // null for a number that is not finite
  } catch (const Json::type_error&) {
  }
  if (expected.find("\"subtype\"") != expected.npos) return;  // binary: an object with nlohmann
  try {
    written = encode_json(value);
  } catch (const std::invalid_argument&) {
    return expect(expected.empty() || expected.size() > SURELY_SHALLOW, "only ill-formed text");
  }
  expect(!expected.empty(), "ill-formed text is refused");
  const auto reread = decode_json(written);
  expect(reread && encode_json(*reread) == written, "what is written reads back the same");
  expect(reread->dump() == expected, "it holds the value");
  expect(written.find('\n') == written.npos, "it is on one line");
}

void check_text(std::string_view text) {
  const auto value = decode_json(text);
  if (value) check_value(*value);
  if (text.starts_with("\xEF\xBB\xBF")) return expect(!value, "a byte order mark is not JSON");
  if (text.find('\0') != text.npos) return;  // where nlohmann's parser stops
  const Json other = Json::parse(text, nullptr, false);
  if (other.is_discarded()) {
    expect(!value || is_extension(text), "only JSON is accepted");
  } else if (!value) {
    expect(text.size() > SURELY_SHALLOW, "all JSON is accepted but for its depth");
  } else if (const std::string written = encode_json(*value);
             written.find("-0.0") == written.npos) {  // nlohmann's parser reads -0 as an integer
    expect(encode_json(other) == written, "the value is that of the text");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  check_text({reinterpret_cast<const char*>(data), size});
  try {
    check_value(Json::from_cbor(data, data + size, false));
  } catch (const Json::exception&) {  // it is no CBOR
  }
  return 0;
}
