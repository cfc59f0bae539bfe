#include "tests/faults/supply.h"

#include <dlfcn.h>        // dlsym
#include <pthread.h>      // pthread_create
#include <sys/epoll.h>    // epoll_create1
#include <sys/eventfd.h>  // eventfd
#include <sys/socket.h>   // socket

#include <algorithm>  // std::max
#include <cerrno>     // EAGAIN, EMFILE
#include <cstdlib>    // aligned_alloc, malloc
#include <limits>     // std::numeric_limits
#include <new>        // std::bad_alloc
#include <utility>    // std::exchange

namespace kav_faults {
namespace {

thread_local supply* t_supply = nullptr;  // null: not inside the library

// In front of every block, whoever asked for it.
struct block_head {
  void* start;
  supply* from;  // null: nobody counts it
};

constexpr std::size_t k_alignment = alignof(std::max_align_t);

std::size_t round_up(std::size_t bytes, std::size_t to) { return (bytes + to - 1) / to * to; }

block_head* head_of(void* memory) { return static_cast<block_head*>(memory) - 1; }

void* allocate_or_null(std::size_t bytes, std::size_t alignment) {
  supply* const from = t_supply;
  if (from != nullptr && !from->memory.grants()) return nullptr;
  alignment = std::max(alignment, k_alignment);
  const std::size_t room = round_up(sizeof(block_head), alignment);
  void* const start = std::aligned_alloc(alignment, round_up(room + bytes, alignment));
  if (start == nullptr) return nullptr;
  void* const memory = static_cast<char*>(start) + room;
  *head_of(memory) = {start, from};
  if (from != nullptr) from->live_blocks.fetch_add(1);
  return memory;
}

void* allocate(std::size_t bytes, std::size_t alignment = k_alignment) {
  if (void* const memory = allocate_or_null(bytes, alignment)) return memory;
  throw std::bad_alloc();
}

void release(void* memory) {
  if (memory == nullptr) return;
  const block_head head = *head_of(memory);
  std::free(head.start);
  if (head.from != nullptr) head.from->live_blocks.fetch_sub(1);  // last touch: it may go
}

struct thread_start {
  void* (*routine)(void*);
  void* arg;
  supply* from;
};

void* enter_thread(void* arg) {
  const thread_start start = *static_cast<thread_start*>(arg);
  std::free(arg);
  t_supply = start.from;
  void* const result = start.routine(start.arg);
  start.from->live_threads.fetch_sub(1);
  return result;
}

using create_function = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);

create_function system_create() {
  static const auto next = reinterpret_cast<create_function>(::dlsym(RTLD_NEXT, "pthread_create"));
  return next;
}

bool grants_descriptor() {
  if (t_supply == nullptr || t_supply->descriptors.grants()) return true;
  errno = EMFILE;
  return false;
}

// A thread of the library.
int create_counted(pthread_t* id, const pthread_attr_t* attributes, const thread_start& start) {
  if (!start.from->threads.grants()) return EAGAIN;
  auto* const copy = static_cast<thread_start*>(std::malloc(sizeof(thread_start)));
  if (copy == nullptr) return EAGAIN;
  *copy = start;
  start.from->live_threads.fetch_add(1);
  const int result = system_create()(id, attributes, enter_thread, copy);
  if (result == 0) return 0;
  start.from->live_threads.fetch_sub(1);
  std::free(copy);
  return result;
}

}  // namespace

void source::refuse_from(long nth) { refuse(nth, std::numeric_limits<long>::max()); }

void source::refuse(long first, long last) {
  m_last.store(-1);  // none while both are changed
  m_first.store(first);
  m_last.store(last);
}

bool source::grants() {
  const long number = m_asked.fetch_add(1) + 1;
  if (number > m_last.load() || number < m_first.load()) return true;
  m_refused.fetch_add(1);
  return false;
}

