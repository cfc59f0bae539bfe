#include "tools/stream_buffer.h"

#include <algorithm>  // max, min
#include <cstdint>    // uintptr_t
#include <cstdlib>    // malloc, free
#include <cstring>    // memcpy, memmove

namespace VORLAN {
namespace TOOLS {

namespace {

// More than any host has: a length beyond it was miscounted, and sums below it cannot wrap.
constexpr std::size_t k_max_bytes = std::size_t{1} << 40;

// What an empty-handed buffer (its first allocation failed) gets when a reader asks for room.
constexpr std::size_t k_first_reserve_bytes = 2048;

}  // namespace

stream_buffer::stream_buffer(unsigned size)
    : m_storage(static_cast<char*>(std::malloc(size))),
      m_capacity(m_storage != nullptr ? size : 0) {}

stream_buffer::~stream_buffer() { std::free(m_storage); }

void stream_buffer::lock_stream() KAV_NO_THREAD_SAFETY_ANALYSIS { m_lock.lock(); }

void stream_buffer::unlock_stream() KAV_NO_THREAD_SAFETY_ANALYSIS { m_lock.unlock(); }

bool stream_buffer::push_data(const char* data, std::size_t len) {
  if (len == 0) return true;
  if (data == nullptr || len > k_max_bytes) return false;
  mutex_locker guard(m_lock);
  return append(data, len);
}

bool stream_buffer::append(const char* data, std::size_t len) {
  if (m_capacity - m_write < len) {
    if (m_capacity - live() < len) return grow(std::max(2 * m_capacity, live() + len), data, len);
    compact();
  }
  std::memmove(m_storage + m_write, data,
               len);  // may overlap when a buffer is reset to its own bytes
  m_write += len;
  return true;
}

std::size_t stream_buffer::get_reserve_len() {
  mutex_locker guard(m_lock);
  if (m_write < m_capacity) return m_capacity - m_write;
  if (m_read > 0) {
    compact();
  } else if (!grow(m_capacity > 0 ? 2 * m_capacity : k_first_reserve_bytes, nullptr, 0)) {
    return 0;
  }
  return m_capacity - m_write;
}

std::size_t stream_buffer::make_room(std::size_t least) {
  mutex_locker guard(m_lock);
  if (m_capacity - m_write >= least) return m_capacity - m_write;
  if (m_capacity - live() >= least) {
    compact();
  } else if (least > k_max_bytes || !grow(std::max(2 * m_capacity, live() + least), nullptr, 0)) {
    return 0;
  }
  return m_capacity - m_write;
}

std::size_t stream_buffer::fill_reserve_len(std::size_t len) {
  mutex_locker guard(m_lock);
  m_write += std::min(len, m_capacity - m_write);
  return m_write;
}

bool stream_buffer::pop_data(std::size_t len) {
  mutex_locker guard(m_lock);
  m_read += std::min(len, live());
  if (m_read == m_write) m_read = m_write = 0;
  return true;
}

bool stream_buffer::reset_data_buf() {
  mutex_locker guard(m_lock);
  compact();
  return true;
}

void stream_buffer::clear() {
  mutex_locker guard(m_lock);
  m_read = m_write = 0;
}

bool stream_buffer::reset_data(const char* data, std::size_t len) {
  mutex_locker guard(m_lock);
  clear();
  return push_data(data, len);
}

void stream_buffer::mem_copy(char* dst, const char* src, std::size_t len) {
  if (len == 0 || dst == nullptr || src == nullptr) return;
  const std::uintptr_t to = reinterpret_cast<std::uintptr_t>(dst);
  const std::uintptr_t from = reinterpret_cast<std::uintptr_t>(src);
  if (to <= from || to - from >= len) {
    std::memmove(dst, src, len);
    return;
  }
  for (std::size_t i = 0; i < len; ++i) dst[i] = src[i];  // repeats the bytes between src and dst
}

void stream_buffer::compact() {
  if (m_read == 0) return;
  mem_copy(m_storage, m_storage + m_read, live());
  m_write = live();
  m_read = 0;
}

// Moves the live bytes and `data` to a new storage; without memory nothing changes.
bool stream_buffer::grow(std::size_t capacity, const char* data, std::size_t len) {
  if (capacity > k_max_bytes) return false;
  char* storage = static_cast<char*>(std::malloc(capacity));
  if (storage == nullptr) return false;
  const std::size_t kept = live();
  if (kept > 0) std::memcpy(storage, m_storage + m_read, kept);
  if (len > 0) std::memcpy(storage + kept, data, len);
  std::free(m_storage);
  m_storage = storage;
  m_read = 0;
  m_write = kept + len;
  m_capacity = capacity;
  return true;
}

}  // namespace TOOLS
}  // namespace VORLAN
