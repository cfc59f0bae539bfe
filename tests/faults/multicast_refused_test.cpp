// What a reception of multicast groups does when memory, threads or descriptors are refused.
#include <gtest/gtest.h>

#include <atomic>  // std::atomic
#include <chrono>  // std::chrono::milliseconds
#include <memory>  // std::unique_ptr
#include <string>  // std::string
#include <vector>  // std::vector

#include "tests/client/multicast_support.h"
#include "tests/faults/many_lives.h"
#include "tests/faults/session_life.h"
#include "tests/faults/supply.h"

namespace {

using namespace std::chrono_literals;
using kav_faults::in_library;
using kav_faults::life_event;
using kav_faults::run_lives;
using kav_faults::source;
using kav_faults::supply;

constexpr int k_lumen_symbols = 3;

// A client that receives two groups, stops, starts again and stops again. Asks once more for
// whatever is refused.
class reception_life {
 public:
  reception_life(supply& from, int number)
      : m_supply(from),
        m_groups{kav_session::group_info(kav_test::group(number), m_port.number(), "SHFE"),
                 kav_session::group_info(kav_test::group(number + 1), m_port.number(), "LUMEN")},
        m_exchange(kav_test::group(number), m_port.number()),
        m_lumen(kav_test::group(number + 1), m_port.number()) {}

  std::string run() {
    if (!create()) return "no client";
    for (int round = 0; round < 2 && m_fault.empty(); ++round) {
      if (start() && receive()) stop();
    }
    destroy();
    return m_fault;
  }

  life_event& events() { return m_events; }

 private:
  bool fail(const std::string& fault) {
    if (m_fault.empty()) m_fault = fault;
    return false;
  }

  // What is refused for good is there again after a while.
  template <class CONDITION>
  bool wait(CONDITION condition) {
    int looks = 0;
    return wait_until(
        [&] {
          if (m_supply.refused() != 0 && ++looks == k_looks_of_a_drought) m_supply.restore();
          return condition();
        },
        k_limit);
  }

  bool create() {
    return wait([&] {
      try {
        const in_library inside(m_supply);
        m_api = CreateKAVQuoteApi();
      } catch (const std::bad_alloc&) {
        if (m_supply.live_blocks != 0) fail("the factory leaves memory behind");
      }
      return m_api != nullptr;
    });
  }

  int start_once() {
    int results[2] = {-1, -1};
    int result = -1;
    try {
      const in_library inside(m_supply);
      result = StartKAVMulticast(m_api, m_groups.data(), 2, &m_events, results);
    } catch (const std::bad_alloc&) {
      fail("an exception left the library");
    }
    for (const int each : results) {
      if ((each == KAVMulticastStarted) != (result == KAVMulticastStarted)) fail("wrong results");
    }
    return result;
  }

  bool start() {
    const bool started = wait([&] {
      const int result = start_once();
      if (result == KAVMulticastStarted || !m_fault.empty()) return true;
      if (result != KAVMulticastSystemError && result != KAVMulticastGroupFailed) {
        fail(std::string("start: ") + KAVMulticastResultText(result));
      }
      return !m_fault.empty();
    });
    return (started && m_fault.empty()) || fail("not started");
  }

  // Lumen symbols need memory the first time.
  bool receive() {
    const int before = m_events.quotes;
    bool received = wait([&] {
      m_exchange.send(kav_session::shfe_datagram("rb2410", 1));
      for (int i = 0; i < k_lumen_symbols; ++i) {
        m_lumen.send(kav_session::lumen_trade("au241" + std::to_string(i), 600, 1));
      }
      const in_library inside(m_supply);
      KAVMulticastStatistics exchange{}, lumen{};
      return GetKAVMulticastStatistics(m_api, 0, &exchange) && exchange.m_Quotes > 0 &&
             GetKAVMulticastStatistics(m_api, 1, &lumen) && lumen.m_Quotes >= k_lumen_symbols;
    });
    received = received && m_events.quotes > before;
    return received || fail("no quotes");
  }

  void stop() {
    const in_library inside(m_supply);
    StopKAVMulticast(m_api);
  }

  void destroy() {
    {
      const in_library inside(m_supply);
      DestroyKAVQuoteApi(m_api);
    }
    if (wait_until([&] { return m_supply.has_all_back(); }, k_limit)) return;
    fail(std::to_string(m_supply.live_threads) + " threads and " +
         std::to_string(m_supply.live_blocks) + " blocks of memory are left");
  }

  static constexpr int k_looks_of_a_drought = 300;  // about so many milliseconds
  static constexpr std::chrono::seconds k_limit{20};

  supply& m_supply;
  kav_test::shared_port m_port;
  const std::vector<KqsMulticastInfo> m_groups;
  kav_session::group_sender m_exchange, m_lumen;
  life_event m_events;
  KAVQuoteApi* m_api = nullptr;
  std::string m_fault;
};

// Groups of their own for lives side by side.
int number_of(long life) { return static_cast<int>(2 * (life % 120)); }

class multicast_refused_test : public testing::Test {
 protected:
  void SetUp() override {
    const std::string obstacle = kav_test::shared_port().obstacle();
    if (!obstacle.empty()) GTEST_SKIP() << obstacle;
  }

  // Each single request of one kind refused, and then all from each on.
  static void refuse_each(source supply::*kind) {
    supply plenty;
    ASSERT_EQ("", reception_life(plenty, 0).run());
    const long requests = (plenty.*kind).asked();
    ASSERT_LT(0, requests);
    run_lives(2 * requests, [&](long life) {
      const long n = (life + 1) / 2;
      supply scarce;
      if (life % 2 == 0) {
        (scarce.*kind).refuse_one(n);
      } else {
        (scarce.*kind).refuse_from(n);
      }
      EXPECT_EQ("", reception_life(scarce, number_of(life)).run())
          << (life % 2 == 0 ? "request " : "requests from ") << n << " of " << requests;
    });
  }
};

}  // namespace

TEST_F(multicast_refused_test, a_reception_survives_memory_refused_at_each_request) {
  refuse_each(&supply::memory);
}

TEST_F(multicast_refused_test, a_reception_survives_its_thread_being_refused) {
  refuse_each(&supply::threads);
}

TEST_F(multicast_refused_test, a_reception_survives_descriptors_refused_at_each_request) {
  refuse_each(&supply::descriptors);
}

TEST_F(multicast_refused_test, a_reception_survives_a_host_without_memory_for_any_log_line) {
  supply plenty;
  reception_life life(plenty, 0);
  life.events().logs_to_throw = 1'000'000;
  EXPECT_EQ("", life.run());
  EXPECT_GT(1'000'000, life.events().logs_to_throw) << "there were lines";
}

TEST_F(multicast_refused_test, a_reception_survives_a_host_without_memory_for_a_quote) {
  supply plenty;
  reception_life life(plenty, 0);
  life.events().quotes_to_throw = 3;
  EXPECT_EQ("", life.run());
  EXPECT_EQ(0, life.events().quotes_to_throw);
}
