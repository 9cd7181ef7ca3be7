// Numbers as decimal text. Written by hand because embeddings are long rows of numbers, for which
// std::to_chars takes 1.4 to 1.7 times as long (measured with GCC 12).
#pragma once

#include <cstddef>
#include <cstdint>

namespace engines::http::detail {

/// Room for any number: the longest is 23 characters, 2.2250738585072014e-308.
inline constexpr std::size_t MAX_DECIMAL = 32;

/// Writes the digits of `value` at `to`, where there is room for `MAX_DECIMAL` characters, and
/// returns the position behind them.
char* write_natural(std::uint64_t value, char* to) noexcept;

/// Writes a positive, finite double in the shortest form that reads back to the same value: without
/// an exponent from 1e-4 to below 1e16, and then with a digit after the point, else with a sign and
/// two digits at least in the exponent. `to` and the result are as for `write_natural`.
char* write_decimal(double value, char* to) noexcept;

}  // namespace engines::http::detail
