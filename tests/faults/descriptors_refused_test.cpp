// What the library does when descriptors are refused: once at each place where it opens one, for
// good from each place on until there are some again, and at the limit of the process.
#include <gtest/gtest.h>
#include <sys/resource.h>  // setrlimit
#include <unistd.h>        // dup

#include <chrono>  // std::chrono_literals

#include "tests/faults/many_lives.h"
#include "tests/faults/session_life.h"
#include "tests/faults/supply.h"

namespace {

using namespace std::chrono_literals;
using kav_faults::session_life;
using kav_faults::supply;

// As long as it lives, the process can open no descriptor.
class no_descriptors_left {
 public:
  no_descriptors_left() {
    ::getrlimit(RLIMIT_NOFILE, &m_before);
    const rlimit none{static_cast<rlim_t>(next_descriptor()), m_before.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &none);
    m_applied = next_descriptor() < 0;
  }
  ~no_descriptors_left() { ::setrlimit(RLIMIT_NOFILE, &m_before); }
  no_descriptors_left(const no_descriptors_left&) = delete;
  no_descriptors_left& operator=(const no_descriptors_left&) = delete;
  bool is_applied() const { return m_applied; }

 private:
  static int next_descriptor() {
    const int fd = ::dup(STDERR_FILENO);
    if (fd >= 0) ::close(fd);
    return fd;
  }

  rlimit m_before{};
  bool m_applied = false;
};

class descriptor_limit_test : public testing::Test {
 protected:
  void SetUp() override {
    if (kav_test::k_sanitized) GTEST_SKIP() << "sanitizers need descriptors of their own";
    ASSERT_TRUE(m_life.start());
  }
  void TearDown() override {
    if (IsSkipped()) return;
    EXPECT_TRUE(m_life.reach_quote()) << m_life.fault();
    EXPECT_TRUE(m_life.destroy()) << m_life.fault();
  }

  supply m_supply;
  session_life m_life{m_supply};
};

}  // namespace

TEST(descriptors_refused_test, a_session_survives_each_single_refusal) {
  kav_faults::refuse_each(&supply::descriptors);
}

TEST(descriptors_refused_test, a_session_survives_a_drought_that_begins_at_any_descriptor) {
  kav_faults::refuse_from_each(&supply::descriptors);
}

TEST_F(descriptor_limit_test, connecting_fails_until_there_are_descriptors_again) {
  const no_descriptors_left limit;
  ASSERT_TRUE(limit.is_applied());
  EXPECT_FALSE(m_life.connect());
  EXPECT_EQ(0, m_supply.live_threads);
  EXPECT_FALSE(m_life.log_in());
}

TEST_F(descriptor_limit_test, reconnecting_goes_on_until_there_are_descriptors_again) {
  ASSERT_TRUE(m_life.reach_quote()) << m_life.fault();
  const int logins = m_life.events().logins;
  // The descriptors of the old connection are closed before a new one is tried: they are taken.
  const std::size_t before = kav_test::open_descriptors();
  m_life.server().drop_all();
  ASSERT_TRUE(wait_until([&] { return kav_test::open_descriptors() < before; }, 10s));
  {
    const no_descriptors_left limit;
    ASSERT_TRUE(limit.is_applied());
    EXPECT_TRUE(wait_until([this] { return m_life.events().failed_connections >= 1; }, 10s));
  }
  EXPECT_TRUE(m_life.reach_quote()) << m_life.fault();
  EXPECT_EQ(logins, m_life.events().logins) << "mended without the host";
}
