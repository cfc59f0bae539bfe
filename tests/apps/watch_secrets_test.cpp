#include <gtest/gtest.h>

#include <cstdlib>   // setenv, getenv
#include <optional>  // std::nullopt
#include <string>    // std::string

#include "apps/watch/secrets.h"

namespace kav_watch {
namespace {

TEST(watch_secrets, the_environment_variable_is_taken_and_removed) {
  ASSERT_EQ(0, setenv(k_password_variable, "hunter2", 1));
  const char* memory = std::getenv(k_password_variable);
  const std::optional<secret> password = take_password_from_environment();
  ASSERT_TRUE(password);
  EXPECT_EQ("hunter2", password->text());
  EXPECT_EQ('\0', *memory);
  EXPECT_EQ(nullptr, std::getenv(k_password_variable));
  EXPECT_FALSE(take_password_from_environment());
}

TEST(watch_secrets, password_arguments_are_overwritten_and_the_last_one_counts) {
  std::string a{"kav-watch"}, b{"--password"}, c{"hunter2"}, d{"--password=hunter3"}, e{"IF2509"};
  char* argv[] = {a.data(), b.data(), c.data(), d.data(), e.data(), nullptr};
  const std::optional<secret> password = take_password_from_arguments(5, argv);
  ASSERT_TRUE(password);
  EXPECT_EQ("hunter3", password->text());
  EXPECT_EQ("*******", c);
  EXPECT_EQ("--password=*******", d);
  EXPECT_EQ("IF2509", e);
  EXPECT_EQ("--password", b);
}

TEST(watch_secrets, a_password_option_without_value_overwrites_nothing) {
  std::string a{"kav-watch"}, b{"--password"};
  char* argv[] = {a.data(), b.data(), nullptr};
  EXPECT_FALSE(take_password_from_arguments(2, argv));
  EXPECT_EQ("--password", b);
}

TEST(watch_secrets, what_follows_two_dashes_are_symbols) {
  std::string a{"kav-watch"}, b{"--"}, c{"--password"}, d{"IF2509"};
  char* argv[] = {a.data(), b.data(), c.data(), d.data(), nullptr};
  EXPECT_FALSE(take_password_from_arguments(4, argv));
  EXPECT_EQ("IF2509", d);
}

TEST(watch_secrets, a_secret_keeps_what_a_login_can_carry_and_one_byte_more) {
  EXPECT_EQ("", secret{}.text());
  EXPECT_EQ(std::string(32, 'p'), secret{std::string(32, 'p')}.text());
  EXPECT_EQ(33u, secret{std::string(100, 'p')}.text().size());
}

TEST(watch_secrets, a_wiped_secret_is_overwritten_and_a_copy_of_it_is_not) {
  secret text{"hunter2"};
  const secret copy = text;
  const char* const memory = text.text().data();
  text.wipe();
  EXPECT_EQ(std::string(7, '\0'), std::string(memory, 7));
  EXPECT_EQ("", text.text());
  EXPECT_EQ("hunter2", copy.text());
}

}  // namespace
}  // namespace kav_watch
