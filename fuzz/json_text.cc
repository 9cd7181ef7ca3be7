// JSON that a stranger sent: what is accepted reads back the same from what is written for it, and
// an independent parser finds the same value wherever both accept.
#include <bit>
#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "engines/http/body.h"
#include "engines/http/json.h"
#include "fuzz/expect.h"

namespace http = engines::http;
using http::Json;

namespace {

/// Equal in value, kind of number included; not-a-number is itself. The other parser takes -0 for
/// the integer 0, and keeps no more than one sign of zero.
bool same(const Json& a, const Json& b, bool exactly) {
  if (!exactly && a.is_number() && a == 0 && b == 0) return true;
  if (a.type() != b.type() || a.size() != b.size()) return false;
  if (a.is_number_float()) {
    const auto x = a.get<double>();
    const auto y = b.get<double>();
    return (x != x && y != y) || std::bit_cast<std::uint64_t>(x) == std::bit_cast<std::uint64_t>(y);
  }
  if (!a.is_structured()) return a == b;
  for (auto x = a.begin(), y = b.begin(); x != a.end(); ++x, ++y) {
    if (a.is_object() && x.key() != y.key()) return false;
    if (!same(*x, *y, exactly)) return false;
  }
  return true;
}

/// What the other parser does not know, or knows otherwise, by design: the three words, escaped
/// surrogates without their other half, infinite doubles; and for it there is no depth.
bool is_ours_alone(std::string_view text) {
  return text.find_first_of("NI") != text.npos || text.find("\\u") != text.npos ||
         text.find_first_of("eE") != text.npos || text.size() > 300;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const auto value = http::decode_json(text);
  if (value) {
    const std::string written = http::encode_json(*value);
    const auto reread = http::decode_json(written);
    fuzz::expect(reread && same(*value, *reread, true), "what is written reads back the same");
    fuzz::expect(http::encode_json(*reread) == written, "and is written the same again");
    fuzz::expect(written.find('\n') == written.npos, "on one line");
  }
  if (text.starts_with("\xEF\xBB\xBF")) {
    fuzz::expect(!value, "a byte order mark is not JSON");
    return 0;
  }
  if (text.find('\0') != text.npos) return 0;  // where the other parser stops
  const Json other = Json::parse(text, nullptr, false);
  if (other.is_discarded()) {
    fuzz::expect(!value || is_ours_alone(text), "only JSON is accepted");
  } else {
    fuzz::expect(value ? same(*value, other, false) : size > 1000, "and all of it, as it is");
  }
  return 0;
}