in_library::in_library(supply& from) : m_before(std::exchange(t_supply, &from)) {}
in_library::~in_library() { t_supply = m_before; }

}  // namespace kav_faults

// NOLINTBEGIN(misc-new-delete-overloads): all of them are here
void* operator new(std::size_t bytes) { return kav_faults::allocate(bytes); }
void* operator new[](std::size_t bytes) { return kav_faults::allocate(bytes); }
void* operator new(std::size_t bytes, std::align_val_t alignment) {
  return kav_faults::allocate(bytes, static_cast<std::size_t>(alignment));
}
void* operator new[](std::size_t bytes, std::align_val_t alignment) {
  return kav_faults::allocate(bytes, static_cast<std::size_t>(alignment));
}
void* operator new(std::size_t bytes, const std::nothrow_t&) noexcept {
  return kav_faults::allocate_or_null(bytes, kav_faults::k_alignment);
}
void* operator new[](std::size_t bytes, const std::nothrow_t&) noexcept {
  return kav_faults::allocate_or_null(bytes, kav_faults::k_alignment);
}
void* operator new(std::size_t bytes, std::align_val_t alignment, const std::nothrow_t&) noexcept {
  return kav_faults::allocate_or_null(bytes, static_cast<std::size_t>(alignment));
}
void* operator new[](std::size_t bytes, std::align_val_t alignment,
                     const std::nothrow_t&) noexcept {
  return kav_faults::allocate_or_null(bytes, static_cast<std::size_t>(alignment));
}
void operator delete(void* memory) noexcept { kav_faults::release(memory); }
void operator delete[](void* memory) noexcept { kav_faults::release(memory); }
void operator delete(void* memory, std::size_t) noexcept { kav_faults::release(memory); }
void operator delete[](void* memory, std::size_t) noexcept { kav_faults::release(memory); }
void operator delete(void* memory, std::align_val_t) noexcept { kav_faults::release(memory); }
void operator delete[](void* memory, std::align_val_t) noexcept { kav_faults::release(memory); }
void operator delete(void* memory, std::size_t, std::align_val_t) noexcept {
  kav_faults::release(memory);
}
void operator delete[](void* memory, std::size_t, std::align_val_t) noexcept {
  kav_faults::release(memory);
}
void operator delete(void* memory, const std::nothrow_t&) noexcept { kav_faults::release(memory); }
void operator delete[](void* memory, const std::nothrow_t&) noexcept {
  kav_faults::release(memory);
}
void operator delete(void* memory, std::align_val_t, const std::nothrow_t&) noexcept {
  kav_faults::release(memory);
}
void operator delete[](void* memory, std::align_val_t, const std::nothrow_t&) noexcept {
  kav_faults::release(memory);
}
// NOLINTEND(misc-new-delete-overloads)

extern "C" {

int pthread_create(pthread_t* id, const pthread_attr_t* attributes, void* (*routine)(void*),
                   void* arg) noexcept {
  kav_faults::supply* const from = kav_faults::t_supply;
  if (from == nullptr) return kav_faults::system_create()(id, attributes, routine, arg);
  return kav_faults::create_counted(id, attributes, {routine, arg, from});
}

int socket(int domain, int type, int protocol) noexcept {
  static const auto next = reinterpret_cast<int (*)(int, int, int)>(::dlsym(RTLD_NEXT, "socket"));
  return kav_faults::grants_descriptor() ? next(domain, type, protocol) : -1;
}

int epoll_create1(int flags) noexcept {
  static const auto next = reinterpret_cast<int (*)(int)>(::dlsym(RTLD_NEXT, "epoll_create1"));
  return kav_faults::grants_descriptor() ? next(flags) : -1;
}

int eventfd(unsigned int count, int flags) noexcept {
  static const auto next = reinterpret_cast<int (*)(unsigned, int)>(::dlsym(RTLD_NEXT, "eventfd"));
  return kav_faults::grants_descriptor() ? next(count, flags) : -1;
}

}  // extern "C"
