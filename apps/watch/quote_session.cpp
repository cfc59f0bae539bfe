#include "apps/watch/quote_session.h"

#include <fmt/format.h>  // fmt::format
#include <poll.h>        // poll

#include <algorithm>    // std::clamp
#include <cstring>      // std::memcpy
#include <string_view>  // std::string_view
#include <utility>      // std::move

#include "apps/watch/secrets.h"

namespace kav_watch {
namespace {

using namespace std::chrono_literals;
using steady = std::chrono::steady_clock;

// A refusal that the server sends right before it closes may be noticed after the close.
constexpr std::chrono::milliseconds k_refusal_grace{300};
// The library drops queued questions when it loses the connection, so they are repeated.
constexpr std::chrono::milliseconds k_ask_again{1000};
// How long ConnServer() may take to notice that the session is to end.
constexpr std::chrono::milliseconds k_connect_stop{2000};

int milliseconds_until(steady::time_point deadline) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - steady::now()).count();
  return static_cast<int>(std::clamp<decltype(left)>(left, 0, 60'000));
}

}  // namespace

quote_session::quote_session(source_options& options, signal_source& signals, keep_quotes keep)
    : m_options(options), m_signals(signals), m_inbox(keep), m_client(CreateKAVQuoteApi()) {}

quote_session::quote_session(source_options& options, signal_source& signals, quote_taker& taker)
    : m_options(options), m_signals(signals), m_inbox(taker), m_client(CreateKAVQuoteApi()) {}

quote_session::~quote_session() {
  if (!close()) m_connector.detach();
}

std::optional<outcome> quote_session::open() {
  if (std::optional<outcome> end = connect()) return end;
  if (std::optional<outcome> end = login()) return end;
  return load_symbols();
}

quote_session::wait_result quote_session::wait_for(const condition& fulfilled,
                                                   std::chrono::milliseconds limit) {
  const steady::time_point deadline = steady::now() + limit;
  while (true) {
    m_inbox.clear_wake();
    if (fulfilled(m_inbox.facts())) return wait_result::fulfilled;
    m_signals.read_all();
    if (m_signals.end_asked()) return wait_result::end_asked;
    if (steady::now() >= deadline) return wait_result::timed_out;
    pollfd fds[] = {{m_inbox.wake_fd(), POLLIN, 0}, {m_signals.fd(), POLLIN, 0}};
    ::poll(fds, 2, milliseconds_until(deadline));
  }
}

outcome quote_session::missing(wait_result how, const std::string& what) const {
  if (how == wait_result::end_asked) return {};
  return {exit_status::no_answer,
          fmt::format("{} sent no {} within {:g} s; try again later or give a longer --timeout",
                      m_options.server_text, what,
                      static_cast<double>(m_options.timeout.count()) / 1000)};
}

std::optional<outcome> quote_session::connect() {
  m_connector = std::thread(
      [this] { m_inbox.set_connected(m_client->ConnServer(*m_options.server, &m_inbox)); });
  const wait_result how = wait_for(
      [](const session_facts& facts) { return facts.connected.has_value(); }, m_options.timeout);
  if (how != wait_result::fulfilled) return missing(how, "answer to the connection request");
  m_connector.join();
  if (*m_inbox.facts().connected) return std::nullopt;
  return outcome{exit_status::no_connection,
                 fmt::format("cannot connect to {}: refused or unreachable; check --server and "
                             "that the server runs",
                             m_options.server_text)};
}

bool quote_session::send_login() {
  KqsLoginParam login{};  // options were checked: both texts fit with their NUL
  std::memcpy(login.m_UserId, m_options.user.data(), m_options.user.size());
  const std::string_view password = m_options.password.text();
  std::memcpy(login.m_Password, password.data(), password.size());
  const bool sent = m_client->LoginToKqs(login) != 0;
  explicit_bzero(&login, sizeof(login));
  m_options.password.wipe();
  return sent;
}

std::optional<outcome> quote_session::login() {
  const bool sent = send_login();
  const auto answered = [](const session_facts& facts) { return facts.login.has_value(); };
  wait_result how = wait_result::timed_out;
  if (sent) {
    how = wait_for(
        [&](const session_facts& facts) {
          return answered(facts) || facts.disconnected_before_login;
        },
        m_options.timeout);
  }
  const bool lost = !sent || m_inbox.facts().disconnected_before_login;
  if (lost && how != wait_result::end_asked) wait_for(answered, k_refusal_grace);
  const session_facts facts = m_inbox.facts();
  if (!facts.login && !lost) return missing(how, "answer to the login");
  return judge_login(facts);
}

std::optional<outcome> quote_session::judge_login(const session_facts& facts) const {
  const std::string& server = m_options.server_text;
  if (!facts.login) {
    return outcome{exit_status::session_over,
                   fmt::format("{} closed the connection before it answered the login; check that "
                               "it is a quote server",
                               server)};
  }
  if (facts.login->accepted) return std::nullopt;
  if (facts.login->refused_by_server) {
    return outcome{
        exit_status::login_refused,
        fmt::format("{} refused the login of {}: {}; check --user and the password", server,
                    m_options.user,
                    facts.login->reason.empty() ? "no reason given" : facts.login->reason)};
  }
  return outcome{exit_status::no_symbol_list,
                 fmt::format("{} accepted the login but sent no complete symbol list ({}); try "
                             "again later",
                             server, facts.login->reason)};
}

std::optional<outcome> quote_session::load_symbols() {
  const steady::time_point deadline = steady::now() + m_options.timeout;
  const auto settled = [](const session_facts& facts) {
    return facts.symbols_complete || facts.state == link_state::over;
  };
  wait_result how = wait_result::timed_out;
  while (how == wait_result::timed_out && steady::now() < deadline) {
    m_client->QuerySymbolList();
    how = wait_for(settled,
                   std::min<std::chrono::milliseconds>(
                       k_ask_again, std::chrono::milliseconds{milliseconds_until(deadline)}));
  }
  if (how != wait_result::fulfilled) return missing(how, "symbol list");
  m_symbols = m_inbox.symbols();
  if (!m_inbox.facts().symbols_complete) return over();
  if (!m_symbols.empty()) return std::nullopt;
  return outcome{exit_status::no_symbol_list,
                 fmt::format("the symbol list of {} is empty; try again when it has symbols",
                             m_options.server_text)};
}

void quote_session::watch(const std::vector<listed_symbol>& symbols) {
  for (const listed_symbol& symbol : symbols) {
    m_client->RegisterSymbol(symbol.type, symbol.name.c_str());
  }
}

outcome quote_session::over() const {
  const char* why = m_inbox.facts().relogin_refused
                        ? "the server refused the login after a reconnection"
                        : "the login after a reconnection failed too often";
  return {exit_status::session_over,
          fmt::format("session with {} ended for good: {}; start {} again when the server is well",
                      m_options.server_text, why, m_options.program)};
}

bool quote_session::close() {
  m_inbox.close();
  if (m_connector.joinable()) {
    m_client->DisConnServer();
    const steady::time_point deadline = steady::now() + k_connect_stop;
    while (!m_inbox.facts().connected && steady::now() < deadline) {
      std::this_thread::sleep_for(10ms);
    }
    if (!m_inbox.facts().connected) {
      static_cast<void>(m_client.release());  // ConnServer() still uses it
      return false;
    }
    m_connector.join();
  }
  m_client.reset();
  return true;
}

}  // namespace kav_watch
