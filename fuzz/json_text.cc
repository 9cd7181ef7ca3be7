// SPDX-License-Identifier: Apache-2.0
// JSON from a stranger: what is accepted reads back the same from what is written for it, and
// nlohmann's parser finds the same value wherever both accept the text.
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "engines/http/body.h"
#include "engines/http/json.h"
#include "fuzz/expect.h"

using engines::http::decode_json;
using engines::http::encode_json;
using engines::http::Json;
using fuzz::expect;

/// What nlohmann's parser refuses by design: the three words, escaped surrogates without their
/// other half, infinite doubles.
static bool is_extension(std::string_view text) {
  return text.find_first_of("NIeE") != text.npos || text.find("\\u") != text.npos ||
         text.size() > 300;  // an integer so long is an infinite double
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const auto value = decode_json(text);
  const std::string written = value ? encode_json(*value) : "";
  if (value) {
    const auto reread = decode_json(written);
    expect(reread && encode_json(*reread) == written, "what is written reads back the same");
    expect(written.find('\n') == written.npos, "it is on one line");
  }
  if (text.starts_with("\xEF\xBB\xBF")) {
    expect(!value, "a byte order mark is not JSON");
    return 0;
  }
  if (text.find('\0') != text.npos) return 0;  // where nlohmann's parser stops
  const Json other = Json::parse(text, nullptr, false);
  if (other.is_discarded()) {
    expect(!value || is_extension(text), "only JSON is accepted");
  } else if (!value) {
    expect(size > 1000, "all JSON is accepted but for its depth");
  } else if (written.find("-0.0") == written.npos) {  // nlohmann's parser reads -0 as the integer 0
    expect(encode_json(other) == written, "the value is that of the text");
  }
  return 0;
}
