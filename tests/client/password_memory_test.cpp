// What a login leaves in the memory of its process.
#include <gmock/gmock.h>
#include <unistd.h>  // getpid

#include "tests/client/session_support.h"
#include "tests/support/memory_search.h"
#include "tests/support/process_view.h"

namespace kav_session {
namespace {

using kav_test::hidden_text;
using testing::IsEmpty;

class password_memory_test : public session_fixture {
 protected:
  void SetUp() override {
    if (kav_test::k_sanitized) GTEST_SKIP() << "sanitizers keep more memory than can be searched";
  }
  void log_in_with(const hidden_text& password) {
    KqsLoginParam param = login_of("trader", "");
    password.reveal(param.m_Password);
    int result = 0;
    kav_test::run_deep([&] { result = m_api->LoginToKqs(param); });
    kav_test::wipe_text(param.m_Password, sizeof(param.m_Password));
    EXPECT_NE(0, result);
  }
};

TEST_F(password_memory_test, after_a_login_no_piece_of_the_password_is_in_memory) {
  const hidden_text password;
  connect();
  log_in_with(password);
  EXPECT_THAT(password.places_in(::getpid()), IsEmpty()) << "right after the call";
  ASSERT_TRUE(m_record.wait_text("OnLoginResult(true, )"));
  EXPECT_THAT(password.places_in(::getpid()), IsEmpty()) << "with the worker at work";
  expect_nothing_left();
}

TEST_F(password_memory_test, after_a_refused_login_no_piece_of_the_password_is_in_memory) {
  const hidden_text password;
  m_how.login = kav_sim::login_answer::refuse;
  connect();
  log_in_with(password);
  ASSERT_TRUE(m_record.wait_text("OnLoginResult(false, "));
  EXPECT_THAT(password.places_in(::getpid()), IsEmpty());
  expect_nothing_left();
}

}  // namespace
}  // namespace kav_session
