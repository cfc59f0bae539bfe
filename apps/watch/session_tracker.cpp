#include "apps/watch/session_tracker.h"

#include <algorithm>  // std::any_of
#include <iterator>   // std::begin

namespace kav_watch {
namespace {

// Beginnings of the lines after which the library's worker connects anew.
constexpr std::string_view k_loss_lines[] = {
    "[on_cache_callback] EVENT_REMOTE_DISCONNECT,thd_is_run:1",
    "[QuoteClient] reveive error length msg.",
    "[QuoteClient] tcp client send reg symbol req error.",
    "[QuoteClient] tcp client send unreg symbol req error.",
    "[QuoteClient] connect server failed",
    "[QuoteClient] wait for login response timeout.",
};

bool tells_loss(std::string_view line) {
  return std::any_of(std::begin(k_loss_lines), std::end(k_loss_lines),
                     [line](std::string_view start) { return line.starts_with(start); });
}

}  // namespace

std::string_view state_text(link_state state) {
  switch (state) {
    case link_state::connecting:
      return "connecting";
    case link_state::live:
      return "live";
    case link_state::reconnecting:
      return "reconnecting";
    case link_state::over:
      return "over";
  }
  return "";
}

void session_tracker::read_log_line(std::string_view line) {
  if (line.starts_with("[QuoteClient] relogin success")) {
    m_state = link_state::live;
    ++m_reconnections;
  } else if (line.starts_with("[QuoteClient] _th_kqc_send_and_reconn end")) {
    m_state = link_state::over;
  } else if (line.starts_with("[QuoteClient] relogin failed")) {
    m_relogin_refused = true;
  } else if (line.starts_with("[QuoteClient] login failed")) {
    m_login_refused = true;
  } else if (tells_loss(line)) {
    m_state = link_state::reconnecting;
  }
}

}  // namespace kav_watch
