// What the event thread of one TCP connection shares with the connection's owner.
#pragma once

#include <atomic>   // std::atomic
#include <cstddef>  // std::size_t
#include <cstdint>  // std::uint32_t

#include "sock/reading_loan.h"
#include "sock/shared_descriptor.h"

namespace VORLAN {
namespace SOCK {

// Where an event thread is, for those who wait for it.
enum event_thread_place : int {
  k_place_not_started,  // created, not yet in the object
  k_place_in_object,    // executes code of the object
  k_place_in_callback,  // executes the user's code
  k_place_abandoned,    // the owner waits no longer: the thread may not touch the object again
};

// Thrown on the event thread when the user's callback returns to an owner that has given up waiting
// for it; ends the thread without another look at the object.
struct abandoned_run {};

// One connection: its descriptors, its receive buffer and the flags between its event thread and
// its owner. Lives as long as either of them.
struct event_run {
  static constexpr std::size_t k_receive_buffer_bytes = 8192;
  static const std::uint32_t k_watched_events;

  // Has the epoll instance watch the socket for these events. False: it is closed.
  bool watch(std::uint32_t events);
  // On the event thread, when the user's code has ended. Throws abandoned_run.
  void leave_callback();

  shared_descriptor socket;
  shared_descriptor epoll;
  std::atomic<bool> stop{false};       // raised by the owner and by the event thread
  std::atomic<bool> ended{true};       // cleared before the thread exists, set as its last touch
  std::atomic<bool> keep_open{false};  // the owner is gone: leave the descriptors open
  std::atomic<bool> at_end{false};     // by the peer or an error: the reading is not lent again
  std::atomic<event_thread_place> place{k_place_not_started};
  // Whose turn it is to read; by whoever has it: whom to wake when a loan ends, and the error that
  // the borrower has come upon (0: none), for the event thread to report.
  reading_turn turn;
  wake_event* borrower = nullptr;
  int read_error = 0;
  std::uint32_t seen_absence = 0;               // event thread only; 0: the borrower was not absent
  char receive_buffer[k_receive_buffer_bytes];  // event thread only
};

}  // namespace SOCK
}  // namespace VORLAN
