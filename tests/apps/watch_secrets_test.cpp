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
  EXPECT_EQ("hunter2", take_password_from_environment());
  EXPECT_EQ('\0', *memory);
  EXPECT_EQ(nullptr, std::getenv(k_password_variable));
  EXPECT_EQ(std::nullopt, take_password_from_environment());
}

TEST(watch_secrets, password_arguments_are_overwritten_and_others_kept) {
  std::string a{"kav-watch"}, b{"--password"}, c{"hunter2"}, d{"--password=hunter3"}, e{"IF2509"};
  char* argv[] = {a.data(), b.data(), c.data(), d.data(), e.data(), nullptr};
  wipe_password_arguments(5, argv);
  EXPECT_EQ(std::string(7, '\0'), c);
  EXPECT_EQ("--password=" + std::string(7, '\0'), d);
  EXPECT_EQ("IF2509", e);
  EXPECT_EQ("--password", b);
}

TEST(watch_secrets, a_password_option_without_value_overwrites_nothing) {
  std::string a{"kav-watch"}, b{"--password"};
  char* argv[] = {a.data(), b.data(), nullptr};
  wipe_password_arguments(2, argv);
  EXPECT_EQ("--password", b);
}

TEST(watch_secrets, a_wiped_text_is_empty) {
  std::string secret{"hunter2"};
  wipe(secret);
  EXPECT_TRUE(secret.empty());
}

}  // namespace
}  // namespace kav_watch
