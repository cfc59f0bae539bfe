#include "apps/watch/secrets.h"

#include <cstdlib>      // std::getenv, unsetenv
#include <cstring>      // std::strlen
#include <string_view>  // std::string_view

namespace kav_watch {
namespace {

void wipe_text(char* text) { explicit_bzero(text, std::strlen(text)); }

}  // namespace

std::optional<std::string> take_password_from_environment() {
  char* value = std::getenv(k_password_variable);
  if (value == nullptr) return std::nullopt;
  std::string password{value};
  wipe_text(value);  // the kernel shows this very memory in /proc/PID/environ
  unsetenv(k_password_variable);
  return password;
}

void wipe_password_arguments(int argc, char** argv) {
  constexpr std::string_view k_option = "--password";
  for (int i = 1; i < argc; ++i) {
    const std::string_view argument{argv[i]};
    if (argument == k_option && i + 1 < argc) {
      wipe_text(argv[++i]);
    } else if (argument.starts_with("--password=")) {
      wipe_text(argv[i] + k_option.size() + 1);
    }
  }
}

void wipe(std::string& secret) {
  explicit_bzero(secret.data(), secret.size());
  secret.clear();
}

}  // namespace kav_watch
