// SPDX-License-Identifier: Apache-2.0
#include "engines/http/json/encoder.h"

#include <fmt/compile.h>

#include <charconv>
#include <cmath>
#include <stdexcept>
#include <utility>

#include "engines/http/json/syntax.h"
#include "engines/http/text/ascii.h"
#include "engines/http/text/utf8.h"

namespace engines::http::detail {
namespace {

constexpr auto NUMBERED_ESCAPES = []() {
  std::array<std::array<char, 6>, 0x20> escapes{};
  for (std::size_t c = 0; c < escapes.size(); ++c) {
    escapes[c] = {'\\', 'u', '0', '0', HEX_DIGITS[c / 16], HEX_DIGITS[c % 16]};
  }
  return escapes;
}();

/// What stands in a string for a character that is not plain.
std::string_view escape_of(char c) noexcept {
  switch (c) {
    case '"':
      return "\\\"";
    case '\\':
      return "\\\\";
    case '\n':
      return "\\n";
    case '\r':
      return "\\r";
    case '\t':
      return "\\t";
    case '\b':
      return "\\b";
    case '\f':
      return "\\f";
    default:
      const auto& escape = NUMBERED_ESCAPES[static_cast<unsigned char>(c)];
      return {escape.data(), escape.size()};
  }
}

/// Whether fmt writes a finite number without an exponent and without a point.
bool is_written_as_integer(double value) noexcept {
  constexpr double FIRST_WITH_EXPONENT = 1e16;
  return std::fabs(value) < FIRST_WITH_EXPONENT &&
         value == static_cast<double>(static_cast<std::int64_t>(value));
}

}  // namespace

template <class Integer>
void JsonWriter::append_integer(Integer value) {
  char* const to = room(MAX_NUMBER);
  staged_ += static_cast<std::size_t>(std::to_chars(to, to + MAX_NUMBER, value).ptr - to);
}

void JsonWriter::integer(std::int64_t value) { append_integer(value); }

void JsonWriter::natural(std::uint64_t value) { append_integer(value); }

void JsonWriter::number(double value) {
  if (!std::isfinite(value)) {
    return append(std::isnan(value) ? "NaN" : value < 0 ? "-Infinity" : "Infinity");
  }
  char* const to = room(MAX_NUMBER);
  staged_ += static_cast<std::size_t>(fmt::format_to(to, FMT_COMPILE("{}"), value) - to);
  if (is_written_as_integer(value)) append(".0");
}

void JsonWriter::text(std::string_view value) {
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
    append(escape_of(*plain_end));
    at = plain_end + 1;
  }
  append("\"");
}

void JsonWriter::check_depth(int depth) {
  if (depth <= MAX_JSON_DEPTH) return;
  throw std::invalid_argument(
      "a value that is nested more than 1000 deep, or contains itself, cannot be encoded as JSON");
}

void JsonWriter::open(char bracket) {
  check_depth(++depth_);
  first_ = true;
  *room(1) = bracket;
  ++staged_;
}

std::string JsonWriter::take() {
  flush();
  return std::move(out_);
}

void JsonWriter::append_long(std::string_view piece) {
  flush();
  out_ += piece;
}

void JsonWriter::flush() {
  out_.append(stage_.data(), staged_);
  staged_ = 0;
}

}  // namespace engines::http::detail
