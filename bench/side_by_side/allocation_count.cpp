#include "bench/side_by_side/allocation_count.h"

#include <atomic>   // std::atomic
#include <cstddef>  // std::size_t

#if defined(__has_feature)
#define KAV_HAS_FEATURE(name) __has_feature(name)
#else
#define KAV_HAS_FEATURE(name) 0
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || \
    KAV_HAS_FEATURE(address_sanitizer) || KAV_HAS_FEATURE(thread_sanitizer) || !defined(__GLIBC__)
#define KAV_COUNTS_ALLOCATIONS 0
#else
#define KAV_COUNTS_ALLOCATIONS 1
#endif

namespace {

std::atomic<std::uint64_t> g_allocations{0};

}  // namespace

namespace kav_bench {

std::uint64_t allocation_count() { return g_allocations.load(std::memory_order_relaxed); }
bool allocations_are_counted() { return KAV_COUNTS_ALLOCATIONS != 0; }

}  // namespace kav_bench

#if KAV_COUNTS_ALLOCATIONS

// The C library's own names for what it does behind malloc() and the others; a program's
// definitions of the latter serve all its shared objects.
// Parameters cannot be named as the system's headers do.
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name)
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* old, std::size_t size);

void* malloc(std::size_t size) noexcept {
  g_allocations.fetch_add(1, std::memory_order_relaxed);
  return __libc_malloc(size);
}

void* calloc(std::size_t count, std::size_t size) noexcept {
  g_allocations.fetch_add(1, std::memory_order_relaxed);
  return __libc_calloc(count, size);
}

void* realloc(void* old, std::size_t size) noexcept {
  g_allocations.fetch_add(1, std::memory_order_relaxed);
  return __libc_realloc(old, size);
}
}
// NOLINTEND(readability-inconsistent-declaration-parameter-name)

#endif
