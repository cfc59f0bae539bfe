// Bytes of feed records for tests: random ones, and buffers whose every overread is an error.
#pragma once

#include <cstddef>  // size_t
#include <cstdint>  // std::uint64_t
#include <cstring>  // memcpy
#include <memory>   // std::unique_ptr
#include <random>   // std::mt19937_64
#include <vector>   // std::vector

#include "api/kav_quote_api.h"

namespace feed_test {

using bytes = std::vector<unsigned char>;

constexpr std::size_t k_quote_bytes = 345;
static_assert(sizeof(KAVMarketDepthQuoteData) == k_quote_bytes);

// Heap memory that ends exactly behind the content and starts `shift` bytes before it, so that the
// address sanitizer sees any access behind it and the content lies at any alignment.
class exact_buffer {
 public:
  explicit exact_buffer(const bytes& content, std::size_t shift = 0)
      : m_shift(shift), m_size(content.size()), m_memory(new char[shift + content.size()]) {
    if (m_size > 0) std::memcpy(m_memory.get() + m_shift, content.data(), m_size);
  }
  char* data() { return m_memory.get() + m_shift; }
  template <class RECORD>
  RECORD* as() {
    return reinterpret_cast<RECORD*>(data());
  }
  bytes content() const {
    const char* const start = m_memory.get() + m_shift;
    return bytes(start, start + m_size);
  }

 private:
  const std::size_t m_shift;
  const std::size_t m_size;
  const std::unique_ptr<char[]> m_memory;
};

// The same numbers in every run.
class dice {
 public:
  explicit dice(std::uint64_t seed) : m_engine(seed) {}
  std::size_t below(std::size_t limit) { return static_cast<std::size_t>(m_engine() % limit); }
  unsigned char byte() { return static_cast<unsigned char>(m_engine() & 0xff); }
  bytes random_bytes(std::size_t count) {
    bytes result(count);
    for (unsigned char& b : result) b = byte();
    return result;
  }

 private:
  std::mt19937_64 m_engine;
};

template <class T>
void put(bytes& target, std::size_t offset, T value) {
  std::memcpy(&target.at(offset + sizeof(value) - 1) - (sizeof(value) - 1), &value, sizeof(value));
}

template <class T>
T get(const bytes& source, std::size_t offset) {
  T value;
  std::memcpy(&value, &source.at(offset + sizeof(value) - 1) - (sizeof(value) - 1), sizeof(value));
  return value;
}

// The characters and, where `width` leaves room, a NUL behind them.
inline void put_text(bytes& target, std::size_t offset, std::size_t width, const char* text) {
  for (std::size_t i = 0; i < width; ++i) {
    target.at(offset + i) = static_cast<unsigned char>(text[i]);
    if (text[i] == '\0') return;
  }
}

}  // namespace feed_test
