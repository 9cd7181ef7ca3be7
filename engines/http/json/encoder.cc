#include "engines/http/json/encoder.h"

#include <bit>
#include <cmath>
#include <stdexcept>
#include <utility>

#include "engines/http/json/decimal.h"
#include "engines/http/text/scan.h"
#include "engines/http/text/text.h"

namespace engines::http::detail {
namespace {

constexpr auto NUMBERED_ESCAPES = []() {
  std::array<std::array<char, 6>, 0x20> escapes{};
  for (std::size_t c = 0; c < escapes.size(); ++c) {
    escapes[c] = {'\\', 'u', '0', '0', static_cast<char>('0' + c / 16), "0123456789abcdef"[c % 16]};
  }
  return escapes;
}();

/// What stands in a string for a character that `skip_plain` does not skip.
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

unsigned char byte(const char* at) noexcept { return static_cast<unsigned char>(*at); }

}  // namespace

const char* skip_plain(const char* begin, const char* end) noexcept {
  for (; end - begin >= std::ptrdiff_t{Block::SIZE}; begin += Block::SIZE) {
    if (const unsigned found = Block(begin).not_plain()) return begin + std::countr_zero(found);
  }
  while (begin != end && *begin != '"' && *begin != '\\' && byte(begin) >= 0x20) ++begin;
  return begin;
}

void JsonWriter::integer(std::int64_t value) {
  if (value >= 0) return natural(static_cast<std::uint64_t>(value));
  append("-");
  natural(~static_cast<std::uint64_t>(value) + 1);
}

void JsonWriter::natural(std::uint64_t value) {
  char* const to = room(MAX_DECIMAL);
  staged_ += static_cast<std::size_t>(write_natural(value, to) - to);
}

void JsonWriter::number(double value) {
  if (std::isnan(value)) return append("NaN");
  char* const begin = room(1 + MAX_DECIMAL);
  *begin = '-';
  char* const to = begin + std::signbit(value);
  value = std::fabs(value);
  const bool is_plain = value != 0 && !std::isinf(value);
  const char* const end = is_plain ? write_decimal(value, to) : to;
  staged_ += static_cast<std::size_t>(end - begin);
  if (!is_plain) append(value == 0 ? "0.0" : "Infinity");
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
