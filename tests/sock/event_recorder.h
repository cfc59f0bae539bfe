// Records what a socket class reports, and lets a test act inside the callback.
#pragma once

#include <algorithm>   // std::count_if
#include <chrono>      // std::chrono::milliseconds
#include <functional>  // std::function
#include <mutex>       // std::mutex
#include <string>      // std::string
#include <utility>     // std::move
#include <vector>      // std::vector

#include "sock/socket_context.h"
#include "sock/socket_param.h"
#include "tests/support/gate.h"
#include "tests/support/process_view.h"
#include "tests/support/wait_until.h"

namespace kav_test {

// For what happens at once on a machine that is not busy.
constexpr std::chrono::milliseconds k_soon{20'000};

struct seen_event {
  VORLAN::SOCK::SOCKET_EVENT type = VORLAN::SOCK::EVENT_NONE;
  int id = 0;
  int socket = 0;
  std::string alias;
  bool has_data = false;
  std::string data;
  unsigned processed = 0;
  std::string thread_name;
};

// Threads: callback() on any thread, the rest by the test. The hook is set before the events.
class event_recorder {
 public:
  using hook = std::function<void(VORLAN::SOCK::socket_param&)>;

  event_recorder() = default;
  explicit event_recorder(hook act) : m_hook(std::move(act)) {}
  event_recorder(const event_recorder&) = delete;
  event_recorder& operator=(const event_recorder&) = delete;

  static int callback(VORLAN::SOCK::socket_param& param, void* recorder) {
    static_cast<event_recorder*>(recorder)->record(param);
    return 12345;  // nobody looks at it
  }

  void set_hook(hook act) { m_hook = std::move(act); }

  void clear() {
    const std::lock_guard<std::mutex> guard(m_lock);
    m_events.clear();
  }

  std::vector<seen_event> events() const {
    const std::lock_guard<std::mutex> guard(m_lock);
    return m_events;
  }

  std::vector<seen_event> events(VORLAN::SOCK::SOCKET_EVENT type) const {
    std::vector<seen_event> result = events();
    std::erase_if(result, [&](const seen_event& event) { return event.type != type; });
    return result;
  }

  std::vector<VORLAN::SOCK::SOCKET_EVENT> types() const {
    std::vector<VORLAN::SOCK::SOCKET_EVENT> result;
    for (const seen_event& event : events()) result.push_back(event.type);
    return result;
  }

  // Copies nothing: a look each millisecond at megabytes must not keep the callbacks waiting.
  std::size_t count(VORLAN::SOCK::SOCKET_EVENT type) const {
    const std::lock_guard<std::mutex> guard(m_lock);
    return static_cast<std::size_t>(
        std::count_if(m_events.begin(), m_events.end(),
                      [type](const seen_event& event) { return event.type == type; }));
  }

  bool wait_count(VORLAN::SOCK::SOCKET_EVENT type, std::size_t least) const {
    return wait_until([&] { return count(type) >= least; }, k_soon);
  }

  // All data of EVENT_RECEIVE, in the order of the calls.
  std::string received() const {
    std::string bytes;
    for (const seen_event& event : events(VORLAN::SOCK::EVENT_RECEIVE)) bytes += event.data;
    return bytes;
  }
  // How much that is; without a copy.
  std::size_t received_bytes() const {
    const std::lock_guard<std::mutex> guard(m_lock);
    std::size_t bytes = 0;
    for (const seen_event& event : m_events) {
      if (event.type == VORLAN::SOCK::EVENT_RECEIVE) bytes += event.data.size();
    }
    return bytes;
  }

 private:
  void record(VORLAN::SOCK::socket_param& param) {
    seen_event seen;
    seen.type = param.get_event_type();
    seen.id = param.get_socket_id();
    seen.socket = param.get_socket();
    seen.alias = param.get_alias();
    seen.has_data = param.get_buff_addr() != nullptr;
    if (seen.has_data) seen.data.assign(param.get_buff_addr(), param.get_buff_size());
    seen.processed = param.get_proc_len();
    seen.thread_name = name_of_this_thread();
    {
      const std::lock_guard<std::mutex> guard(m_lock);
      m_events.push_back(seen);
    }
    if (m_hook) m_hook(param);  // without the lock: it may call back, wait or delete
  }

  hook m_hook;
  mutable std::mutex m_lock;
  std::vector<seen_event> m_events;  // guarded by m_lock
};

// Log lines of a socket object, from any thread.
class recorded_log : public VORLAN::SOCK::socket_context {
 public:
  void log_text(const char* text, int length) override {
    const std::lock_guard<std::mutex> guard(m_lock);
    m_lines.emplace_back(text, static_cast<std::size_t>(length));
  }
  std::vector<std::string> lines() const {
    const std::lock_guard<std::mutex> guard(m_lock);
    return m_lines;
  }

 private:
  mutable std::mutex m_lock;
  std::vector<std::string> m_lines;  // guarded by m_lock
};

inline bool wait_library_threads(const std::vector<std::string>& names) {
  return wait_until([&] { return library_threads() == names; }, k_soon);
}

inline std::chrono::milliseconds time_of(const std::function<void()>& action) {
  const auto start = std::chrono::steady_clock::now();
  action();
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                               start);
}

// Slot `index` of the object's table of virtual functions, as code compiled elsewhere calls it.
template <class FUNCTION>
FUNCTION virtual_slot(const void* object, std::size_t index) {
  void* const* const table = *static_cast<void* const* const*>(object);
  return reinterpret_cast<FUNCTION>(table[index]);
}

}  // namespace kav_test
