// stream_buffer against a string and the three numbers that it counts.
#include "tools/stream_buffer.h"

#include "tests/fuzz/check.h"
#include "tests/fuzz/fuzz_input.h"

namespace {

using kav_fuzz::fuzz_input;

constexpr std::size_t k_most_steps = 300;
constexpr std::size_t k_most_capacity = 1u << 20;  // doubled no further than this
constexpr std::size_t k_first_reserve = 2048;

class buffer_check {
 public:
  explicit buffer_check(unsigned size) : m_buffer(size), m_capacity(size) {}

  void step(fuzz_input& input) {
    const unsigned choice = input.take_byte();
    switch (choice % 10) {
      case 0:
        return push(input.take_text());
      case 1:
        return push(std::string(input.take_word(), static_cast<char>(choice)));
      case 2:
        return pop(input.take_byte());
      case 3:
        return pop(input.take<std::uint32_t>());  // more than there is: all of it
      case 4:
        return reserve(input.take_byte());
      case 5:
        return make_room(input.take_word(), input.take_byte());
      case 6:
        return clear();
      case 7:
        return reset(input.take_text());
      case 8:
        return compact();
      default:
        return refuse(input.take_byte());
    }
  }

  void check() const {
    KAV_CHECK(m_buffer.get_data_len() == m_live.size());
    KAV_CHECK(m_live.compare(0, m_live.size(), m_buffer.get_data_ptr(), m_live.size()) == 0);
  }

 private:
  void push(const std::string& bytes) {
    kav_fuzz::heap_bytes copy(bytes);
    KAV_CHECK(m_buffer.push_data(copy.data(), bytes.size()));
    note_pushed(bytes);
  }

  void note_pushed(const std::string& bytes) {
    if (bytes.empty()) return;
    if (m_capacity - write() < bytes.size()) {
      const std::size_t needed = m_live.size() + bytes.size();
      if (m_capacity < needed) m_capacity = std::max(2 * m_capacity, needed);
      m_read = 0;
    }
    m_live += bytes;
  }

  void pop(std::size_t length) {
    KAV_CHECK(m_buffer.pop_data(length));
    const std::size_t taken = std::min(length, m_live.size());
    m_live.erase(0, taken);
    m_read = m_live.empty() ? 0 : m_read + taken;
  }

  // A reader writes straight into the buffer, and takes over no more than it has written.
  void fill(std::size_t room, std::size_t wanted) {
    KAV_CHECK(room == m_capacity - write());
    const std::size_t length = std::min(room, wanted);
    std::memset(m_buffer.get_reserve_ptr(), 'r', room);
    KAV_CHECK(m_buffer.fill_reserve_len(length) == write() + length);
    m_live.append(length, 'r');
  }

  void reserve(std::size_t wanted) {
    if (m_capacity > k_most_capacity) return;
    const std::size_t room = m_buffer.get_reserve_len();
    if (write() == m_capacity) {
      if (m_read == 0) m_capacity = m_capacity > 0 ? 2 * m_capacity : k_first_reserve;
      m_read = 0;
    }
    KAV_CHECK(room > 0);
    fill(room, wanted);
  }

  void make_room(std::size_t least, std::size_t wanted) {
    if (m_capacity > k_most_capacity) return;
    const std::size_t room = m_buffer.make_room(least);
    if (m_capacity - write() < least) {
      const std::size_t needed = m_live.size() + least;
      if (m_capacity < needed) m_capacity = std::max(2 * m_capacity, needed);
      m_read = 0;
    }
    KAV_CHECK(room >= least);
    fill(room, wanted);
  }

  void clear() {
    m_buffer.clear();
    m_live.clear();
    m_read = 0;
  }

  void reset(const std::string& bytes) {
    kav_fuzz::heap_bytes copy(bytes);
    KAV_CHECK(m_buffer.reset_data(copy.data(), bytes.size()));
    m_live.clear();
    m_read = 0;
    note_pushed(bytes);
  }

  void compact() {
    KAV_CHECK(m_buffer.reset_data_buf());
    m_read = 0;
  }

  // Lengths beyond all reason change nothing.
  void refuse(unsigned choice) {
    const char byte = 'x';
    KAV_CHECK(!m_buffer.push_data(&byte, ~std::size_t{0} - choice));
    KAV_CHECK(!m_buffer.push_data(nullptr, choice + 1));
    KAV_CHECK(m_buffer.make_room(~std::size_t{0} - choice) == 0);
  }

  std::size_t write() const { return m_read + m_live.size(); }

  VORLAN::TOOLS::stream_buffer m_buffer;
  std::string m_live;
  std::size_t m_read = 0;
  std::size_t m_capacity;
};

// Byte by byte: a destination shortly behind the source repeats what lies between.
void check_mem_copy(fuzz_input& input) {
  const std::size_t to = input.take_byte(), from = input.take_byte(), length = input.take_byte();
  const std::string bytes = input.take_padded(std::max(to, from) + length);
  std::string expected = bytes;
  for (std::size_t i = 0; i < length; ++i) expected[to + i] = expected[from + i];
  kav_fuzz::heap_bytes copy(bytes);
  VORLAN::TOOLS::stream_buffer::mem_copy(copy.data() + to, copy.data() + from, length);
  KAV_CHECK(expected.compare(0, expected.size(), copy.data(), bytes.size()) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz_input input(data, size);
  const unsigned choice = input.take_byte();
  if (choice == 0) {
    check_mem_copy(input);
    return 0;
  }
  buffer_check check(choice - 1);
  for (std::size_t i = 0; i < k_most_steps && !input.is_empty(); ++i) {
    check.step(input);
    check.check();
  }
  return 0;
}
