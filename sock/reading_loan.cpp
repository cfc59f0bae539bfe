#include "sock/reading_loan.h"

#include <sched.h>        // sched_yield
#include <sys/epoll.h>    // epoll_wait
#include <sys/syscall.h>  // SYS_read
#include <unistd.h>       // syscall, close, usleep

#include <algorithm>  // std::max
#include <cerrno>     // errno
#include <chrono>     // std::chrono::nanoseconds
#include <utility>    // std::move

#include "sock/event_run.h"

namespace VORLAN {
namespace SOCK {
namespace {

// The end of a connection, and what breaks it, is for the event thread alone.
constexpr std::uint32_t k_events_while_lent = EPOLLRDHUP | EPOLLERR | EPOLLHUP;
constexpr std::uint64_t k_bell = 0;  // what the watcher calls it; loans are counted from 1
// The event thread may still be on its way out of the read that it has woken the borrower for.
constexpr int k_borrow_tries = 50;
constexpr std::chrono::milliseconds k_busy_wait{20};  // then it is asked again
constexpr useconds_t k_change_wait_us = 20;
constexpr std::uint32_t k_awaited = EPOLLIN | EPOLLRDHUP;

}  // namespace

bool reading_turn::begin_event_read() {
  for (;;) {
    if (change(k_nobody, k_event)) return true;
    const std::uint32_t state = m_state.load(std::memory_order_acquire);
    if (state != k_nobody) return state == k_event;  // else given back in between
  }
}

bool reading_turn::take_back() {
  for (;;) {
    const std::uint32_t state = m_state.load(std::memory_order_acquire);
    if (state <= k_event) return false;
    if (state == k_changes) {
      ::usleep(k_change_wait_us);  // not sched_yield(): the borrower may have a lower priority
    } else if (change(state, k_event)) {
      return true;
    }
  }
}

std::uint32_t reading_turn::absence() const {
  const std::uint32_t state = m_state.load(std::memory_order_acquire);
  return state >= k_absent ? state : 0;
}

reading_loan::~reading_loan() {
  give_back();
  if (m_watcher >= 0) ::close(m_watcher);
}

bool reading_loan::borrow(std::shared_ptr<event_run> run) {
  give_back();
  m_busy = false;
  if (run == nullptr || run->ended.load(std::memory_order_acquire) || !open_watcher()) return false;
  for (int tries = 0; !run->turn.change(reading_turn::k_nobody, reading_turn::k_changes); ++tries) {
    if (tries == k_borrow_tries) {
      m_busy = true;
      return false;
    }
    ::sched_yield();
  }
  m_run = std::move(run);
  m_run->borrower = &m_wake;
  m_readable = false;
  if (may_wait()) {
    end_change(reading_turn::k_waits);
    return true;
  }
  end_loan();
  return false;
}

// Has the watcher look at the socket, and the event thread at its end only.
bool reading_loan::may_wait() {
  if (m_run->stop.load(std::memory_order_acquire)) return false;
  if (m_run->at_end.load(std::memory_order_acquire)) return false;
  const shared_descriptor::lease sock(m_run->socket);  // over before the connection is let go
  return watch(sock.get()) && m_run->watch(k_events_while_lent);
}

bool reading_loan::open_watcher() {
  if (m_watcher >= 0) return true;
  const int bell = m_wake.open_bell();
  if (bell < 0) return false;
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.u64 = k_bell;
  m_watcher = ::epoll_create1(EPOLL_CLOEXEC);
  if (::epoll_ctl(m_watcher, EPOLL_CTL_ADD, bell, &event) == 0) return true;
  if (m_watcher >= 0) ::close(m_watcher);
  m_watcher = -1;
  return false;
}

bool reading_loan::watch(int sock) {
  epoll_event event{};
  event.events = k_awaited;
  event.data.u64 = ++m_serial;
  return ::epoll_ctl(m_watcher, EPOLL_CTL_ADD, sock, &event) == 0;
}

// Nothing to do when it has been closed: the system forgets it then.
void reading_loan::unwatch() {
  const shared_descriptor::lease sock(m_run->socket);
  if (sock.get() >= 0) ::epoll_ctl(m_watcher, EPOLL_CTL_DEL, sock.get(), nullptr);
}

void reading_loan::give_back() {
  if (m_run != nullptr && begin_change()) end_loan();
}

void reading_loan::wait(std::uint32_t ticket) {
  if (m_run == nullptr) {
    m_wake.wait(ticket, m_busy ? k_busy_wait : std::chrono::nanoseconds(-1));
    return;
  }
  epoll_event events[2];
  const int count = m_wake.listen(ticket) ? ::epoll_wait(m_watcher, events, 2, -1) : 0;
  m_wake.end_listening();
  bool ends = false;
  for (int i = 0; i < count; ++i) {
    if (events[i].data.u64 == k_bell) {
      m_wake.silence_bell();
    } else if (events[i].data.u64 == m_serial) {  // else one that somebody still sends on
      m_readable = events[i].events == EPOLLIN;
      ends = !m_readable;
    }
  }
  // The event thread has been told of the end as well, and takes the turn back.
  if (ends) m_wake.wait(ticket, std::chrono::nanoseconds(-1));
}

bool reading_loan::may_read() {
  if (m_run == nullptr) return false;
  if (m_readable) return true;
  if (begin_change()) end_change(reading_turn::k_waits);
  return false;
}

std::size_t reading_loan::read(char* to, std::size_t size) {
  if (m_run == nullptr || !begin_change()) return 0;
  ssize_t received = -1;
  int error = 0;
  {
    const shared_descriptor::lease sock(m_run->socket);
    // Not through read(), which makes a cancellation point of each call at some cost.
    received = ::syscall(SYS_read, sock.get(), to, size);
    error = received < 0 ? errno : 0;
  }
  if (received > 0) {
    m_readable = static_cast<std::size_t>(received) == size;
    end_change(next_absence());
    return static_cast<std::size_t>(received);
  }
  m_readable = false;
  if (error == EAGAIN || error == EINTR) {
    end_change(reading_turn::k_waits);
  } else {
    m_run->read_error = error;
    end_loan();
  }
  return 0;
}

void reading_loan::leave() {
  if (m_run != nullptr && begin_change()) end_change(next_absence());
}

// False: the event thread has ended the loan. True: it waits for the end of the change.
bool reading_loan::begin_change() {
  const std::uint32_t state = m_run->turn.m_state.load(std::memory_order_acquire);
  const bool own = state == reading_turn::k_waits || state == m_absence;
  if (own && m_run->turn.change(state, reading_turn::k_changes)) return true;
  forget();
  return false;
}

void reading_loan::end_change(std::uint32_t state) {
  m_run->turn.m_state.store(state, std::memory_order_release);
}

void reading_loan::end_loan() {
  m_run->watch(event_run::k_watched_events);
  end_change(reading_turn::k_nobody);
  forget();
}

void reading_loan::forget() {
  unwatch();
  m_run = nullptr;
}

std::uint32_t reading_loan::next_absence() {
  m_absence = std::max(m_absence + 1, reading_turn::k_absent);  // begins anew after the last number
  return m_absence;
}

}  // namespace SOCK
}  // namespace VORLAN
