// Finds a secret in the memory of a process, without being a place where it can be found.
#pragma once

#include <sys/types.h>  // pid_t

#include <array>        // std::array
#include <cstddef>      // std::size_t
#include <string>       // std::string
#include <string_view>  // std::string_view
#include <vector>       // std::vector

namespace kav_test {

// A random text of 32 letters and digits that is kept in a form which does not show it.
class hidden_text {
 public:
  static constexpr std::size_t k_length = 32;
  static constexpr std::size_t k_piece = 8;  // this many characters in a row count as a find

  hidden_text();

  // Writes the text and a NUL; the caller wipes them again.
  void reveal(char* to) const;

  // Where in the readable and writable memory of a process a piece of it lies: the kernel's names
  // of the regions, once for each place. A process that may not be looked into is one place,
  // "unreadable".
  std::vector<std::string> places_in(pid_t process) const;

 private:
  struct region;
  void search(int memory, const region& where, std::vector<std::string>& places) const;
  bool is_piece_at(const char* bytes) const;

  // The text is the exclusive or of both. Volatile: the compiler shall not join them ahead of time.
  volatile unsigned char m_key[k_length];
  volatile unsigned char m_masked[k_length];
  std::array<bool, 256> m_begins{};  // the first characters of the pieces
};

// Runs act() some way down the stack: what it leaves there is not overwritten by what the caller
// calls next.
template <class ACT>
[[gnu::noinline]] void run_deep(ACT act) {
  volatile char gap[16384];
  gap[0] = 0;
  act();
  gap[sizeof(gap) - 1] = gap[0];
}

// Overwrites without a call.
inline void wipe_text(volatile char* text, std::size_t size) {
  for (std::size_t i = 0; i < size; ++i) text[i] = 0;
}

}  // namespace kav_test
