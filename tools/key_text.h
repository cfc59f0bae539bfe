// The keys of map_str: hashed and compared eight characters a step.
#pragma once

#include <cstddef>  // size_t
#include <cstdint>  // uint64_t
#include <cstring>  // memcpy

namespace VORLAN {
namespace TOOLS {

template <class WORD>
std::uint64_t load_text(const char* text) {
  static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
                "the first character is the lowest byte");
  WORD word;
  std::memcpy(&word, text, sizeof(word));
  return word;
}

// A text of less than eight characters, the last one in the highest byte, zeros in front. Reads
// nothing behind it.
inline std::uint64_t load_short_text(const char* text, std::size_t length) {
  if (length == 0) return 0;
  std::uint64_t word;
  if (length >= 4) {
    word = load_text<std::uint32_t>(text) | load_text<std::uint32_t>(text + length - 4)
                                                << (8 * (length - 4));
  } else {
    const std::size_t middle = length / 2, last = length - 1;
    word = load_text<std::uint8_t>(text) | load_text<std::uint8_t>(text + middle) << (8 * middle) |
           load_text<std::uint8_t>(text + last) << (8 * last);
  }
  return word << (64 - 8 * length);
}

constexpr std::uint64_t power_of_33(int exponent) {
  return exponent == 0 ? 1 : 33 * power_of_33(exponent - 1);
}

// h = h * 33 + c over eight characters, as signed values; zeros in front add nothing. First pairs
// of neighbours are joined, then pairs of pairs, so that three multiplications follow one another
// instead of eight.
inline std::uint64_t hash_eight(std::uint64_t word) {
  constexpr std::uint64_t k_sign_bits = 0x8080808080808080;
  constexpr std::uint64_t k_bytes = 0x00FF00FF00FF00FF, k_pairs = 0x0000FFFF0000FFFF;
  // Turning the sign bit adds 128 to each signed value: taken away again at the end.
  constexpr std::uint64_t k_added = 128 * ((power_of_33(8) - 1) / 32);
  word ^= k_sign_bits;
  word = (word & k_bytes) * 33 + (word >> 8 & k_bytes);
  word = (word & k_pairs) * power_of_33(2) + (word >> 16 & k_pairs);
  return (word & 0xFFFFFFFF) * power_of_33(4) + (word >> 32) - k_added;
}

// h = h * 33 + c over the text, from 0, each character as a signed value.
inline std::uint64_t hash_text(const char* text, std::size_t length) {
  if (length < 8) return hash_eight(load_short_text(text, length));
  const std::size_t head = length % 8;
  std::uint64_t hash =
      head == 0 ? 0 : hash_eight(load_text<std::uint64_t>(text) << (64 - 8 * head));
  for (std::size_t at = head; at < length; at += 8) {
    hash = hash * power_of_33(8) + hash_eight(load_text<std::uint64_t>(text + at));
  }
  return hash;
}

// Two texts of one length.
inline bool same_text(const char* a, const char* b, std::size_t length) {
  if (length < 8) return load_short_text(a, length) == load_short_text(b, length);
  const std::size_t last = length - 8;
  for (std::size_t at = 0; at < last; at += 8) {
    if (load_text<std::uint64_t>(a + at) != load_text<std::uint64_t>(b + at)) return false;
  }
  return load_text<std::uint64_t>(a + last) == load_text<std::uint64_t>(b + last);
}

}  // namespace TOOLS
}  // namespace VORLAN
