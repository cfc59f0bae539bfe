// The bytes of one input, taken from the front; behind the end there are zeros.
#pragma once

#include <algorithm>  // std::min
#include <cstddef>    // std::size_t
#include <cstdint>    // std::uint8_t, std::int8_t
#include <cstring>    // std::memcpy
#include <memory>     // std::unique_ptr
#include <string>     // std::string

// What each fuzzer defines. 0, always.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace kav_fuzz {

class fuzz_input {
 public:
  fuzz_input(const std::uint8_t* data, std::size_t size) : m_data(data), m_left(size) {}

  bool is_empty() const { return m_left == 0; }

  template <class NUMBER>
  NUMBER take() {
    NUMBER number{};
    take_into(&number, sizeof(number));
    return number;
  }
  unsigned take_byte() { return take<std::uint8_t>(); }
  int take_signed_byte() { return int{take<std::int8_t>()}; }
  unsigned take_word() { return take<std::uint16_t>(); }

  // At most so many bytes.
  std::string take_bytes(std::size_t most) {
    std::string bytes(std::min(most, m_left), '\0');
    take_into(bytes.data(), bytes.size());
    return bytes;
  }
  // A length of one byte, then as many bytes, as far as there are any.
  std::string take_text() { return take_bytes(take_byte()); }
  std::string take_rest() { return take_bytes(m_left); }
  // Exactly so many: zeros behind the end.
  std::string take_padded(std::size_t size) {
    std::string bytes = take_bytes(size);
    bytes.resize(size, '\0');
    return bytes;
  }

 private:
  void take_into(void* to, std::size_t size) {
    const std::size_t taken = std::min(size, m_left);
    if (taken > 0) std::memcpy(to, m_data, taken);
    m_data += taken;
    m_left -= taken;
  }

  const std::uint8_t* m_data;
  std::size_t m_left;
};

// As far as a C function reads it.
inline std::string up_to_nul(const std::string& text) { return text.substr(0, text.find('\0')); }

// Bytes in a heap block of exactly their size, `shift` bytes behind its start: AddressSanitizer
// sees a read behind them, and with a shift they lie at any address.
class heap_bytes {
 public:
  explicit heap_bytes(const std::string& bytes, std::size_t shift = 0)
      : m_block(new char[shift + bytes.size()]), m_shift(shift) {
    std::memcpy(data(), bytes.data(), bytes.size());
  }
  char* data() { return m_block.get() + m_shift; }
  template <class RECORD>
  RECORD* as() {
    return reinterpret_cast<RECORD*>(data());
  }

 private:
  const std::unique_ptr<char[]> m_block;
  const std::size_t m_shift;
};

}  // namespace kav_fuzz
