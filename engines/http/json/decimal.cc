#include "engines/http/json/decimal.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace engines::http::detail {
namespace {

// ---- Powers of ten ------------------------------------------------------------------------------

__extension__ using Wide = unsigned __int128;

constexpr int MIN_POWER = -292;  // of the shortest decimals of all finite doubles
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

// ---- Shortest decimals --------------------------------------------------------------------------
//
// After R. Giulietti, "The Schubfach way to render doubles" (2020). A double is c * 2^q; the reals
// that read back to it are an interval around it, and its shortest decimal is s * 10^k or
// s' * 10^(k+1), where 10^k is the largest power of ten not wider than the interval. One product
// with a 128-bit 10^-k gives the interval in units of 10^k / 4, rounded so that no comparison
// changes.

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

constexpr int FRACTION_BITS = 52;

constexpr int floor_log2_of_power(int power) { return (power * 1741647) >> 19; }

/// The shortest decimal of a positive, finite double, and of these the nearest.
Decimal shortest(double value) noexcept {
  constexpr std::uint64_t HIDDEN_BIT = std::uint64_t{1} << FRACTION_BITS;
  const auto bits = std::bit_cast<std::uint64_t>(value);
  const std::uint64_t fraction = bits & (HIDDEN_BIT - 1);
  const int biased = static_cast<int>(bits >> FRACTION_BITS);
  const std::uint64_t c = biased == 0 ? fraction : fraction | HIDDEN_BIT;
  const int q = std::max(biased, 1) - 1075;
  const bool closer_below = fraction == 0 && biased > 1;  // a power of two
  const std::uint64_t open_ends = c & 1;                  // a tie goes to the even neighbour

  const int k = (q * 1262611 - (closer_below ? 524031 : 0)) >> 22;  // floor(log10(2^q [* 3/4]))
  const int shift = q + floor_log2_of_power(-k) + 1;
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

/// The eight digits of a value, one a byte, the first in the lowest byte. All parts are split at
/// once, by products with rounded reciprocals.
std::uint64_t eight_digits(std::uint64_t value) noexcept {
  const std::uint64_t fours = value / 10000 | value % 10000 << 32;
  const std::uint64_t hundreds = (fours * 5243 >> 19) & 0x0000007f0000007f;
  const std::uint64_t pairs = hundreds | (fours - hundreds * 100) << 16;
  const std::uint64_t tens = (pairs * 103 >> 10) & 0x000f000f000f000f;
  return tens | (pairs - tens * 10) << 8;
}

/// Up to 17 digits, not 0, as characters in registers: nothing depends on how many there are, and
/// nothing that was written is read again.
class Characters {
 public:
  explicit Characters(std::uint64_t digits) noexcept {
    constexpr std::uint64_t SIXTEEN_DIGITS = EIGHT_DIGITS * EIGHT_DIGITS;
    const std::uint64_t top = digits / SIXTEEN_DIGITS;
    const std::uint64_t rest = digits % SIXTEEN_DIGITS;
    const std::uint64_t first = eight_digits(rest / EIGHT_DIGITS);
    const std::uint64_t second = eight_digits(rest % EIGHT_DIGITS);
    constexpr std::uint64_t LAST_DIGIT = std::uint64_t{1} << 56;
    has_top_ = top != 0;
    top_ = static_cast<char>('0' + top);
    const int leading = has_top_     ? 0
                        : first != 0 ? std::countr_zero(first) / 8
                                     : 8 + std::countr_zero(second | LAST_DIGIT) / 8;
    const int trailing =
        second != 0 ? std::countl_zero(second) / 8 : 8 + std::countl_zero(first) / 8;
    size_ = 16 + has_top_ - leading;
    count_ = size_ - trailing;
    constexpr std::uint64_t ZEROS = 0x3030303030303030;
    rest_ = (Wide{second | ZEROS} << 64 | (first | ZEROS)) >> (8 * leading);
  }

  /// How many digits there are, with the zeros at their end and without.
  int size() const noexcept { return size_; }
  int count() const noexcept { return count_; }

  /// Writes the digits from the one at `index` on. What comes after the last, up to 17 characters
  /// in all, is undefined.
  void write(char* to, int index = 0) const noexcept {
    if (index == 0) {
      *to = top_;
      to += has_top_;
    }
    const Wide characters = index == 0 ? rest_ : rest_ >> (8 * (index - has_top_));
    if constexpr (std::endian::native == std::endian::little) {
      std::memcpy(to, &characters, sizeof characters);
    } else {
      for (int i = 0; i < 16; ++i) to[i] = static_cast<char>(characters >> (8 * i));
    }
  }

 private:
  Wide rest_;  // the first in the lowest byte
  int size_;
  int count_;
  bool has_top_;
  char top_;  // the first of 17
};

}  // namespace

char* write_natural(std::uint64_t value, char* to) noexcept {
  const std::size_t count = count_digits(value);
  char* end = to + count;
  for (; value >= 100; value /= 100) {
    end -= 2;
    write_pair(static_cast<std::uint32_t>(value % 100), end);
  }
  if (value >= 10) {
    write_pair(static_cast<std::uint32_t>(value), end - 2);
  } else {
    end[-1] = static_cast<char>('0' + value);
  }
  return to + count;
}

char* write_decimal(double value, char* to) noexcept {
  const auto [digits, power] = shortest(value);
  const Characters characters(digits);
  const int count = characters.count();
  const int exponent = power + characters.size() - 1;

  if (exponent < -4 || exponent > 15) {
    characters.write(to + 1);
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
    copy("0.000000", to);
    characters.write(to + 1 - exponent);
    return to + 1 - exponent + count;
  }
  const int whole = exponent + 1;
  characters.write(to);
  if (count <= whole) return copy(".0", std::fill_n(to + count, whole - count, '0'));
  characters.write(to + whole + 1, whole);
  to[whole] = '.';
  return to + count + 1;
}

std::optional<double> nearest_double(std::uint64_t digits, std::int64_t power) noexcept {
  if (digits == 0 || power < MIN_POWER || power > MAX_POWER) return std::nullopt;
  const auto ten_to = static_cast<int>(power);
  const int zeros = std::countl_zero(digits);
  const std::uint64_t factor = digits << zeros;
  const Power& ten = POWERS[static_cast<std::size_t>(ten_to - MIN_POWER)];
  // Of the 192 bits of the product the first 128. The power is too large by less than one in its
  // last bit, so the true product is less than one away, in either direction.
  const Wide low = Wide{ten.low} * factor;
  const Wide product = Wide{ten.high} * factor + static_cast<std::uint64_t>(low >> 64);

  const int dropped = 74 + static_cast<int>(product >> 127);
  const Wide half = Wide{1} << (dropped - 1);
  const Wide below = product & (2 * half - 1);
  if (below == half) return std::nullopt;
  const auto mantissa = static_cast<std::uint64_t>(product >> dropped) + (below > half);
  // digits * 10^power = mantissa * 2^exponent.
  const int exponent = dropped - 63 - zeros + floor_log2_of_power(ten_to);
  if (exponent < -1074 || exponent > 970) return std::nullopt;
  return std::bit_cast<double>((static_cast<std::uint64_t>(exponent + 1074) << FRACTION_BITS) +
                               mantissa);
}

}  // namespace engines::http::detail
