// Takes the password out of the places where other programs of the machine could read it.
#pragma once

#include <cstddef>      // std::size_t
#include <optional>     // std::optional
#include <string_view>  // std::string_view

namespace kav_watch {

inline constexpr char k_password_variable[] = "KAV_PASSWORD";

// A short text that leaves nothing behind: each copy is overwritten when it goes, in a way that the
// compiler does not leave out.
class secret {
 public:
  static constexpr std::size_t k_most_bytes = 33;  // one more than a login can carry: too long

  secret() = default;
  explicit secret(std::string_view text);  // cut to k_most_bytes
  secret(const secret&) = default;
  secret& operator=(const secret&) = default;
  ~secret() { wipe(); }

  std::string_view text() const { return {m_text, m_size}; }
  void wipe();  // empty from now on

 private:
  std::size_t m_size = 0;
  char m_text[k_most_bytes] = {};
};

// The password of the environment, which is overwritten there and removed. Nothing when unset.
// Only while the process has one thread.
std::optional<secret> take_password_from_environment();

// The last value of "--password X" and "--password=X". All of them are replaced by asterisks in the
// argument memory, which is what the process list shows and what the command line is parsed from.
// It was readable until now.
std::optional<secret> take_password_from_arguments(int argc, char** argv);

// Takes it from both places, whichever counts; that of the arguments does, where there are both.
std::optional<secret> take_password(int argc, char** argv);

}  // namespace kav_watch
