// kav-watch as its users run it, against the simulator's server.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>  // sockaddr_in
#include <signal.h>      // SIGINT
#include <sys/socket.h>  // socket
#include <unistd.h>      // close

#include <algorithm>  // std::count
#include <chrono>     // std::chrono_literals
#include <cstdlib>    // std::system
#include <fstream>    // std::ifstream
#include <sstream>    // std::ostringstream
#include <string>     // std::string
#include <vector>     // std::vector

#include "apps/watch/quote_format.h"
#include "tests/support/memory_search.h"
#include "tests/support/process_view.h"
#include "watch_server.h"

namespace kav_watch_test {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::UnorderedElementsAre;

std::string csv_header() {
  fmt::memory_buffer out;
  kav_watch::append_csv_header(out);
  return fmt::to_string(out);
}

std::string csv_line(const KAVMarketDepthQuoteData& quote) {
  fmt::memory_buffer out;
  kav_watch::append_csv(out, quote);
  return fmt::to_string(out);
}

std::string file_text(const std::string& path) {
  std::ifstream file{path, std::ios::binary};
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

void expect_failure(child_process& child, int status, const std::string& text) {
  EXPECT_EQ(status, child.wait());
  const std::string errors = child.errors();
  EXPECT_THAT(errors, testing::StartsWith("kav-watch: "));
  EXPECT_THAT(errors, HasSubstr(text));
  EXPECT_EQ(1, std::count(errors.begin(), errors.end(), '\n')) << errors;
}

class watch_program_test : public watch_server_test {};

// ---- What it shows ----

TEST_F(watch_program_test, list_prints_each_symbol_with_its_type) {
  child_process child{options_for({"--list"})};
  expect_end(child, 0);
  EXPECT_THAT(split_lines(child.output()),
              UnorderedElementsAre("IF2509\t1", "Au(T+D)\t2", "rb2510\t1"));
}

TEST_F(watch_program_test, list_comes_as_csv_and_json_too) {
  child_process csv{options_for({"--list", "--format", "csv"})};
  expect_end(csv, 0);
  EXPECT_EQ("Symbol,Type", split_lines(csv.output()).at(0));
  EXPECT_THAT(split_lines(csv.output()), testing::Contains("Au(T+D),2"));
  child_process json{options_for({"--list", "--format", "json"})};
  expect_end(json, 0);
  EXPECT_THAT(split_lines(json.output()), testing::Contains(R"({"Symbol":"IF2509","Type":"1"})"));
}

TEST_F(watch_program_test, csv_holds_exactly_the_quotes_that_were_sent) {
  child_process child{options_for({"--format", "csv", "--count", "3", "IF2509"})};
  ASSERT_TRUE(wait_registered("IF2509"));
  std::string expected = csv_header();
  for (int i = 0; i < 5; ++i) {
    ASSERT_TRUE(push("IF2509", i));
    if (i < 3) expected += csv_line(quote_of("IF2509", i));
  }
  expect_end(child, 0);
  EXPECT_EQ(expected, child.output());
  EXPECT_THAT(split_lines(child.output()).at(2),
              HasSubstr("IF2509,CFFEX,3501.2,3488,0,0,0,0,0,1,"));
  EXPECT_THAT(split_lines(child.output()).at(2), HasSubstr(",0.3333333333333333,"));
}

TEST_F(watch_program_test, quotes_are_written_at_once_when_no_more_come) {
  child_process child{options_for({"--format", "csv", "IF2509"})};
  ASSERT_TRUE(wait_registered("IF2509"));
  ASSERT_TRUE(push("IF2509", 1));
  EXPECT_TRUE(wait_until([&] { return split_lines(child.output()).size() == 2; }));
}

TEST_F(watch_program_test, a_burst_reaches_a_file_without_a_gap) {
  constexpr int k_quotes = 30'000;
  child_options options = options_for({"--format", "csv", "--count", std::to_string(k_quotes)});
  options.output_path = testing::TempDir() + fmt::format("kav_watch_burst_{}.csv", ::getpid());
  child_process child{options};
  ASSERT_TRUE(wait_registered("rb2510"));
  std::string expected = csv_header();
  for (int i = 0; i < k_quotes; ++i) {
    ASSERT_TRUE(push("rb2510", i));
    expected += csv_line(quote_of("rb2510", i));
  }
  expect_end(child, 0);
  EXPECT_TRUE(expected == file_text(options.output_path));
  ::unlink(options.output_path.c_str());
}

TEST_F(watch_program_test, json_lines_are_read_by_a_json_program) {
  if (std::system("command -v python3 >/dev/null 2>&1") != 0) GTEST_SKIP() << "no python3";
  child_options options = options_for({"--format", "json", "--count", "2", "IF2509"});
  options.output_path = testing::TempDir() + fmt::format("kav_watch_{}.json", ::getpid());
  child_process child{options};
  ASSERT_TRUE(wait_registered("IF2509"));
  KAVMarketDepthQuoteData odd = quote_of("IF2509", 7);
  odd.LastPrice = std::numeric_limits<double>::quiet_NaN();
  odd.BidPrice1 = std::numeric_limits<double>::infinity();
  std::snprintf(odd.ExchangeInstID, sizeof(odd.ExchangeInstID), "\"\\\n\xFF\xE9\x93\x9C");
  m_server.push_quote(odd, '1');
  ASSERT_TRUE(push("IF2509", 8));
  expect_end(child, 0);
  const std::string check =
      "python3 -c 'import json,sys\n"
      "def bad(c): raise ValueError(c)\n"
      "a,b=[json.loads(l,parse_constant=bad) for l in open(sys.argv[1],encoding=\"utf-8\")]\n"
      "assert a[\"LastPrice\"] is None and a[\"BidPrice1\"] is None\n"
      "assert a[\"ExchangeInstID\"]==\"\\\"\\\\\\n\\ufffd\\u94dc\", ascii(a)\n"
      "assert b[\"Volume\"]==8 and b[\"AskPrice5\"]==1/3 and len(b)==43' ";
  EXPECT_EQ(0, std::system((check + options.output_path).c_str()))
      << file_text(options.output_path);
  ::unlink(options.output_path.c_str());
}

TEST_F(watch_program_test, plain_lines_are_the_default_without_a_terminal) {
  child_process child{options_for({"--count", "1"})};
  ASSERT_TRUE(wait_registered("IF2509"));
  ASSERT_TRUE(push("IF2509", 1));
  expect_end(child, 0);
  EXPECT_THAT(child.output(), testing::StartsWith("10:15:03.000 IF2509     CFFEX  last    3501.2"));
}

TEST_F(watch_program_test, all_symbols_are_watched_when_none_is_named) {
  child_process child{options_for({"--seconds", "100"})};
  for (const char* symbol : {"IF2509", "0", "rb2510"}) EXPECT_TRUE(wait_registered(symbol));
}

TEST_F(watch_program_test, gold_exchange_symbols_go_by_their_names) {
  child_process child{options_for({"--format", "csv", "--count", "1", "Au(T+D)"})};
  ASSERT_TRUE(wait_registered("0"));
  EXPECT_FALSE(m_server.registered("IF2509"));
  ASSERT_TRUE(push("0", 5));
  expect_end(child, 0);
  EXPECT_THAT(child.output(), HasSubstr("20250901,Au(T+D),CFFEX,3505.2,"));
}

// ---- How it ends ----

TEST_F(watch_program_test, seconds_end_it_also_without_quotes) {
  const auto start = std::chrono::steady_clock::now();
  child_process child{options_for({"--format", "csv", "--seconds", "0.3"})};
  expect_end(child, 0);
  EXPECT_EQ(csv_header(), child.output());
  EXPECT_GE(std::chrono::steady_clock::now() - start, 300ms);
}

TEST_F(watch_program_test, signals_end_it_well_with_everything_written) {
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
    child_process child{options_for({"--format", "csv", "IF2509"})};
    ASSERT_TRUE(wait_registered("IF2509"));
    ASSERT_TRUE(push("IF2509", 1));
    ASSERT_TRUE(wait_until([&] { return split_lines(child.output()).size() == 2; }));
    child.send_signal(number);
    expect_end(child, 0);
    EXPECT_EQ(csv_header() + csv_line(quote_of("IF2509", 1)), child.output());
    ASSERT_TRUE(wait_until([&] { return m_server.connections().current == 0; }));
  }
}

TEST_F(watch_program_test, a_signal_ends_it_while_it_waits_for_the_login) {
  m_server.change_behaviour([](auto& b) { b.login = kav_sim::login_answer::ignore; });
  child_process child{options_for({"--timeout", "1000"})};
  ASSERT_TRUE(wait_until([&] { return m_server.received_count('L') == 1; }));
  child.send_signal(SIGINT);
  expect_end(child, 0);
}

TEST_F(watch_program_test, a_signal_ends_it_while_nobody_reads_its_output) {
  child_options options = options_for({"--format", "csv", "IF2509"});
  options.read_output = false;
  child_process child{options};
  ASSERT_TRUE(wait_registered("IF2509"));
  for (int i = 0; i < 3000; ++i) ASSERT_TRUE(push("IF2509", i));  // more than the pipe holds
  ASSERT_TRUE(wait_until([&] { return m_server.all_written(); }));
  child.send_signal(SIGINT);
  EXPECT_TRUE(wait_until([&] { return !child.is_running(); }));
  child.close_output();
  expect_end(child, 0);
}

TEST_F(watch_program_test, a_reader_that_goes_away_ends_it_quietly) {
  child_options options = options_for({"--format", "csv", "IF2509"});
  options.read_output = false;
  child_process child{options};
  ASSERT_TRUE(wait_registered("IF2509"));
  child.close_output();  // noticed without another quote
  expect_end(child, 0);
}

TEST_F(watch_program_test, a_full_disk_has_its_status) {
  child_options options = options_for({"--format", "csv", "IF2509"});
  options.output_path = "/dev/full";
  child_process child{options};
  expect_failure(child, 9, "No space left on device");
}

// ---- What fails ----

TEST_F(watch_program_test, a_bad_option_is_told_without_connecting) {
  child_process child{options_for({"--format", "xml"})};
  expect_failure(child, 2, "--format");
  child_process table{options_for({"--format", "table"})};
  expect_failure(table, 2, "terminal");
  EXPECT_EQ(0u, m_server.connections().ever);
}

TEST_F(watch_program_test, a_refused_connection_has_its_status) {
  m_server.go_down();
  child_process child{options_for({})};
  expect_failure(child, 3, "cannot connect to 127.0.0.1:");
}

TEST_F(watch_program_test, a_refused_login_tells_the_servers_reason) {
  m_server.change_behaviour([](auto& b) {
    b.login = kav_sim::login_answer::refuse;
    b.login_refusal_reason = "account locked";
  });
  child_process child{options_for({})};
  expect_failure(child, 4, "account locked");
}

TEST_F(watch_program_test, a_wrong_password_is_a_refused_login) {
  child_options options = options_for({});
  options.environment_password = "hunter2";
  child_process child{options};
  expect_failure(child, 4, "refused the login of me");
  EXPECT_THAT(child.errors(), Not(HasSubstr("hunter2")));
}

TEST_F(watch_program_test, a_symbol_list_that_does_not_come_has_its_status) {
  m_server.change_behaviour([](auto& b) { b.list = kav_sim::list_answer::ignore; });
  child_process child{options_for({"--timeout", "30"})};
  expect_failure(child, 5, "no complete symbol list");
}

TEST_F(watch_program_test, an_empty_symbol_list_has_its_status) {
  m_server.change_behaviour([](auto& b) { b.list = kav_sim::list_answer::empty; });
  child_process child{options_for({})};
  expect_failure(child, 5, "is empty");
}

TEST_F(watch_program_test, unknown_symbols_are_named_and_nothing_is_watched) {
  child_process child{options_for({"IF2509", "NOPE1", "NOPE2"})};
  expect_failure(child, 6, "NOPE1, NOPE2");
  EXPECT_EQ(0u, m_server.received_count('N'));
}

TEST_F(watch_program_test, keep_going_watches_the_known_symbols) {
  child_process child{
      options_for({"--keep-going", "--format", "csv", "--count", "1", "IF2509", "NOPE1"})};
  ASSERT_TRUE(wait_registered("IF2509"));
  ASSERT_TRUE(push("IF2509", 1));
  expect_failure(child, 0, "does not know NOPE1");
  child_process none{options_for({"--keep-going", "NOPE1"})};
  expect_failure(none, 6, "does not know NOPE1");
}

TEST_F(watch_program_test, a_connection_closed_before_the_login_has_its_status) {
  m_server.change_behaviour([](auto& b) { b.on_accept = kav_sim::accept_answer::close; });
  child_process child{options_for({})};
  const std::optional<int> status = child.wait();
  // The close may come while the connection is still being set up, which is a failed connection.
  EXPECT_TRUE(status == 7 || status == 3) << child.errors();
  EXPECT_EQ(1u, split_lines(child.errors()).size()) << child.errors();
}

TEST_F(watch_program_test, a_refused_relogin_ends_the_session_for_good) {
  child_process child{options_for({"--format", "csv", "IF2509"})};
  ASSERT_TRUE(wait_registered("IF2509"));
  m_server.change_behaviour([](auto& b) { b.login = kav_sim::login_answer::refuse; });
  m_server.drop_all();
  EXPECT_EQ(7, child.wait());
  EXPECT_THAT(split_lines(child.errors()).back(),
              testing::AllOf(testing::StartsWith("kav-watch: session with"),
                             HasSubstr("refused the login after a reconnection")));
  EXPECT_EQ(csv_header(), child.output());
}

TEST_F(watch_program_test, a_login_that_is_not_answered_has_its_status) {
  m_server.change_behaviour([](auto& b) { b.login = kav_sim::login_answer::ignore; });
  child_process child{options_for({"--timeout", "0.2"})};
  expect_failure(child, 8, "no answer to the login within 0.2 s");
}

// A listener whose queue is full: the system answers no further connection request.
TEST_F(watch_program_test, a_server_that_does_not_answer_at_all_has_its_status) {
  const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof(address);
  auto* generic = reinterpret_cast<sockaddr*>(&address);
  ASSERT_EQ(0, ::bind(listener, generic, length));
  ASSERT_EQ(0, ::listen(listener, 0));
  ASSERT_EQ(0, ::getsockname(listener, generic, &length));
  std::vector<int> fillers;
  for (int i = 0; i < 4; ++i) {
    fillers.push_back(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    static_cast<void>(::connect(fillers.back(), generic, length));
  }
  child_options options;
  options.arguments = {"--server",  fmt::format("127.0.0.1:{}", ntohs(address.sin_port)),
                       "--user",    "me",
                       "--timeout", "0.3"};
  child_process child{options};
  expect_failure(child, 8, "connection request");
  for (const int fd : fillers) ::close(fd);
  ::close(listener);
}

TEST_F(watch_program_test, refused_registrations_are_told_once) {
  m_server.change_behaviour([](auto& b) { b.register_result = '1'; });
  child_process child{options_for({"IF2509"})};
  ASSERT_TRUE(wait_until([&] { return m_server.received_count('N') >= 3; }));
  child.send_signal(SIGINT);
  expect_failure(child, 0, "refuses to send quotes of IF2509");
}

// ---- What it survives ----

TEST_F(watch_program_test, quotes_come_again_soon_after_the_server_has_returned) {
  child_process child{options_for({"--format", "csv", "IF2509"})};
  ASSERT_TRUE(wait_registered("IF2509"));
  ASSERT_TRUE(push("IF2509", 1));
  ASSERT_TRUE(wait_until([&] { return split_lines(child.output()).size() == 2; }));
  m_server.go_down();
  ASSERT_TRUE(wait_until([&] { return child.errors().find("lost") != std::string::npos; }));
  ASSERT_TRUE(m_server.come_back());
  const auto returned = std::chrono::steady_clock::now();
  ASSERT_TRUE(wait_registered("IF2509"));
  ASSERT_TRUE(push("IF2509", 2));
  ASSERT_TRUE(wait_until([&] { return split_lines(child.output()).size() == 3; }));
  EXPECT_LT(std::chrono::steady_clock::now() - returned, 5s);
  child.send_signal(SIGINT);
  EXPECT_EQ(0, child.wait());
  // Lines of the library itself are not among the quotes.
  EXPECT_EQ(csv_header() + csv_line(quote_of("IF2509", 1)) + csv_line(quote_of("IF2509", 2)),
            child.output());
  EXPECT_THAT(child.errors(), HasSubstr("again"));
}

// ---- What it hides ----

TEST_F(watch_program_test, a_password_of_the_environment_is_not_to_be_seen) {
  child_process child{options_for({"-v", "IF2509"})};
  ASSERT_TRUE(wait_registered("IF2509"));
  EXPECT_THAT(child.proc_file("cmdline"), HasSubstr("127.0.0.1"));
  EXPECT_THAT(child.proc_file("cmdline"), Not(HasSubstr("secret")));
  EXPECT_THAT(child.proc_file("environ"), HasSubstr("PATH="));
  EXPECT_THAT(child.proc_file("environ"), Not(HasSubstr("secret")));
  child.send_signal(SIGINT);
  EXPECT_EQ(0, child.wait());
  EXPECT_THAT(child.errors(), HasSubstr("login success"));
  EXPECT_THAT(child.errors() + child.output(), Not(HasSubstr("secret")));
}

TEST_F(watch_program_test, a_password_argument_is_overwritten) {
  child_options options = options_for({"--password", "secret", "IF2509"});
  options.environment_password.reset();
  child_process child{options};
  ASSERT_TRUE(wait_registered("IF2509"));
  EXPECT_THAT(child.proc_file("cmdline"), HasSubstr("--password"));
  EXPECT_THAT(child.proc_file("cmdline"), HasSubstr("IF2509"));
  EXPECT_THAT(child.proc_file("cmdline"), Not(HasSubstr("secret")));
}

// A server for any password, and a viewer at work that has got one nobody else knows.
class watch_memory_test : public testing::Test {
 protected:
  void SetUp() override {
    if (kav_test::k_sanitized) GTEST_SKIP() << "sanitizers keep more memory than can be searched";
    ASSERT_TRUE(m_server.start()) << m_server.start_error();
    m_password.reveal(m_text);
  }
  static kav_sim::server_options server_options() {
    kav_sim::server_options options;
    options.symbols = {{"IF2509", '1'}};
    return options;
  }
  // Where the password is in the viewer's memory.
  std::vector<std::string> places(const std::vector<std::string>& arguments, bool in_environment) {
    child_options options;
    options.environment_password.reset();
    if (in_environment) options.environment_password = m_text;
    options.arguments = {"--server", "127.0.0.1:" + std::to_string(m_server.port()), "--user", "me",
                         "IF2509"};
    options.arguments.insert(options.arguments.end(), arguments.begin(), arguments.end());
    child_process child{options};
    EXPECT_TRUE(wait_until([&] { return m_server.registered("IF2509"); })) << child.errors();
    std::vector<std::string> found = m_password.places_in(child.pid());
    child.send_signal(SIGINT);
    EXPECT_EQ(0, child.wait());
    return found;
  }

  kav_sim::quote_server m_server{server_options()};
  kav_test::hidden_text m_password;
  char m_text[kav_test::hidden_text::k_length + 1] = {};
};

TEST_F(watch_memory_test, a_password_of_the_environment_does_not_stay_in_memory) {
  EXPECT_THAT(places({}, true), IsEmpty());
}

TEST_F(watch_memory_test, a_password_argument_does_not_stay_in_memory) {
  EXPECT_THAT(places({"--password", m_text}, false), IsEmpty());
}

TEST_F(watch_memory_test, a_password_argument_with_an_equals_sign_does_not_stay_in_memory) {
  EXPECT_THAT(places({std::string{"--password="} + m_text}, false), IsEmpty());
}

TEST_F(watch_memory_test, a_text_that_the_viewer_keeps_is_found) {
  EXPECT_THAT(places({"--keep-going", "--password", "other", m_text}, false), Not(IsEmpty()));
}

}  // namespace
}  // namespace kav_watch_test
