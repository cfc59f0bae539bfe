// A growable byte stream: appended at the end, consumed from the front.
#pragma once

#include <cstddef>  // size_t

#include "tools/locks.h"

namespace VORLAN {
namespace TOOLS {

// Bytes between a read and a write position; room at the end is made by moving the live bytes to
// the start, and by doubling only when that does not suffice.
//
// Threads: each operation that changes the buffer takes its lock; the pointer and length getters
//          do not. Who combines them while another thread changes the buffer holds lock_stream(),
//          and a pointer is good until the next change.
class stream_buffer {
 public:
  // Allocates `size` bytes; when that fails the capacity is 0 and the next push tries again.
  explicit stream_buffer(unsigned size);
  ~stream_buffer();
  stream_buffer(const stream_buffer&) = delete;
  stream_buffer& operator=(const stream_buffer&) = delete;

  // The buffer's own lock, for several operations as one. Recursive.
  void lock_stream();
  void unlock_stream();

  // The live bytes.
  char* get_data_ptr() KAV_NO_THREAD_SAFETY_ANALYSIS { return m_storage + m_read; }
  const char* get_data_ptr() const KAV_NO_THREAD_SAFETY_ANALYSIS { return m_storage + m_read; }
  std::size_t get_data_len() KAV_NO_THREAD_SAFETY_ANALYSIS { return m_write - m_read; }
  std::size_t get_data_len() const KAV_NO_THREAD_SAFETY_ANALYSIS { return m_write - m_read; }

  // Appends. False, with nothing changed, when memory is short, the length is beyond all reason
  // (a negative one, for example) or bytes are asked for and `data` is null. `data` must not point
  // into this buffer.
  bool push_data(const char* data, std::size_t len);

  // Lets a reader write straight into the buffer: get_reserve_len() makes room at the end when
  // there is none and returns it (0 when memory is short), make_room() when there is less than
  // `least`; get_reserve_ptr() is where it begins, fill_reserve_len() takes over what was written,
  // at most up to the capacity, and returns the new write position.
  char* get_reserve_ptr() KAV_NO_THREAD_SAFETY_ANALYSIS { return m_storage + m_write; }
  std::size_t get_reserve_len();
  std::size_t make_room(std::size_t least);
  std::size_t fill_reserve_len(std::size_t len);

  // Consumes from the front, at most what is live. Always true.
  bool pop_data(std::size_t len);

  // Moves the live bytes to the start of the storage. Always true.
  bool reset_data_buf();

  // Forgets the live bytes and keeps the storage.
  void clear();

  // clear(), then push_data().
  bool reset_data(const char* data, std::size_t len);

  // Copies forwards, byte by byte in effect: right for a move to a lower address that overlaps.
  static void mem_copy(char* dst, const char* src, std::size_t len);

 private:
  std::size_t live() const KAV_REQUIRES(m_lock) { return m_write - m_read; }
  void compact() KAV_REQUIRES(m_lock);
  bool grow(std::size_t capacity, const char* data, std::size_t len) KAV_REQUIRES(m_lock);
  bool append(const char* data, std::size_t len) KAV_REQUIRES(m_lock);

  mutable mutex_lock m_lock;
  char* m_storage KAV_GUARDED_BY(m_lock);          // from malloc
  std::size_t m_read KAV_GUARDED_BY(m_lock) = 0;   // first live byte
  std::size_t m_write KAV_GUARDED_BY(m_lock) = 0;  // just past the last live byte
  std::size_t m_capacity KAV_GUARDED_BY(m_lock);   // m_read <= m_write <= m_capacity
};

}  // namespace TOOLS
}  // namespace VORLAN
