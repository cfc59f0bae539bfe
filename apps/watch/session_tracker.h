// What the library's log lines tell about a session. There are no callbacks for losses after the
// login, for reconnections or for the end of a session that the library gives up; the lines are
// the one sign.
#pragma once

#include <string_view>  // std::string_view

namespace kav_watch {

enum class link_state { connecting, live, reconnecting, over };

std::string_view state_text(link_state state);

// Not synchronised: the owner's lock guards it.
class session_tracker {
 public:
  void read_log_line(std::string_view line);
  void login_accepted() { m_state = link_state::live; }

  link_state state() const { return m_state; }
  unsigned reconnections() const { return m_reconnections; }
  bool login_refused() const { return m_login_refused; }
  bool relogin_refused() const { return m_relogin_refused; }

 private:
  link_state m_state = link_state::connecting;
  unsigned m_reconnections = 0;
  bool m_login_refused = false;
  bool m_relogin_refused = false;
};

}  // namespace kav_watch
