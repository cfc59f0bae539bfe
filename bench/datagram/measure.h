// Rounds of measurements, one road after the other in each, so that whatever else the machine does
// hits all of them.
#pragma once

#include <array>   // std::array
#include <memory>  // std::unique_ptr
#include <string>  // std::string
#include <vector>  // std::vector

#include "bench/datagram/group_socket.h"
#include "bench/datagram/quote_meter.h"
#include "bench/datagram/roads.h"

namespace kav_bench {

inline constexpr std::array<unsigned, 2> k_rates{1'000, 20'000};  // datagrams a second
inline constexpr unsigned k_drained = 80;  // about 100 fit into a group's buffer

struct plan {
  unsigned drain_rounds = 4'000;
  unsigned steady_rounds = 5;
  std::array<unsigned, 2> steady_datagrams{500, 10'000};  // in one round, for each of k_rates
};

// Medians over the rounds.
struct steady_figures {
  double p50_us = 0, p99_us = 0;
  double cpu_ns = 0;  // of the receiving thread, for each datagram
  unsigned long lost = 0;
};
struct road_figures {
  std::string name, key;
  double drain_cpu_ns = 0, drain_wall_ns = 0;  // for each datagram
  std::array<steady_figures, k_rates.size()> steady;
};

class measurement {
 public:
  // False, with one line in `error`: the groups cannot be used here.
  bool open(std::string& error);
  std::vector<road_figures> run(const plan& how);
  // Rounds that were left out since not all datagrams came.
  unsigned discarded() const { return m_discarded; }

 private:
  struct lane {
    quote_meter meter;
    std::unique_ptr<road> way;
    group_socket sender;
    std::vector<double> drain_cpu_ns, drain_wall_ns;
    std::array<std::vector<double>, k_rates.size()> p50_us, p99_us, cpu_ns;
    std::array<unsigned long, k_rates.size()> lost{};
    ~lane() { way.reset(); }  // before the meter goes
  };

  static std::vector<int> allowed_processors();
  void drain(lane& on);
  void run_steady(lane& on, std::size_t rate, unsigned datagrams);
  road_figures sum_up(lane& of) const;

  const std::vector<int> m_processors = allowed_processors();  // at least one
  std::vector<std::unique_ptr<lane>> m_lanes;
  unsigned m_discarded = 0;
};

}  // namespace kav_bench
