// A quote's fields as the feed records hold them; for the encoders.
#pragma once

#include <algorithm>  // std::min
#include <cstddef>    // std::size_t
#include <cstring>    // memcpy, strnlen

namespace kav_feed {

// At most N - 1 characters and a NUL; what follows stays. A source without a NUL ends with its
// field.
template <std::size_t N, std::size_t M>
void put_text(char (&field)[N], const char (&text)[M]) {
  const std::size_t length = std::min(::strnlen(text, M), N - 1);
  std::memcpy(field, text, length);
  field[length] = '\0';
}

}  // namespace kav_feed
