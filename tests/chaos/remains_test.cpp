// What a run leaves behind is found.
#include "tests/chaos/remains.h"

#include <fcntl.h>  // open
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>  // pthread_setname_np
#include <unistd.h>   // close

#include <future>  // std::promise
#include <thread>  // std::thread

namespace kav_chaos {
namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr milliseconds k_limit{5000};
constexpr milliseconds k_short_limit{50};  // for what does not go

TEST(remains_test, nothing_left_is_nothing_found) {
  EXPECT_THAT(left_behind(look_at_process(), 1, k_limit), IsEmpty());
}

TEST(remains_test, open_descriptor_is_found) {
  const remains before = look_at_process();
  const int left = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  EXPECT_THAT(left_behind(before, 1, k_short_limit), ElementsAre(HasSubstr("descriptors")));
  ::close(left);
  EXPECT_THAT(left_behind(before, 1, k_limit), IsEmpty());
}

TEST(remains_test, thread_of_the_library_is_found_as_long_as_it_runs) {
  const remains before = look_at_process();
  std::promise<void> named, end;
  std::thread left([&] {
    ::pthread_setname_np(::pthread_self(), "kav-left");
    named.set_value();
    end.get_future().wait();
  });
  named.get_future().wait();
  EXPECT_THAT(left_behind(before, 1, k_short_limit), ElementsAre(HasSubstr("kav-left")));
  end.set_value();
  left.join();
  EXPECT_THAT(left_behind(before, 1, k_limit), IsEmpty());
}

TEST(remains_test, growing_heap_is_found) {
  const remains before = look_at_process();
  if (before.heap_bytes == 0) GTEST_SKIP() << "a sanitizer has the heap";
  std::vector<std::string> left(200, std::string(50'000, 'x'));
  EXPECT_THAT(left_behind(before, 10, k_limit), ElementsAre(HasSubstr("heap has grown")));
  left.clear();
  EXPECT_THAT(left_behind(before, 10, k_limit), IsEmpty());
}

}  // namespace
}  // namespace kav_chaos
