#include <fcntl.h>  // open
#include <gtest/gtest.h>
#include <signal.h>       // signal
#include <sys/eventfd.h>  // eventfd
#include <unistd.h>       // pipe, read, close

#include <chrono>       // std::chrono_literals
#include <string>       // std::string
#include <string_view>  // std::string_view
#include <thread>       // std::thread

#include "apps/watch/output_stream.h"

namespace kav_watch {
namespace {

using namespace std::chrono_literals;

class watch_output_test : public testing::Test {
 protected:
  void SetUp() override {
    ::signal(SIGPIPE, SIG_IGN);
    ASSERT_EQ(0, ::pipe2(m_pipe, O_CLOEXEC));
    m_interrupt = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    ASSERT_GE(m_interrupt, 0);
  }
  void TearDown() override {
    for (const int fd : {m_pipe[0], m_pipe[1], m_interrupt}) {
      if (fd >= 0) ::close(fd);
    }
  }
  void close_reader() {
    ::close(m_pipe[0]);
    m_pipe[0] = -1;
  }
  static void fill(output_stream& stream, std::size_t bytes) {
    stream.buffer().append(std::string_view{std::string(bytes, 'x')});
  }

  int m_pipe[2] = {-1, -1};
  int m_interrupt = -1;
};

TEST_F(watch_output_test, what_is_flushed_arrives_whole_and_in_order) {
  output_stream stream{m_pipe[1], m_interrupt};
  std::string sent;
  for (int i = 0; i < 50'000; ++i) sent += std::to_string(i) + "\n";
  std::string received;
  std::thread reader{[&] {
    char bytes[8192];
    for (ssize_t n = 1; n > 0 && received.size() < sent.size();) {
      n = ::read(m_pipe[0], bytes, sizeof(bytes));
      if (n > 0) received.append(bytes, static_cast<std::size_t>(n));
    }
  }};
  stream.buffer().append(std::string_view{sent});
  EXPECT_EQ(write_result::written, stream.flush());
  reader.join();
  EXPECT_TRUE(sent == received);
  EXPECT_EQ(0u, stream.buffer().size());
}

TEST_F(watch_output_test, a_reader_that_went_away_is_told) {
  output_stream stream{m_pipe[1], m_interrupt};
  close_reader();
  fill(stream, 10);
  EXPECT_EQ(write_result::reader_gone, stream.flush());
}

TEST_F(watch_output_test, a_full_disk_fails_with_its_reason) {
  const int full = ::open("/dev/full", O_WRONLY | O_CLOEXEC);
  ASSERT_GE(full, 0);
  output_stream stream{full, m_interrupt};
  fill(stream, 10);
  EXPECT_EQ(write_result::failed, stream.flush());
  EXPECT_EQ("No space left on device", stream.error_text());
  ::close(full);
}

TEST_F(watch_output_test, a_reader_that_does_not_read_is_left_when_interrupted) {
  output_stream stream{m_pipe[1], m_interrupt};
  fill(stream, 1 << 20);
  std::thread interrupter{[this] {
    const std::uint64_t one = 1;
    EXPECT_EQ(8, ::write(m_interrupt, &one, sizeof(one)));
  }};
  EXPECT_EQ(write_result::interrupted, stream.flush());
  interrupter.join();
  EXPECT_GT(stream.buffer().size(), 0u);
}

TEST_F(watch_output_test, a_reader_that_does_not_read_is_left_when_the_longest_wait_is_over) {
  output_stream stream{m_pipe[1], m_interrupt};
  fill(stream, 1 << 20);
  EXPECT_EQ(write_result::interrupted, stream.flush(20ms));
  EXPECT_GT(stream.buffer().size(), 0u);
}

TEST_F(watch_output_test, a_limited_flush_gives_up_in_time_and_keeps_the_rest) {
  output_stream stream{m_pipe[1], m_interrupt};
  fill(stream, 1 << 20);
  EXPECT_EQ(write_result::interrupted, stream.flush_for(20ms));
  const std::size_t left = stream.buffer().size();
  EXPECT_GT(left, 0u);
  EXPECT_LT(left, std::size_t{1} << 20);
}

TEST_F(watch_output_test, it_is_full_from_its_limit_on) {
  output_stream stream{m_pipe[1], m_interrupt};
  fill(stream, output_stream::k_buffer_bytes - 1);
  EXPECT_FALSE(stream.is_full());
  fill(stream, 1);
  EXPECT_TRUE(stream.is_full());
}

}  // namespace
}  // namespace kav_watch
