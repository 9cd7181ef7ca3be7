#include "engines/http/detail/json_writer.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace engines::http::detail {
namespace {

constexpr std::uint64_t ONES = 0x0101010101010101;
constexpr std::uint64_t HIGH_BITS = 0x80 * ONES;
constexpr std::ptrdiff_t WORD = sizeof(std::uint64_t);

std::uint64_t load(const char* from) noexcept {
  std::uint64_t word = 0;
  std::memcpy(&word, from, sizeof word);
  return word;
}

// ---- Shortest decimals --------------------------------------------------------------------------
//
// After R. Giulietti, "The Schubfach way to render doubles" (2020). A double is c * 2^q; the reals
// that read back to it are an interval around it, and its shortest decimal is s * 10^k or
// s' * 10^(k+1), where 10^k is the largest power of ten not wider than the interval. One product
// with a 128-bit 10^-k gives the interval in units of 10^k / 4, rounded so that no comparison
// changes.

__extension__ using Wide = unsigned __int128;

constexpr int MIN_POWER = -292;  // of 10^-k, for all finite doubles
constexpr int MAX_POWER = 324;

struct Power {
  std::uint64_t high;
  std::uint64_t low;
};

/// A positive number, as 256 bits of which the first is set: enough beyond 128 bits for the errors
/// of three hundred steps to stay out of sight.
using Digits = std::array<std::uint64_t, 4>;  // the lowest first

constexpr void normalise(Digits& digits, std::uint64_t carry) {
  int shift = 0;
  if (carry != 0) {
    shift = 64 - std::countl_zero(carry);
    for (std::size_t i = 0; i < digits.size(); ++i) {
      const std::uint64_t above = i + 1 < digits.size() ? digits[i + 1] : carry;
      digits[i] = digits[i] >> shift | above << (64 - shift);
    }
    return;
  }
  shift = std::countl_zero(digits.back());
  if (shift == 0) return;
  for (std::size_t i = digits.size(); i-- > 0;) {
    const std::uint64_t below = i > 0 ? digits[i - 1] : 0;
    digits[i] = digits[i] << shift | below >> (64 - shift);
  }
}

constexpr Power rounded_up(const Digits& digits) {
  Power power{digits[3], digits[2]};
  if ((digits[1] != 0 || digits[0] != 0) && ++power.low == 0) ++power.high;
  return power;
}

/// The first 128 bits of the powers of ten, rounded up.
constexpr auto POWERS = [] {
  std::array<Power, MAX_POWER - MIN_POWER + 1> powers{};
  constexpr Digits ONE = {0, 0, 0, std::uint64_t{1} << 63};
  Digits digits = ONE;
  for (int power = 0; power <= MAX_POWER; ++power) {
    powers[static_cast<std::size_t>(power - MIN_POWER)] = rounded_up(digits);
    Wide carry = 0;
    for (std::uint64_t& digit : digits) {
      carry += Wide{digit} * 10;
      digit = static_cast<std::uint64_t>(carry);
      carry >>= 64;
    }
    normalise(digits, static_cast<std::uint64_t>(carry));
  }
  digits = ONE;
  for (int power = -1; power >= MIN_POWER; --power) {
    Wide rest = 0;
    for (std::size_t i = digits.size(); i-- > 0;) {
      rest = rest << 64 | digits[i];
      digits[i] = static_cast<std::uint64_t>(rest / 10);
      rest %= 10;
    }
    normalise(digits, 0);
    powers[static_cast<std::size_t>(power - MIN_POWER)] = rounded_up(digits);
  }
  return powers;
}();

/// The high part of a product, its last bit set when anything below is.
std::uint64_t high_product(const Power& power, std::uint64_t factor) noexcept {
  const Wide low = Wide{power.low} * factor;
  const Wide high = Wide{power.high} * factor + static_cast<std::uint64_t>(low >> 64);
  const bool inexact = static_cast<std::uint64_t>(high) > 1;
  return static_cast<std::uint64_t>(high >> 64) | static_cast<std::uint64_t>(inexact);
}

struct Decimal {
  std::uint64_t digits;  // may end in zeros
  int exponent;
};

/// The shortest decimal of a positive, finite double, and of these the nearest.
Decimal shortest(double value) noexcept {
  constexpr int FRACTION_BITS = 52;
  constexpr std::uint64_t HIDDEN_BIT = std::uint64_t{1} << FRACTION_BITS;
  const auto bits = std::bit_cast<std::uint64_t>(value);
  const std::uint64_t fraction = bits & (HIDDEN_BIT - 1);
  const int biased = static_cast<int>(bits >> FRACTION_BITS);
  const std::uint64_t c = biased == 0 ? fraction : fraction | HIDDEN_BIT;
  const int q = std::max(biased, 1) - 1075;
  const bool closer_below = fraction == 0 && biased > 1;  // a power of two
  const std::uint64_t open_ends = c & 1;                  // a tie goes to the even neighbour

  const int k = (q * 1262611 - (closer_below ? 524031 : 0)) >> 22;  // floor(log10(2^q [* 3/4]))
  const int shift = q + ((-k * 1741647) >> 19) + 1;                 // floor(log2(10^-k))
  const Power& power = POWERS[static_cast<std::size_t>(-k - MIN_POWER)];
  const std::uint64_t low = high_product(power, (4 * c - 2 + closer_below) << shift) + open_ends;
  const std::uint64_t middle = high_product(power, 4 * c << shift);
  const std::uint64_t high = high_product(power, (4 * c + 2) << shift) - open_ends;

  const std::uint64_t s = middle / 4;
  const std::uint64_t tens = s / 10;
  const bool tens_below = low <= 40 * tens;
  const bool tens_above = 40 * tens + 40 <= high;
  if (tens != 0 && tens_below != tens_above) return {tens + tens_above, k + 1};
  const bool below = low <= 4 * s;
  const bool above = 4 * s + 4 <= high;
  if (below != above) return {s + above, k};
  const bool up = middle > 4 * s + 2 || (middle == 4 * s + 2 && (s & 1) != 0);
  return {s + up, k};
}

// ---- Layout -------------------------------------------------------------------------------------

constexpr std::size_t MAX_NUMBER = 32;  // the longest are 24 characters: -2.2250738585072014e-308

constexpr auto PAIRS = [] {
  std::array<char, 200> pairs{};
  for (std::size_t i = 0; i < 100; ++i) {
    pairs[2 * i] = static_cast<char>('0' + i / 10);
    pairs[2 * i + 1] = static_cast<char>('0' + i % 10);
  }
  return pairs;
}();

char* copy(std::string_view from, char* to) noexcept { return to + from.copy(to, from.size()); }

void write_pair(std::uint32_t value, char* to) noexcept {
  std::memcpy(to, PAIRS.data() + std::size_t{2} * value, 2);
}

constexpr std::uint64_t EIGHT_DIGITS = 100'000'000;

/// Writes exactly eight digits.
void write_eight(std::uint32_t value, char* to) noexcept {
  const std::uint32_t high = value / 10000;
  const std::uint32_t low = value % 10000;
  write_pair(high / 100, to);
  write_pair(high % 100, to + 2);
  write_pair(low / 100, to + 4);
  write_pair(low % 100, to + 6);
}

constexpr auto POWERS_OF_TEN = [] {
  std::array<std::uint64_t, 20> powers{};
  std::uint64_t power = 1;
  for (std::uint64_t& slot : powers) {
    slot = power;
    power *= 10;
  }
  return powers;
}();

std::size_t count_digits(std::uint64_t value) noexcept {
  const auto estimate = static_cast<std::size_t>(std::bit_width(value | 1) * 1233 >> 12);
  return estimate + (value >= POWERS_OF_TEN[estimate] || value == 0 ? 1 : 0);
}

/// Writes the digits of the value where they stay: to copy them afterwards would wait for the
/// stores. `count` is how many there are.
void write_digits(std::uint64_t value, std::size_t count, char* to) noexcept {
  char* end = to + count;
  for (; value >= EIGHT_DIGITS; value /= EIGHT_DIGITS) {
    end -= 8;
    write_eight(static_cast<std::uint32_t>(value % EIGHT_DIGITS), end);
  }
  auto rest = static_cast<std::uint32_t>(value);
  for (; rest >= 100; rest /= 100) {
    end -= 2;
    write_pair(rest % 100, end);
  }
  if (rest >= 10) {
    write_pair(rest, end - 2);
  } else {
    end[-1] = static_cast<char>('0' + rest);
  }
}

char* write_natural(std::uint64_t value, char* to) noexcept {
  const std::size_t count = count_digits(value);
  write_digits(value, count, to);
  return to + count;
}

/// Writes a positive, finite value.
char* write_positive(double value, char* to) noexcept {
  auto [digits, power] = shortest(value);
  if (digits % EIGHT_DIGITS == 0) {
    digits /= EIGHT_DIGITS;
    power += 8;
  }
  for (; digits % 10 == 0; digits /= 10) ++power;
  const std::size_t count = count_digits(digits);
  const int exponent = power + static_cast<int>(count) - 1;

  if (exponent < -4 || exponent > 15) {
    write_digits(digits, count, to + 1);
    to[0] = to[1];
    to[1] = '.';
    to += count > 1 ? count + 1 : 1;
    to = copy(exponent < 0 ? "e-" : "e+", to);
    const auto size = static_cast<std::uint32_t>(std::abs(exponent));
    if (size >= 100) *to++ = static_cast<char>('0' + size / 100);
    write_pair(size % 100, to);
    return to + 2;
  }
  if (exponent < 0) {
    std::memcpy(to, "0.000000", 8);
    to += 1 - exponent;
    write_digits(digits, count, to);
    return to + count;
  }
  const auto whole = static_cast<std::size_t>(exponent + 1);
  if (count <= whole) {
    write_digits(digits, count, to);
    to = std::fill_n(to + count, whole - count, '0');
    return copy(".0", to);
  }
  write_digits(digits, count, to + 1);
  std::copy_n(to + 1, whole, to);
  to[whole] = '.';
  return to + count + 1;
}

// ---- Texts --------------------------------------------------------------------------------------

constexpr std::size_t MAX_ESCAPE = 6;

char* write_escape(char c, char* to) noexcept {
  switch (c) {
    case '"':
      return copy("\\\"", to);
    case '\\':
      return copy("\\\\", to);
    case '\n':
      return copy("\\n", to);
    case '\r':
      return copy("\\r", to);
    case '\t':
      return copy("\\t", to);
    case '\b':
      return copy("\\b", to);
    case '\f':
      return copy("\\f", to);
    default:
      to = copy(c < 0x10 ? "\\u000" : "\\u001", to);
      *to = "0123456789abcdef"[c & 0xF];
      return to + 1;
  }
}

unsigned char byte(const char* at) noexcept { return static_cast<unsigned char>(*at); }

/// How many bytes the character beyond ASCII takes that begins at `at`; 0 when it is ill formed
/// (The Unicode Standard, table 3-7).
std::ptrdiff_t well_formed(const char* at, const char* end) noexcept {
  const auto trails = [&](std::ptrdiff_t from, std::ptrdiff_t size) {
    for (; from < size; ++from) {
      if ((byte(at + from) & 0xC0) != 0x80) return std::ptrdiff_t{0};
    }
    return size;
  };
  const unsigned char lead = byte(at);
  const std::ptrdiff_t left = end - at;
  if (lead < 0xC2 || left < 2) return 0;
  if (lead < 0xE0) return trails(1, 2);
  const unsigned char second = byte(at + 1);
  if (lead < 0xF0) {
    const int least = lead == 0xE0 ? 0xA0 : 0x80;
    const int most = lead == 0xED ? 0x9F : 0xBF;
    return left >= 3 && second >= least && second <= most ? trails(2, 3) : 0;
  }
  const int least = lead == 0xF0 ? 0x90 : 0x80;
  const int most = lead == 0xF4 ? 0x8F : 0xBF;
  return lead <= 0xF4 && left >= 4 && second >= least && second <= most ? trails(2, 4) : 0;
}

}  // namespace

