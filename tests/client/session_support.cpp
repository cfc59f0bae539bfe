#include "tests/client/session_support.h"

#include <arpa/inet.h>   // htons
#include <dirent.h>      // opendir
#include <netinet/in.h>  // sockaddr_in
#include <poll.h>        // poll
#include <pthread.h>     // pthread_getname_np
#include <sys/socket.h>  // socket
#include <unistd.h>      // close

#include <algorithm>  // std::sort
#include <cstring>    // memcpy
#include <fstream>    // std::ifstream

#include "apps/sim/wire.h"

namespace kav_session {

using kav_test::callback_kind;
using kav_test::recorded_call;

namespace {

std::string text_of(const recorded_call& c) {
  const std::string success = c.success ? "true" : "false";
  const std::string type = std::to_string(c.type);
  std::string inside;
  switch (c.kind) {
    case callback_kind::login_result:
      inside = success + ", " + c.text;
      break;
    case callback_kind::log:
      inside = std::to_string(c.level) + ", " + c.text;
      break;
    case callback_kind::symbol_registered:
    case callback_kind::symbol_unregistered:
      inside = type + ", " + c.text + ", " + success;
      break;
    case callback_kind::symbol_list:
      inside = type + ", " + c.text + ", " + (c.last ? "true" : "false");
      break;
    case callback_kind::quote:
      inside = type;
      break;
    default:
      break;
  }
  return std::string(kav_test::name_of(c.kind)) + "(" + inside + ")";
}

bool begins(const call& c, const std::string& beginning) {
  return c.what.compare(0, beginning.size(), beginning) == 0;
}

}  // namespace

session_record::session_record() {
  for (int kind = 0; kind <= static_cast<int>(callback_kind::symbol_list); ++kind) {
    on(static_cast<callback_kind>(kind), [this](const recorded_call& c) { observe(c); });
  }
}

void session_record::observe(const recorded_call& recorded) {
  const bool library = recorded.thread_name.compare(0, 4, "kav-") == 0;
  const call c{text_of(recorded), library ? recorded.thread_name : "caller", recorded.at};
  std::shared_ptr<const hook> todo;
  {
    const std::lock_guard<std::mutex> hold{m_text_lock};
    if (m_forbidden) m_violations.push_back(c.what + " on " + c.thread);
    if (recorded.kind == callback_kind::log &&
        recorded.length != static_cast<int>(recorded.text.size())) {
      m_violations.push_back("wrong length of " + c.what);
    }
    if (recorded.kind != callback_kind::quote) m_texts.push_back(c);
    todo = m_hook;
  }
  if (recorded.kind == callback_kind::quote) ++m_quote_count;
  if (todo != nullptr && *todo) (*todo)(c);
}

void session_record::set_hook(hook h) {
  auto shared = std::make_shared<const hook>(std::move(h));
  const std::lock_guard<std::mutex> hold{m_text_lock};
  m_hook = std::move(shared);
}

std::vector<call> session_record::texts() const {
  const std::lock_guard<std::mutex> hold{m_text_lock};
  return m_texts;
}

std::vector<recorded_call> session_record::quotes() const { return of(callback_kind::quote); }

std::vector<std::string> session_record::calls_on(const std::string& thread) const {
  std::vector<std::string> result;
  for (const call& c : texts()) {
    if (c.thread == thread) result.push_back(c.what);
  }
  return result;
}

std::size_t session_record::text_count(const std::string& beginning) const {
  const std::lock_guard<std::mutex> hold{m_text_lock};
  return static_cast<std::size_t>(std::count_if(
      m_texts.begin(), m_texts.end(), [&](const call& c) { return begins(c, beginning); }));
}

bool session_record::wait_text(const std::string& beginning, std::size_t times,
                               milliseconds limit) const {
  return wait_until([&] { return text_count(beginning) >= times; }, limit);
}

call session_record::nth(const std::string& beginning, std::size_t n) const {
  for (const call& c : texts()) {
    if (begins(c, beginning) && n-- == 0) return c;
  }
  ADD_FAILURE() << "no such call: " << beginning;
  return {};
}

void session_record::forget() {
  clear();
  m_quote_count = 0;
  const std::lock_guard<std::mutex> hold{m_text_lock};
  m_texts.clear();
}

void session_record::forbid(int inside) {
  m_forbidden = true;
  const int now = running();
  if (now <= inside) return;
  const std::lock_guard<std::mutex> hold{m_text_lock};
  m_violations.push_back(std::to_string(now) + " calls still running");
}

std::vector<std::string> session_record::violations() const {
  const std::lock_guard<std::mutex> hold{m_text_lock};
  return m_violations;
}

std::vector<std::string> library_threads() {
  std::vector<std::string> names;
  DIR* const tasks = ::opendir("/proc/self/task");
  if (tasks == nullptr) return names;
  while (const dirent* const entry = ::readdir(tasks)) {
    std::ifstream file{std::string("/proc/self/task/") + entry->d_name + "/comm"};
    std::string name;
    if (std::getline(file, name) && name.compare(0, 4, "kav-") == 0) names.push_back(name);
  }
  ::closedir(tasks);
  std::sort(names.begin(), names.end());
  return names;
}

std::size_t library_threads(const std::string& name) {
  const std::vector<std::string> all = library_threads();
  return static_cast<std::size_t>(std::count(all.begin(), all.end(), name));
}

std::size_t open_descriptors() {
  std::size_t count = 0;
  DIR* const files = ::opendir("/proc/self/fd");
  if (files == nullptr) return 0;
  while (::readdir(files) != nullptr) ++count;
  ::closedir(files);
  return count;
}

KqsTcpInfo endpoint_of(unsigned short port) {
  KqsTcpInfo info{};
  std::strcpy(info.m_Label, "sim");
  std::strcpy(info.m_ServerIp, "127.0.0.1");
  info.m_ServerPort = port;
  return info;
}

KqsLoginParam login_of(const std::string& user, const std::string& password) {
  KqsLoginParam param{};
  std::memcpy(param.m_UserId, user.data(), std::min(user.size(), sizeof(param.m_UserId) - 1));
  std::memcpy(param.m_Password, password.data(),
              std::min(password.size(), sizeof(param.m_Password) - 1));
  return param;
}

KAVMarketDepthQuoteData quote_of(const std::string& symbol, double last) {
  KAVMarketDepthQuoteData quote{};
  std::memcpy(quote.InstrumentID, symbol.data(), symbol.size());
  quote.LastPrice = last;
  return quote;
}

milliseconds since(clock::time_point start) {
  return std::chrono::duration_cast<milliseconds>(clock::now() - start);
}

black_hole::black_hole() {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof(address);
  auto* const where = reinterpret_cast<sockaddr*>(&address);
  m_listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (m_listener >= 0 && ::bind(m_listener, where, size) == 0 && ::listen(m_listener, 0) == 0 &&
      ::getsockname(m_listener, where, &size) == 0) {
    m_port = ntohs(address.sin_port);
  }
}

bool black_hole::serve_one_login() {
  m_served = ::accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
  char request[kav_sim::k_login_request_bytes];
  const std::string answer = kav_sim::login_answer_message('Y', "", kav_sim::text_fill::zero);
  const std::string end = kav_sim::list_end_message();
  return ::recv(m_served, request, kav_sim::k_login_request_bytes, MSG_WAITALL) > 0 &&
         ::send(m_served, answer.data(), answer.size(), MSG_NOSIGNAL) > 0 &&
         ::recv(m_served, request, kav_sim::k_list_request_bytes, MSG_WAITALL) > 0 &&
         ::send(m_served, end.data(), end.size(), MSG_NOSIGNAL) > 0;
}

bool black_hole::fill() {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(m_port);
  for (int tries = 0; tries < 16; ++tries) {
    const int filler = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    m_fillers.push_back(filler);
    if (::connect(filler, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0) continue;
    pollfd wait{filler, POLLOUT, 0};
    if (::poll(&wait, 1, 200) == 0) return true;
  }
  return false;
}

void black_hole::drop() {
  if (m_served >= 0) ::close(m_served);
  m_served = -1;
}

black_hole::~black_hole() {
  drop();
  for (const int filler : m_fillers) ::close(filler);
  if (m_listener >= 0) ::close(m_listener);
}

session_fixture::session_fixture() {
  m_options.symbols = {{"IF2509", '1'}, {"cs1709", '2'}, {"0", '3'}};
  make_client();
}

session_fixture::~session_fixture() {
  if (m_api != nullptr) DestroyKAVQuoteApi(m_api);
}

void session_fixture::TearDown() { expect_nothing_left(); }

void session_fixture::start_server() {
  m_server = std::make_unique<kav_sim::quote_server>(m_options);
  m_server->set_behaviour(m_how);
  ASSERT_TRUE(m_server->start()) << m_server->start_error();
}

bool session_fixture::conn_server() { return conn_server_at(m_server->port()); }

bool session_fixture::conn_server_at(unsigned short port) {
  KqsTcpInfo server = endpoint_of(port);
  return m_api->ConnServer(server, &m_record);
}

int session_fixture::send_login() {
  KqsLoginParam param = login_of("trader", "abc");
  return m_api->LoginToKqs(param);
}

void session_fixture::connect() {
  if (m_server == nullptr) start_server();
  ASSERT_TRUE(conn_server());
}

void session_fixture::log_in() {
  connect();
  const std::size_t before = m_record.text_count("OnLoginResult(true, )");
  ASSERT_NE(0, send_login());
  ASSERT_TRUE(m_record.wait_text("OnLoginResult(true, )", before + 1));
}

void session_fixture::register_symbol(const std::string& symbol, int type) {
  const std::size_t before = m_record.text_count("OnSymbolRegistered(");
  m_api->RegisterSymbol(static_cast<KavKqsIntrumentType>(type), symbol.c_str());
  ASSERT_TRUE(m_record.wait_text("OnSymbolRegistered(", before + 1));
}

milliseconds session_fixture::destroy() {
  const clock::time_point start = clock::now();
  DestroyKAVQuoteApi(m_api);
  const milliseconds took = since(start);
  m_record.forbid();
  m_api = nullptr;
  return took;
}

void session_fixture::expect_nothing_left() {
  if (m_api != nullptr) {
    EXPECT_LE(destroy().count(), k_stop_limit.count());
  }
  m_server.reset();
  EXPECT_TRUE(wait_until([this] { return m_record.running() == 0; }, milliseconds{2000 * k_slow}));
  EXPECT_TRUE(wait_until([] { return library_threads().empty(); }, milliseconds{2000 * k_slow}))
      << testing::PrintToString(library_threads());
  EXPECT_TRUE(
      wait_until([this] { return open_descriptors() == m_descriptors_before; }, milliseconds{2000}))
      << open_descriptors() << " instead of " << m_descriptors_before;
  EXPECT_EQ(std::vector<std::string>{}, m_record.violations());
}

std::string session_fixture::address_text() const {
  return "server ip: 127.0.0.1, port: " + std::to_string(m_server->port()) + ".";
}

std::string session_fixture::status_by_login() {
  const std::string beginning =
      "OnLog(3, [QuoteClient] login_to_kqs failed. wrong kqc tcp status: ";
  const std::size_t before = m_record.text_count(beginning);
  send_login();
  if (m_record.text_count(beginning) == before) return "1";
  return m_record.nth(beginning, before).what.substr(beginning.size(), 1);
}

}  // namespace kav_session
