// A descriptor that several threads use and one closes.
#pragma once

#include <atomic>   // std::atomic
#include <cstdint>  // std::uint32_t

namespace VORLAN {
namespace SOCK {

// Once close() has been called nobody gets the number any more, so that a descriptor which the
// system gives to somebody else afterwards is never touched; the last user closes it.
//
// Threads: open() before the object is shared; everything else from any thread.
class shared_descriptor {
 public:
  shared_descriptor() = default;
  shared_descriptor(const shared_descriptor&) = delete;
  shared_descriptor& operator=(const shared_descriptor&) = delete;
  // Leaves an open descriptor open: whether it outlives its owner is the owner's decision.
  ~shared_descriptor() = default;

  // The right to use the descriptor while the lease lives; get() is -1 when it is closed.
  class lease {
   public:
    explicit lease(shared_descriptor& from) : m_from(from), m_fd(from.acquire()) {}
    lease(const lease&) = delete;
    lease& operator=(const lease&) = delete;
    ~lease() {
      if (m_fd >= 0) m_from.release();
    }
    int get() const { return m_fd; }

   private:
    shared_descriptor& m_from;
    const int m_fd;
  };

  void open(int fd);
  void close();
  bool is_open() const;
  // The number, also after the close; for messages only.
  int number() const { return m_fd; }

 private:
  int acquire();
  void release();

  int m_fd = -1;                          // constant while shared
  std::atomic<std::uint32_t> m_state{1};  // bit 0: closed; the rest: twice the number of users
};

}  // namespace SOCK
}  // namespace VORLAN
