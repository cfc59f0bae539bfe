#include "tests/faults/fault.h"

namespace kav_faults {

const std::vector<fault>& all_faults() {
  static const std::vector<fault> faults{
      {"server-killed", "Server killed, stays away", server_killed},
      {"server-back-3s", "Server killed, back after 3 s", server_back_after_3_seconds},
      {"server-back-10min", "Server killed, back after 10 minutes", server_back_after_10_minutes},
      {"link-cut", "Link cut: no FIN, no RST, no answer", link_cut},
      {"stalled-message", "Server stalls for 3 s in the middle of a message", stalled_in_a_message},
      {"silent-login", "Server says nothing at the first login", silent_at_login},
      {"silent-relogin", "Server says nothing at any re-login", silent_at_relogin},
      {"refused-relogin", "Server refuses the re-login", refused_at_relogin},
      {"garbage", "Random bytes among the quotes", garbage},
      {"flood", "Server sends as fast as it can", flood},
      {"slow-callback", "`OnQuote` sleeps 1 s, 10,000 quotes/s", slow_callback},
      {"signals", "Signals at every thread, all the time", signal_storm},
      {"fork", "Host forks: children exec, `_exit`, `exit`", forks},
      {"fork-lives-on", "Host forks a child that lives on", child_that_lives_on},
      {"two-copies", "Two copies of the library in one process", two_copies},
      {"dlclose", "`dlclose` while a client lives; 100 loads", unloaded_while_in_use},
  };
  return faults;
}

}  // namespace kav_faults
