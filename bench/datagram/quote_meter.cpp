#include "bench/datagram/quote_meter.h"

#include <pthread.h>  // pthread_getcpuclockid

#include <thread>  // std::this_thread::sleep_for

namespace kav_bench {

namespace {

constexpr std::chrono::seconds k_patience{1};
constexpr std::chrono::milliseconds k_quiet{50};  // after that long nothing more is on its way

nanoseconds read_clock(clockid_t clock) {
  timespec now{};
  ::clock_gettime(clock, &now);
  return std::chrono::seconds{now.tv_sec} + nanoseconds{now.tv_nsec};
}

// Looks seldom, so that the receiving thread is left alone.
bool wait_for(const std::atomic<bool>& flag) {
  const auto deadline = std::chrono::steady_clock::now() + k_patience;
  while (!flag.load(std::memory_order_acquire)) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::microseconds{100});
  }
  return true;
}

span now() { return {read_clock(CLOCK_MONOTONIC), read_clock(CLOCK_THREAD_CPUTIME_ID)}; }

}  // namespace

double stamp_now() { return static_cast<double>(read_clock(CLOCK_MONOTONIC).count()); }

void quote_meter::OnQuote(KavKqsIntrumentType, KAVMarketDepthQuoteData* quote) {
  const unsigned number = m_seen.load(std::memory_order_relaxed);
  if (m_steady.load(std::memory_order_relaxed)) {
    const double stamp = quote->LastPrice;
    const nanoseconds delay{static_cast<std::int64_t>(stamp_now() - stamp)};
    if (number < m_delays.size()) m_delays[number] = delay;
  } else {
    on_drained_quote(number);
  }
  m_seen.store(number + 1, std::memory_order_release);
}

void quote_meter::on_drained_quote(unsigned number) {
  if (number == 0) {
    hold();
  } else if (number == m_wanted.load(std::memory_order_relaxed)) {
    finish();
  }
}

void quote_meter::hold() {
  clockid_t clock = CLOCK_THREAD_CPUTIME_ID;
  ::pthread_getcpuclockid(::pthread_self(), &clock);
  m_receiver_clock.store(clock);
  m_held.store(true);
  m_released.wait(false);
  m_start = now();
}

void quote_meter::finish() {
  m_end = now();
  m_done.store(true, std::memory_order_release);
}

void quote_meter::begin_drain(unsigned quotes) {
  m_steady.store(false);
  m_held.store(false);
  m_released.store(false);
  m_done.store(false);
  m_wanted.store(quotes);
  m_seen.store(0);
}

bool quote_meter::wait_held() const { return wait_for(m_held); }

void quote_meter::release() {
  m_released.store(true);
  m_released.notify_all();
}

bool quote_meter::wait_drained(span& out) const {
  if (!wait_for(m_done)) return false;
  out = {m_end.wall - m_start.wall, m_end.cpu - m_start.cpu};
  return true;
}

void quote_meter::begin_steady(std::size_t quotes) {
  m_delays.assign(quotes, nanoseconds{0});
  m_seen.store(0);
  m_steady.store(true);
}

std::vector<nanoseconds> quote_meter::take_delays(std::size_t quotes) {
  unsigned before = seen();
  for (auto quiet_since = std::chrono::steady_clock::now(); seen() < quotes;) {
    std::this_thread::sleep_for(std::chrono::milliseconds{1});
    const auto present = std::chrono::steady_clock::now();
    if (seen() != before) quiet_since = present;
    if (present - quiet_since > k_quiet) break;
    before = seen();
  }
  m_delays.resize(seen());
  return std::move(m_delays);
}

nanoseconds quote_meter::cpu_of_receiver() const { return read_clock(m_receiver_clock.load()); }

}  // namespace kav_bench
