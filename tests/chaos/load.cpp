#include "tests/chaos/load.h"

#include <pthread.h>  // pthread_setname_np

#include <algorithm>  // std::max
#include <array>      // std::array

namespace kav_chaos {
namespace {

using std::chrono::milliseconds;
using clock = std::chrono::steady_clock;

constexpr milliseconds k_nap{10};
constexpr std::size_t k_naps = 1000;       // about ten seconds
constexpr std::size_t k_thread_each = 25;  // of the naps is followed by a new thread
// Several threads have their turns within one operation, each as late as the meter's.
constexpr int k_turns = 10;
constexpr milliseconds k_least_slack{1000 * k_slow};

}  // namespace

load_meter::load_meter() : m_thread([this] { measure(); }) {}

load_meter::~load_meter() {
  m_done.store(true);
  m_thread.join();
}

milliseconds load_meter::slack() const {
  return k_least_slack + milliseconds{k_turns * m_recent_ms.load()};
}

long long load_meter::nap_late_ms() {
  const clock::time_point before = clock::now();
  std::this_thread::sleep_for(k_nap);
  return std::chrono::floor<milliseconds>(clock::now() - before - k_nap).count();
}

long long load_meter::thread_late_ms() {
  const clock::time_point before = clock::now();
  clock::time_point begun;
  std::thread([&begun] { begun = clock::now(); }).join();
  return std::chrono::floor<milliseconds>(begun - before).count();
}

void load_meter::measure() {
  ::pthread_setname_np(::pthread_self(), "chaos-load");
  std::array<long long, k_naps> late{};
  for (std::size_t i = 0; !m_done.load(); i = (i + 1) % k_naps) {
    late[i] = nap_late_ms();
    if (i % k_thread_each == 0) late[i] = std::max(late[i], thread_late_ms());
    m_recent_ms.store(*std::max_element(late.begin(), late.end()));
    m_worst_ms.store(std::max(m_worst_ms.load(), late[i]));
  }
}

}  // namespace kav_chaos
