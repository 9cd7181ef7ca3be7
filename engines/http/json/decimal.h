// Numbers as decimal text, and back. Written by hand because embeddings are long rows of numbers:
// docs/performance.md compares with std::to_chars.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

namespace engines::http::detail {

/// Room for any number, and for what may be written behind it in passing: the longest is 23
/// characters, 2.2250738585072014e-308.
inline constexpr std::size_t MAX_DECIMAL = 40;

/// Writes the digits of `value` at `to`, where there is room for `MAX_DECIMAL` characters, and
/// returns the position behind them.
char* write_natural(std::uint64_t value, char* to) noexcept;

/// Writes a positive, finite double in the shortest form that reads back to the same value: without
/// an exponent from 1e-4 to below 1e16, and then with a digit after the point, else with a sign and
/// two digits at least in the exponent. `to` and the result are as for `write_natural`.
char* write_decimal(double value, char* to) noexcept;

/// The double nearest to digits * 10^power; none where that is no normal double, or where these 128
/// bits cannot tell which of two is the nearest.
std::optional<double> nearest_double(std::uint64_t digits, std::int64_t power) noexcept;

}  // namespace engines::http::detail
