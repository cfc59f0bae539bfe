#include "bench/datagram/measure.h"

#include <sched.h>      // sched_setaffinity
#include <sys/prctl.h>  // PR_SET_TIMERSLACK

#include <algorithm>  // std::nth_element
#include <cerrno>     // errno
#include <cstring>    // strerror
#include <thread>     // std::this_thread::sleep_until

#include "apps/feed/encode.h"
#include "tools/helpers.h"

namespace kav_bench {

namespace {

constexpr unsigned short k_port = 30'001;
constexpr std::chrono::microseconds k_longest_spin{100};  // pauses up to this one are not slept

// For the calling thread and those that it creates from now on.
void stay_on(int processor) {
  cpu_set_t one;
  CPU_ZERO(&one);
  CPU_SET(processor, &one);
  ::sched_setaffinity(0, sizeof(one), &one);
}

kav_feed::datagram stamped_record() {
  KAVMarketDepthQuoteData tick{};
  VORLAN::TOOLS::strncpy_vl(tick.TradingDay, sizeof(tick.TradingDay), "20240304");
  VORLAN::TOOLS::strncpy_vl(tick.InstrumentID, sizeof(tick.InstrumentID), "rb2410");
  VORLAN::TOOLS::strncpy_vl(tick.UpdateTime, sizeof(tick.UpdateTime), "09:30:01");
  tick.LastPrice = stamp_now();
  tick.Volume = 12'345;
  return kav_feed::encode_shfe(tick);
}

bool send_record(const group_socket& to) {
  const kav_feed::datagram record = stamped_record();
  return to.send(record.bytes, record.length);
}

// Of unsorted values; `share` is 0.5 for the median.
double quantile(std::vector<double> values, double share) {
  if (values.empty()) return 0;
  const auto at = static_cast<std::ptrdiff_t>(share * static_cast<double>(values.size() - 1));
  std::nth_element(values.begin(), values.begin() + at, values.end());
  return values[static_cast<std::size_t>(at)];
}

std::vector<double> in_microseconds(const std::vector<nanoseconds>& times) {
  std::vector<double> result;
  result.reserve(times.size());
  for (const nanoseconds time : times) result.push_back(static_cast<double>(time.count()) / 1e3);
  return result;
}

void wait_for(std::chrono::steady_clock::time_point when, nanoseconds pause) {
  if (pause > k_longest_spin) std::this_thread::sleep_until(when);
  while (std::chrono::steady_clock::now() < when) {
  }
}

void send_steadily(const group_socket& to, unsigned rate, unsigned datagrams) {
  const nanoseconds pause = nanoseconds{std::chrono::seconds{1}} / rate;
  auto when = std::chrono::steady_clock::now();
  for (unsigned sent = 0; sent < datagrams; ++sent, when += pause) {
    wait_for(when, pause);
    send_record(to);
  }
}

}  // namespace

std::vector<int> measurement::allowed_processors() {
  cpu_set_t allowed;
  CPU_ZERO(&allowed);
  ::sched_getaffinity(0, sizeof(allowed), &allowed);
  std::vector<int> result;
  for (int i = 0; i < CPU_SETSIZE; ++i) {
    if (CPU_ISSET(i, &allowed)) result.push_back(i);
  }
  if (result.empty()) result.push_back(0);
  return result;
}

bool measurement::open(std::string& error) {
  ::prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);  // the sender's pauses shall be what they say
  // Where the scheduler happens to put a receiver must not decide: all of them share one processor.
  stay_on(m_processors.front());
  std::vector<std::unique_ptr<road>> roads = make_roads();
  for (std::size_t i = 0; i < roads.size(); ++i) {
    const group_address group{"239.255.20." + std::to_string(i + 1), k_port};
    auto made = std::make_unique<lane>();
    made->way = std::move(roads[i]);
    errno = 0;
    if (!made->way->open(group, made->meter) || !made->sender.open_sender(group)) {
      error = std::string("cannot use group ") + group.ip +
              " on 127.0.0.1: " + (errno != 0 ? std::strerror(errno) : "not received") +
              "; is the loopback interface up?";
      return false;
    }
    m_lanes.push_back(std::move(made));
  }
  return true;
}

std::vector<road_figures> measurement::run(const plan& how) {
  stay_on(m_processors.front());  // what is drained is warm in the cache: nothing hides our share
  for (unsigned round = 0; round < how.drain_rounds; ++round) {
    for (std::size_t i = 0; i < m_lanes.size(); ++i) {
      drain(*m_lanes[(i + round) % m_lanes.size()]);
    }
  }
  stay_on(m_processors.back());  // beside the receivers where there is a place
  for (unsigned round = 0; round < how.steady_rounds; ++round) {
    for (std::size_t rate = 0; rate < k_rates.size(); ++rate) {
      for (std::size_t i = 0; i < m_lanes.size(); ++i) {
        run_steady(*m_lanes[(i + round) % m_lanes.size()], rate, how.steady_datagrams[rate]);
      }
    }
  }
  std::vector<road_figures> figures;
  for (const std::unique_ptr<lane>& each : m_lanes) figures.push_back(sum_up(*each));
  return figures;
}

// One datagram that is held in the callback, and behind it as many as are timed.
void measurement::drain(lane& on) {
  on.meter.begin_drain(k_drained);
  if (!send_record(on.sender) || !on.meter.wait_held()) {
    ++m_discarded;
    return;
  }
  for (unsigned i = 0; i < k_drained; ++i) send_record(on.sender);
  on.meter.release();
  span taken;
  if (!on.meter.wait_drained(taken)) {
    ++m_discarded;
    return;
  }
  on.drain_cpu_ns.push_back(static_cast<double>(taken.cpu.count()) / k_drained);
  on.drain_wall_ns.push_back(static_cast<double>(taken.wall.count()) / k_drained);
}

void measurement::run_steady(lane& on, std::size_t rate, unsigned datagrams) {
  on.meter.begin_steady(datagrams);
  const nanoseconds before = on.meter.cpu_of_receiver();
  send_steadily(on.sender, k_rates[rate], datagrams);
  const std::vector<double> delays = in_microseconds(on.meter.take_delays(datagrams));
  const nanoseconds cpu = on.meter.cpu_of_receiver() - before;
  on.lost[rate] += datagrams - delays.size();
  if (delays.empty()) return;
  on.p50_us[rate].push_back(quantile(delays, 0.5));
  on.p99_us[rate].push_back(quantile(delays, 0.99));
  on.cpu_ns[rate].push_back(static_cast<double>(cpu.count()) / static_cast<double>(delays.size()));
}

road_figures measurement::sum_up(lane& of) const {
  road_figures figures;
  figures.name = of.way->name();
  figures.key = of.way->key();
  figures.drain_cpu_ns = quantile(of.drain_cpu_ns, 0.5);
  figures.drain_wall_ns = quantile(of.drain_wall_ns, 0.5);
  for (std::size_t rate = 0; rate < k_rates.size(); ++rate) {
    figures.steady[rate] = {quantile(of.p50_us[rate], 0.5), quantile(of.p99_us[rate], 0.5),
                            quantile(of.cpu_ns[rate], 0.5), of.lost[rate]};
  }
  return figures;
}

}  // namespace kav_bench
