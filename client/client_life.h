// Who is inside a client, and whether anybody may still come in.
#pragma once

#include <atomic>   // std::atomic
#include <chrono>   // std::chrono::steady_clock
#include <cstdint>  // std::uint64_t
#include <memory>   // std::shared_ptr

// Every thread that executes code of a client is its visitor meanwhile: the caller's threads in an
// operation, the socket threads in a callback, the worker and the closing threads as long as they
// live. Closing turns newcomers away and silences the client's callbacks; a client that is given up
// with visitors inside is deleted by the last one that leaves, so nobody ever finds it gone.
//
// Threads:   every operation from any thread, without a lock.
// Ownership: shared by the client, its connections and its visitors; outlives all of them.
class client_life {
 public:
  // library: a thread that the end of a session waits for; caller: any other.
  enum class visitor : int { caller, library };

  // Given to the last visitor of a client that has been given up.
  typedef void (*farewell)(void* client);

  class visit;
  class call;

  bool is_closed() const { return (m_state.load(std::memory_order_acquire) & k_closed) != 0; }
  void close();
  bool wait_empty(std::chrono::steady_clock::time_point deadline) const;
  // The client is to go when nobody is inside any more: `last` is called with it, at once if nobody
  // is, else by the last visitor. Closes as well.
  void give_up(farewell last, void* client);

  // Counts a visitor that does not exist yet: a thread about to be created, which then adopts the
  // visit. Only by a visitor, or while the client cannot go.
  void expect_visitor();
  // The visitor that was expected does not come.
  void forget_expected_visitor();

  // Waits until no other thread is inside the caller's code any more: after close(), none comes
  // there again. `limit` at most: another thread's call may be waiting for this one's.
  void wait_other_calls(std::chrono::milliseconds limit) const;

  bool visited_by_this_thread() const;
  // Is the caller inside as a thread that the end of a session waits for?
  bool visited_by_this_library_thread() const;

 private:
  static constexpr std::uint64_t k_closed = 1;
  static constexpr std::uint64_t k_given_up = 2;
  static constexpr std::uint64_t k_one_visitor = 4;

  bool enter();
  void leave();

  std::atomic<std::uint64_t> m_state{0};  // two flags, above them the number of visitors
  std::atomic<std::uint32_t> m_calls{0};  // calls of the caller's code, and attempts at one
  // Written before k_given_up is set, read after it has been seen.
  farewell m_farewell = nullptr;
  void* m_client = nullptr;
};

// A stay in a client, as long as the object lives; false when the client is closed.
class client_life::visit {
 public:
  struct expected {};  // the visitor has been counted by expect_visitor()

  visit(std::shared_ptr<client_life> life, visitor who);
  visit(std::shared_ptr<client_life> life, visitor who, expected);
  visit(const visit&) = delete;
  visit& operator=(const visit&) = delete;
  ~visit();
  explicit operator bool() const { return m_inside; }

 private:
  friend class client_life;

  void join_list();

  const std::shared_ptr<client_life> m_life;
  const visitor m_who;
  const bool m_inside;
  const visit* m_outer = nullptr;  // the visit that this thread was in before
};

// A call of the caller's code, for as long as it lasts, or several of them in a row; false when
// there may be none. The caller of this is a visitor.
class client_life::call {
 public:
  explicit call(client_life& life);
  call(const call&) = delete;
  call& operator=(const call&) = delete;
  ~call();
  explicit operator bool() const { return m_allowed; }
  // May the next call in a row begin?
  bool still_allowed() const { return m_allowed && !m_life.is_closed(); }

 private:
  friend class client_life;

  client_life& m_life;
  const call* m_outer;  // the call that this thread was in before
  bool m_allowed;
};
