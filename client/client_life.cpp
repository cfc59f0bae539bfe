#include "client/client_life.h"

#include <utility>  // std::move

#include "tools/helpers.h"

namespace {

// The innermost visit of this thread.
thread_local const client_life::visit* t_innermost = nullptr;

// The innermost call of a caller's code on this thread.
thread_local const client_life::call* t_innermost_call = nullptr;

constexpr unsigned k_poll_ms = 1;  // how often wait_empty() looks

}  // namespace

void client_life::close() { m_state.fetch_or(k_closed, std::memory_order_seq_cst); }

void client_life::wait_other_calls(std::chrono::milliseconds limit) const {
  std::uint32_t own = 0;
  for (const call* at = t_innermost_call; at != nullptr; at = at->m_outer) {
    if (&at->m_life == this) ++own;
  }
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (m_calls.load(std::memory_order_seq_cst) > own &&
         std::chrono::steady_clock::now() < deadline) {
    VORLAN::TOOLS::sleep_vl(k_poll_ms);
  }
}

bool client_life::wait_empty(std::chrono::steady_clock::time_point deadline) const {
  while (m_state.load(std::memory_order_acquire) >= k_one_visitor) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    VORLAN::TOOLS::sleep_vl(k_poll_ms);
  }
  return true;
}

void client_life::give_up(farewell last, void* client) {
  m_farewell = last;
  m_client = client;
  const std::uint64_t before = m_state.fetch_or(k_closed | k_given_up, std::memory_order_acq_rel);
  if (before < k_one_visitor) last(client);
}

void client_life::expect_visitor() { m_state.fetch_add(k_one_visitor, std::memory_order_acq_rel); }

void client_life::forget_expected_visitor() { leave(); }

bool client_life::enter() {
  std::uint64_t state = m_state.load(std::memory_order_acquire);
  while ((state & k_closed) == 0) {
    if (m_state.compare_exchange_weak(state, state + k_one_visitor, std::memory_order_acq_rel)) {
      return true;
    }
  }
  return false;
}

void client_life::leave() {
  const std::uint64_t before = m_state.fetch_sub(k_one_visitor, std::memory_order_acq_rel);
  if (before == (k_one_visitor | k_closed | k_given_up)) m_farewell(m_client);
}

bool client_life::visited_by_this_thread() const {
  for (const visit* at = t_innermost; at != nullptr; at = at->m_outer) {
    if (at->m_life.get() == this) return true;
  }
  return false;
}

bool client_life::visited_by_this_library_thread() const {
  for (const visit* at = t_innermost; at != nullptr; at = at->m_outer) {
    if (at->m_life.get() == this && at->m_who == visitor::library) return true;
  }
  return false;
}

client_life::visit::visit(std::shared_ptr<client_life> life, visitor who)
    : m_life(std::move(life)), m_who(who), m_inside(m_life->enter()) {
  if (m_inside) join_list();
}

client_life::visit::visit(std::shared_ptr<client_life> life, visitor who, expected)
    : m_life(std::move(life)), m_who(who), m_inside(true) {
  join_list();
}

client_life::visit::~visit() {
  if (!m_inside) return;
  t_innermost = m_outer;
  m_life->leave();
}

void client_life::visit::join_list() {
  m_outer = t_innermost;
  t_innermost = this;
}

// Counted before the look at the flag: whoever closes the client and then finds the count without
// this call can rely on it that the flag has been seen here.
client_life::call::call(client_life& life) : m_life(life), m_outer(t_innermost_call) {
  m_life.m_calls.fetch_add(1, std::memory_order_seq_cst);
  m_allowed = (m_life.m_state.load(std::memory_order_seq_cst) & k_closed) == 0;
  t_innermost_call = this;
}

client_life::call::~call() {
  t_innermost_call = m_outer;
  m_life.m_calls.fetch_sub(1, std::memory_order_release);
}
