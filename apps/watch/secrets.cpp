#include "apps/watch/secrets.h"

#include <strings.h>  // explicit_bzero

#include <algorithm>  // std::min
#include <cstdlib>    // std::getenv, unsetenv
#include <cstring>    // std::memset, std::strlen

namespace kav_watch {
namespace {

secret take_argument(char* value) {
  const secret password{value};
  std::memset(value, '*', std::strlen(value));
  return password;
}

}  // namespace

secret::secret(std::string_view text) : m_size(std::min(text.size(), k_most_bytes)) {
  std::memcpy(m_text, text.data(), m_size);
}

void secret::wipe() {
  explicit_bzero(m_text, sizeof(m_text));
  m_size = 0;
}

std::optional<secret> take_password_from_environment() {
  char* value = std::getenv(k_password_variable);
  if (value == nullptr) return std::nullopt;
  const secret password{value};
  explicit_bzero(value, std::strlen(value));  // the kernel shows this memory in /proc/PID/environ
  unsetenv(k_password_variable);
  return password;
}

std::optional<secret> take_password_from_arguments(int argc, char** argv) {
  constexpr std::string_view k_option = "--password", k_option_and_value = "--password=";
  std::optional<secret> password;
  for (int i = 1; i < argc; ++i) {
    const std::string_view argument{argv[i]};
    if (argument == "--") break;  // what follows are symbols
    if (argument == k_option && i + 1 < argc) {
      password = take_argument(argv[++i]);
    } else if (argument.starts_with(k_option_and_value)) {
      password = take_argument(argv[i] + k_option_and_value.size());
    }
  }
  return password;
}

std::optional<secret> take_password(int argc, char** argv) {
  const std::optional<secret> from_environment = take_password_from_environment();
  const std::optional<secret> from_arguments = take_password_from_arguments(argc, argv);
  return from_arguments ? from_arguments : from_environment;
}

}  // namespace kav_watch
