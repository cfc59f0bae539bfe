#include "sock/socket_param.h"

#include <gtest/gtest.h>

#include <string>       // std::string
#include <type_traits>  // std::is_same

namespace {

using namespace VORLAN::SOCK;

static_assert(sizeof(SOCKET_EVENT) == 4, "a 32-bit enumeration");
static_assert(std::is_same<socket_callback, int (*)(socket_param&, void*)>::value,
              "the user's function");
static_assert(std::is_convertible<SOCKET_EVENT, int>::value, "a plain enumeration");

constexpr const char* k_text = "payload";

class filled_param : public testing::Test {
 protected:
  const char* m_data = k_text;
  socket_param m_param{EVENT_RECEIVE, 7, &m_data, 3, 42};
};

void expect_fields(const socket_param& param, SOCKET_EVENT event, int id, const char* data,
                   unsigned size, unsigned processed, int sock) {
  EXPECT_EQ(event, param.get_event_type());
  EXPECT_EQ(id, param.get_socket_id());
  EXPECT_EQ(data, param.get_buff_addr());
  EXPECT_EQ(size, param.get_buff_size());
  EXPECT_EQ(processed, param.get_proc_len());
  EXPECT_EQ(sock, param.get_socket());
}

TEST(socket_event, names_have_their_numbers) {
  EXPECT_EQ(0, EVENT_CONNECT);
  EXPECT_EQ(1, EVENT_REMOTE_DISCONNECT);
  EXPECT_EQ(2, EVENT_LOCALE_DISCONNECT);
  EXPECT_EQ(3, EVENT_ERROR);
  EXPECT_EQ(4, EVENT_RECEIVE);
  EXPECT_EQ(5, EVENT_SEND);
  EXPECT_EQ(8, EVENT_NONE);
}

TEST(socket_param, a_default_record_reports_no_event_and_no_data) {
  const socket_param param;
  expect_fields(param, EVENT_NONE, 0, nullptr, 0, 0, 0);
  EXPECT_EQ("", param.get_alias());
}

TEST_F(filled_param, the_constructor_takes_five_fields) {
  expect_fields(m_param, EVENT_RECEIVE, 7, k_text, 3, 0, 42);
  EXPECT_EQ("", m_param.get_alias());
}

TEST_F(filled_param, the_data_start_is_what_the_reporters_variable_says_now) {
  m_data = k_text + 2;
  EXPECT_EQ(k_text + 2, m_param.get_buff_addr());
  m_data = nullptr;
  EXPECT_EQ(nullptr, m_param.get_buff_addr());
}

TEST_F(filled_param, setters_store_and_return_true) {
  EXPECT_TRUE(m_param.set_event_type(EVENT_SEND));
  EXPECT_TRUE(m_param.set_socket_id(-9));
  EXPECT_TRUE(m_param.set_proc_len(0xffffffffu));
  EXPECT_TRUE(m_param.set_sock(-1));
  expect_fields(m_param, EVENT_SEND, -9, k_text, 3, 0xffffffffu, -1);
}

TEST_F(filled_param, set_buff_stores_a_reference_and_a_size) {
  const char* other = "other";
  EXPECT_TRUE(m_param.set_buff(&other, 5));
  EXPECT_EQ(other, m_param.get_buff_addr());
  EXPECT_EQ(5u, m_param.get_buff_size());
}

TEST_F(filled_param, set_buff_with_a_null_reference_returns_false_and_keeps_the_old_values) {
  EXPECT_FALSE(m_param.set_buff(nullptr, 5));
  EXPECT_EQ(k_text, m_param.get_buff_addr());
  EXPECT_EQ(3u, m_param.get_buff_size());
}

TEST_F(filled_param, set_buff_with_a_size_of_0_returns_false_and_keeps_the_old_values) {
  const char* other = "other";
  EXPECT_FALSE(m_param.set_buff(&other, 0));
  EXPECT_EQ(k_text, m_param.get_buff_addr());
  EXPECT_EQ(3u, m_param.get_buff_size());
}

TEST(socket_param, set_alias_takes_a_copy_of_either_kind_of_text) {
  socket_param param;
  std::string text = "first";
  EXPECT_TRUE(param.set_alias(text));
  text = "changed";
  EXPECT_EQ("first", param.get_alias());
  EXPECT_TRUE(param.set_alias("second"));
  EXPECT_EQ("second", param.get_alias());
  EXPECT_TRUE(param.set_alias(""));
  EXPECT_EQ("", param.get_alias());
}

TEST(socket_param, set_alias_with_null_returns_true_and_keeps_the_previous_alias) {
  socket_param param;
  param.set_alias("kept");
  EXPECT_TRUE(param.set_alias(static_cast<const char*>(nullptr)));
  EXPECT_EQ("kept", param.get_alias());
}

TEST_F(filled_param, a_copy_has_every_field_but_the_alias) {
  m_param.set_alias("alias");
  m_param.set_proc_len(2);
  const socket_param copy(m_param);
  expect_fields(copy, EVENT_RECEIVE, 7, k_text, 3, 2, 42);
  EXPECT_EQ("", copy.get_alias());
  EXPECT_EQ("alias", m_param.get_alias());
}

TEST_F(filled_param, assignment_takes_every_field_and_keeps_its_own_alias) {
  m_param.set_alias("theirs");
  m_param.set_proc_len(2);
  socket_param target;
  target.set_alias("mine");
  EXPECT_EQ(&target, &(target = m_param));
  expect_fields(target, EVENT_RECEIVE, 7, k_text, 3, 2, 42);
  EXPECT_EQ("mine", target.get_alias());
}

TEST_F(filled_param, assignment_to_itself_changes_nothing) {
  m_param.set_alias("mine");
  m_param.set_proc_len(1);
  const socket_param& same = m_param;
  m_param = same;
  expect_fields(m_param, EVENT_RECEIVE, 7, k_text, 3, 1, 42);
  EXPECT_EQ("mine", m_param.get_alias());
}

}  // namespace
