// SPDX-License-Identifier: Apache-2.0
#include "engines/http/json/encoder.h"

#include <fmt/compile.h>

#include <cmath>
#include <stdexcept>

#include "engines/http/json/syntax.h"
#include "engines/http/text/utf8.h"

namespace engines::http::detail {
namespace {

std::string_view digits_of(const fmt::format_int& number) { return {number.data(), number.size()}; }

}  // namespace

void JsonEncoder::integer(std::int64_t value) { append(digits_of(fmt::format_int(value))); }

void JsonEncoder::unsigned_integer(std::uint64_t value) {
  append(digits_of(fmt::format_int(value)));
}

void JsonEncoder::number(double value) {
  if (std::isnan(value)) return append("NaN");
  if (std::isinf(value)) return append(value < 0 ? "-Infinity" : "Infinity");
  char digits[32];  // the longest is -2.2250738585072014e-308
  append({digits, fmt::format_to(digits, FMT_COMPILE("{}"), value)});
  // fmt writes whole numbers below this without a point, and all larger ones with an exponent.
  constexpr double FIRST_WITH_EXPONENT = 1e16;
  if (std::fabs(value) < FIRST_WITH_EXPONENT && value == std::trunc(value)) append(".0");
}

void JsonEncoder::text(std::string_view value) {
  if (!is_utf8(value)) {
    throw std::invalid_argument("a text that is not valid UTF-8 cannot be encoded as JSON");
  }
  const char* at = value.data();
  const char* const end = at + value.size();
  append("\"");
  while (true) {
    const char* const plain_end = skip_plain(at, end);
    append({at, plain_end});
    if (plain_end == end) break;
    const char c = *plain_end;
    if (const auto i = ESCAPED.find(c); i != std::string_view::npos) {
      const char escape[] = {'\\', ESCAPE_LETTERS[i]};
      append({escape, sizeof escape});
    } else {
      append(fmt::format(FMT_COMPILE("\\u{:04x}"), static_cast<unsigned char>(c)));
    }
    at = plain_end + 1;
  }
  append("\"");
}

void JsonEncoder::open(char bracket) {
  check_depth(++depth_);
  first_ = true;
  append({&bracket, 1});
}

void JsonEncoder::name(std::string_view name) {
  item();
  text(name);
  append(": ");
}

void JsonEncoder::check_depth(int depth) {
  if (depth <= MAX_JSON_DEPTH) return;
  throw std::invalid_argument(
      fmt::format("a value that is nested more than {} deep, or contains itself, cannot be encoded "
                  "as JSON",
                  MAX_JSON_DEPTH));
}

}  // namespace engines::http::detail
