// The verdict over invented runs.
#include "tests/soak/verdict.h"

#include <gmock/gmock.h>

namespace kav_soak {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

// Two minutes without a fault: a reconnection every 5 s, memory that moves by some pages.
soak_record good_run(std::size_t seconds = 120) {
  soak_record record;
  record.before.descriptors = record.after.descriptors = 6;
  record.before.threads = record.after.threads = 1;
  for (std::size_t second = 0; second < seconds; ++second) {
    sample s;
    s.seconds = static_cast<double>(second);
    s.quotes = second * 10'000;
    s.reconnections = second / 5;
    s.descriptors = second % 5 < 2 ? 6 : 11;
    s.threads = second % 5 < 2 ? 5 : 6;
    s.resident_kib = 9000 + second % 7 * 4;
    record.samples.push_back(s);
  }
  record.sessions = seconds / 5 + 1;
  return record;
}

template <class Change>
std::vector<std::string> faults_after(Change change, std::size_t seconds = 120) {
  soak_record record = good_run(seconds);
  change(record);
  return faults_of(record);
}

void grow(soak_record& record, double kib_per_minute) {
  for (sample& s : record.samples) {
    s.resident_kib += static_cast<std::uint64_t>(s.seconds / 60 * kib_per_minute);
  }
}

TEST(verdict_test, run_without_faults_is_good) { EXPECT_THAT(faults_of(good_run()), IsEmpty()); }

TEST(verdict_test, descriptor_that_is_left_is_named) {
  EXPECT_THAT(faults_after([](soak_record& r) { r.after.descriptors = 7; }),
              ElementsAre("6 descriptors before the client's life, 7 after it"));
}

TEST(verdict_test, thread_that_is_left_is_named) {
  EXPECT_THAT(faults_after([](soak_record& r) { r.after.threads = 2; }),
              ElementsAre("1 threads before the client's life, 2 after it"));
}

TEST(verdict_test, descriptors_that_pile_up_during_the_run_are_a_fault) {
  EXPECT_THAT(faults_after([](soak_record& r) {
                for (sample& s : r.samples) s.descriptors += s.reconnections / 4;
              }),
              ElementsAre(HasSubstr("descriptors in use grew")));
}

TEST(verdict_test, threads_that_pile_up_during_the_run_are_a_fault) {
  EXPECT_THAT(faults_after([](soak_record& r) {
                for (sample& s : r.samples) s.threads += s.reconnections / 4;
              }),
              ElementsAre(HasSubstr("threads in use grew")));
}

TEST(verdict_test, slope_is_that_of_the_second_half_alone) {
  soak_record record = good_run();
  for (sample& s : record.samples) s.resident_kib = s.seconds < 60 ? 5000 : 9000;
  EXPECT_DOUBLE_EQ(0, resident_slope(record.samples));
  grow(record, 60);
  EXPECT_NEAR(60, resident_slope(record.samples), 1);
}

TEST(verdict_test, memory_may_move_by_some_pages_in_a_short_run) {
  EXPECT_THAT(faults_after([](soak_record& r) { grow(r, 200); }), IsEmpty());
  EXPECT_THAT(faults_after([](soak_record& r) { grow(r, 300); }),
              ElementsAre(HasSubstr("resident memory rose by 29")));
}

TEST(verdict_test, memory_may_rise_by_32_kib_a_minute_at_most_in_a_long_run) {
  EXPECT_THAT(faults_after([](soak_record& r) { grow(r, 30); }, 1800), IsEmpty());
  EXPECT_THAT(faults_after([](soak_record& r) { grow(r, 35); }, 1800),
              ElementsAre(HasSubstr("at most 479 KiB are allowed")));
}

TEST(verdict_test, session_without_a_quote_is_a_fault) {
  EXPECT_THAT(faults_after([](soak_record& r) { r.silent_sessions = 1; }),
              ElementsAre("1 of 25 sessions ended without a quote"));
}

TEST(verdict_test, quote_out_of_order_is_a_fault) {
  EXPECT_THAT(faults_after([](soak_record& r) { r.out_of_order = 3; }),
              ElementsAre("3 quotes came twice or out of order"));
}

TEST(verdict_test, client_that_gave_up_is_a_fault) {
  EXPECT_THAT(faults_after([](soak_record& r) { r.login_gave_up = 1; }),
              ElementsAre("the client gave up 1 times"));
}

TEST(verdict_test, run_that_hardly_reconnects_has_shown_nothing) {
  EXPECT_THAT(faults_after([](soak_record& r) {
                for (sample& s : r.samples) s.reconnections /= 10;
              }),
              ElementsAre("2 reconnections in 119 s, fewer than 7"));
}

TEST(verdict_test, run_of_a_few_seconds_is_not_judged) {
  EXPECT_THAT(faults_after([](soak_record&) {}, 7),
              ElementsAre("only 7 samples: too short a run to judge"));
}

}  // namespace
}  // namespace kav_soak
