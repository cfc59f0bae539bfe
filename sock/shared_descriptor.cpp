#include "sock/shared_descriptor.h"

#include <unistd.h>  // close

namespace VORLAN {
namespace SOCK {
namespace {

constexpr std::uint32_t k_closed = 1;
constexpr std::uint32_t k_user = 2;

}  // namespace

void shared_descriptor::open(int fd) {
  m_fd = fd;
  m_state.store(fd < 0 ? k_closed : 0, std::memory_order_release);
}

void shared_descriptor::close() {
  const std::uint32_t before = m_state.fetch_or(k_closed, std::memory_order_acq_rel);
  if (before == 0) ::close(m_fd);  // was open and unused
}

bool shared_descriptor::is_open() const {
  return (m_state.load(std::memory_order_acquire) & k_closed) == 0;
}

int shared_descriptor::acquire() {
  std::uint32_t state = m_state.load(std::memory_order_acquire);
  while ((state & k_closed) == 0) {
    if (m_state.compare_exchange_weak(state, state + k_user, std::memory_order_acq_rel)) {
      return m_fd;
    }
  }
  return -1;
}

void shared_descriptor::release() {
  const std::uint32_t before = m_state.fetch_sub(k_user, std::memory_order_acq_rel);
  if (before == (k_closed | k_user)) ::close(m_fd);  // closed meanwhile, and this was the last user
}

}  // namespace SOCK
}  // namespace VORLAN
