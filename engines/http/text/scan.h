// Looking through bytes many at a time.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

namespace engines::http::detail {

/// Whether the eight characters at `from` are digits; then `value` is the number that they write.
inline bool read_eight_digits(const char* from, std::uint64_t& value) noexcept {
  if constexpr (std::endian::native != std::endian::little) return false;
  std::uint64_t digits = 0;
  std::memcpy(&digits, from, sizeof digits);
  digits ^= 0x3030303030303030;
  if (((digits | (digits + 0x0606060606060606)) & 0xf0f0f0f0f0f0f0f0) != 0) return false;
  // Neighbours are joined: digits to pairs, pairs to fours, fours to all eight.
  digits = digits * 10 + (digits >> 8);
  constexpr std::uint64_t EVERY_SECOND_PAIR = 0x000000ff000000ff;
  constexpr std::uint64_t FIRST_AND_THIRD = 100 + (std::uint64_t{1'000'000} << 32);
  constexpr std::uint64_t SECOND_AND_FOURTH = 1 + (std::uint64_t{10'000} << 32);
  value = ((digits & EVERY_SECOND_PAIR) * FIRST_AND_THIRD +
           (digits >> 16 & EVERY_SECOND_PAIR) * SECOND_AND_FOURTH) >>
          32;
  return true;
}

#ifdef __SSE2__

/// A block of bytes. Each question is answered with a mask: bit i for byte i.
class Block {
 public:
  static constexpr std::size_t SIZE = 16;

  explicit Block(const char* from) noexcept
      : bytes_(_mm_loadu_si128(reinterpret_cast<const __m128i*>(from))) {}

  /// Which are 0x80 or above.
  unsigned not_ascii() const noexcept { return static_cast<unsigned>(_mm_movemask_epi8(bytes_)); }

  /// Which do not stand for themselves in a JSON string.
  unsigned not_plain() const noexcept {
    const __m128i control = _mm_cmpeq_epi8(_mm_max_epu8(bytes_, all(0x1f)), all(0x1f));
    const __m128i quote = _mm_cmpeq_epi8(bytes_, all('"'));
    const __m128i backslash = _mm_cmpeq_epi8(bytes_, all('\\'));
    return static_cast<unsigned>(
        _mm_movemask_epi8(_mm_or_si128(_mm_or_si128(control, quote), backslash)));
  }

 private:
  static __m128i all(char byte) noexcept { return _mm_set1_epi8(byte); }

  __m128i bytes_;
};

#else

class Block {
 public:
  static constexpr std::size_t SIZE = 16;

  explicit Block(const char* from) noexcept { std::memcpy(bytes_, from, SIZE); }

  unsigned not_ascii() const noexcept {
    return mask([](unsigned char byte) { return byte >= 0x80; });
  }
  unsigned not_plain() const noexcept {
    return mask([](unsigned char byte) { return byte < 0x20 || byte == '"' || byte == '\\'; });
  }

 private:
  template <class Is>
  unsigned mask(Is is) const noexcept {
    unsigned found = 0;
    for (std::size_t i = 0; i < SIZE; ++i) found |= static_cast<unsigned>(is(bytes_[i])) << i;
    return found;
  }

  unsigned char bytes_[SIZE];
};

#endif

}  // namespace engines::http::detail