bool is_json_text(std::string_view text) noexcept {
  const char* at = text.data();
  const char* const end = at + text.size();
  while (true) {
    while (end - at >= 4 * WORD &&
           ((load(at) | load(at + WORD) | load(at + 2 * WORD) | load(at + 3 * WORD)) & HIGH_BITS) ==
               0) {
      at += 4 * WORD;
    }
    while (end - at >= WORD && (load(at) & HIGH_BITS) == 0) at += WORD;
    while (at != end && byte(at) < 0x80) ++at;
    if (at == end) return true;
    do {
      const std::ptrdiff_t size = well_formed(at, end);
      if (size == 0) return false;
      at += size;
    } while (at != end && byte(at) >= 0x80);
  }
}

const char* skip_plain(const char* begin, const char* end) noexcept {
  // A byte that is too low makes the subtraction borrow from its high bit. The first byte found is
  // exact; above it a borrow may find too much.
  for (; end - begin >= WORD; begin += WORD) {
    const std::uint64_t word = load(begin);
    const std::uint64_t quote = word ^ (ONES * '"');
    const std::uint64_t backslash = word ^ (ONES * '\\');
    const std::uint64_t found = (((word - ONES * 0x20) & ~word) | ((quote - ONES) & ~quote) |
                                 ((backslash - ONES) & ~backslash)) &
                                HIGH_BITS;
    if (found == 0) continue;
    if constexpr (std::endian::native != std::endian::little) break;
    return begin + std::countr_zero(found) / 8;
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
  char* const to = room(MAX_NUMBER);
  staged_ += static_cast<std::size_t>(write_natural(value, to) - to);
}

void JsonWriter::number(double value) {
  if (std::isnan(value)) return append("NaN");
  if (std::signbit(value)) append("-");
  value = std::fabs(value);
  if (value == 0) return append("0.0");
  if (std::isinf(value)) return append("Infinity");
  char* const to = room(MAX_NUMBER);
  staged_ += static_cast<std::size_t>(write_positive(value, to) - to);
}

void JsonWriter::text(std::string_view value) {
  if (!is_json_text(value)) {
    throw std::invalid_argument("a text that is not valid UTF-8 cannot be encoded as JSON");
  }
  const char* at = value.data();
  const char* const end = at + value.size();
  append("\"");
  while (true) {
    const char* const plain_end = skip_plain(at, end);
    append({at, plain_end});
    if (plain_end == end) break;
    char* const to = room(MAX_ESCAPE);
    staged_ += static_cast<std::size_t>(write_escape(*plain_end, to) - to);
    at = plain_end + 1;
  }
  append("\"");
}

void JsonWriter::open(char bracket) {
  if (++depth_ > MAX_JSON_DEPTH) {
    throw std::invalid_argument(
        "a value that is nested more than 1000 deep, or contains itself, cannot be encoded as "
        "JSON");
  }
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
