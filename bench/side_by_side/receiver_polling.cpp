// The design that the library's client had before its threads woke each other.
#include <sys/epoll.h>  // epoll_wait
#include <unistd.h>     // read, close, usleep

#include <atomic>   // std::atomic
#include <cstring>  // memcpy
#include <list>     // std::list
#include <memory>   // std::unique_ptr
#include <mutex>    // std::mutex
#include <string>   // std::string
#include <thread>   // std::thread
#include <utility>  // std::move
#include <vector>   // std::vector

#include "bench/side_by_side/receivers.h"
#include "bench/side_by_side/stream_cutter.h"

namespace kav_bench {

namespace {

constexpr int k_epoll_wait_ms = 50;
constexpr useconds_t k_poll_us = 1;
constexpr std::size_t k_pooled = 512;

struct chunk {
  char bytes[k_small_read_bytes];
  std::size_t length = 0;
};

// Chunks between the two threads, and those that are free; each list has its own lock.
class chunk_queue {
 public:
  void push(const char* data, std::size_t length) {
    std::unique_ptr<chunk> filled = free_chunk();
    std::memcpy(filled->bytes, data, length);
    filled->length = length;
    const std::lock_guard<std::mutex> hold{m_queue_lock};
    m_queue.push_back(std::move(filled));
  }

  // Null when the queue is empty.
  std::unique_ptr<chunk> pop() {
    const std::lock_guard<std::mutex> hold{m_queue_lock};
    if (m_queue.empty()) return nullptr;
    std::unique_ptr<chunk> front = std::move(m_queue.front());
    m_queue.pop_front();
    return front;
  }

  void give_back(std::unique_ptr<chunk> used) {
    const std::lock_guard<std::mutex> hold{m_pool_lock};
    if (m_pool.size() < k_pooled) m_pool.push_back(std::move(used));
  }

 private:
  std::unique_ptr<chunk> free_chunk() {
    const std::lock_guard<std::mutex> hold{m_pool_lock};
    if (m_pool.empty()) return std::make_unique<chunk>();
    std::unique_ptr<chunk> last = std::move(m_pool.back());
    m_pool.pop_back();
    return last;
  }

  std::mutex m_queue_lock, m_pool_lock;
  std::list<std::unique_ptr<chunk>> m_queue;
  std::vector<std::unique_ptr<chunk>> m_pool;
};

// Joins the chunks to a stream and cuts it.
bool join_and_cut(std::vector<char>& stream, const chunk& next, KAVQuoteEvent& event) {
  stream.insert(stream.end(), next.bytes, next.bytes + next.length);
  const std::size_t used = cut_messages(stream.data(), stream.size(), event);
  if (used == k_malformed) return false;
  stream.erase(stream.begin(), stream.begin() + static_cast<std::ptrdiff_t>(used));
  return true;
}

void poll_queue(chunk_queue& queue, const std::atomic<bool>& ended, std::atomic<bool>& good,
                KAVQuoteEvent& event) {
  std::vector<char> stream;
  stream.reserve(2 * k_small_read_bytes);
  for (;;) {
    const bool last_look = ended.load(std::memory_order_acquire);
    std::unique_ptr<chunk> next = queue.pop();
    if (next == nullptr) {
      if (last_look) return;
      ::usleep(k_poll_us);
      continue;
    }
    if (!join_and_cut(stream, *next, event)) good.store(false, std::memory_order_release);
    queue.give_back(std::move(next));
  }
}

}  // namespace

bool receive_with_polling(int socket, KAVQuoteEvent& event) {
  const int handle = ::epoll_create1(EPOLL_CLOEXEC);
  epoll_event watched{};
  watched.events = EPOLLIN;
  if (::epoll_ctl(handle, EPOLL_CTL_ADD, socket, &watched) != 0) return false;
  chunk_queue queue;
  std::atomic<bool> ended{false}, good{true};
  std::thread second{[&] { poll_queue(queue, ended, good, event); }};
  char bytes[k_small_read_bytes];
  for (;;) {
    epoll_event ready{};
    if (::epoll_wait(handle, &ready, 1, k_epoll_wait_ms) != 1) continue;
    const ssize_t got = ::read(socket, bytes, sizeof bytes);
    if (got < 0) good.store(false, std::memory_order_release);
    if (got <= 0) break;
    queue.push(bytes, static_cast<std::size_t>(got));
  }
  ended.store(true, std::memory_order_release);
  second.join();
  ::close(handle);
  return good.load(std::memory_order_acquire);
}

}  // namespace kav_bench
