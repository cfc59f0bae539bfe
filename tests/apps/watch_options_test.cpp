#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>    // std::chrono_literals
#include <optional>  // std::optional
#include <string>    // std::string
#include <variant>   // std::get
#include <vector>    // std::vector

#include "apps/watch/options.h"

namespace kav_watch {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

constexpr char k_group[] = "239.255.10.1:30001:SHFE";
const std::vector<std::string> k_login{"--server", "127.0.0.1:9000", "--user", "me"};

parsed_options parse(std::vector<std::string> arguments,
                     std::optional<std::string> environment = "secret", bool with_login = true) {
  if (with_login) arguments.insert(arguments.begin(), k_login.begin(), k_login.end());
  std::string name{"kav-watch"};
  std::vector<char*> argv{name.data()};
  for (std::string& argument : arguments) argv.push_back(argument.data());
  const int argc = static_cast<int>(argv.size());
  std::optional<secret> password = take_password_from_arguments(argc, argv.data());
  if (!password && environment) password.emplace(*environment);
  return parse_options(argc, argv.data(), password);
}

watch_options accepted(const parsed_options& parsed) {
  if (const auto* refused = std::get_if<outcome>(&parsed)) ADD_FAILURE() << refused->message;
  return std::get<watch_options>(parsed);
}

std::string refusal(const parsed_options& parsed) {
  if (!std::holds_alternative<outcome>(parsed)) return "not refused";
  EXPECT_EQ(exit_status::bad_option, std::get<outcome>(parsed).status);
  const std::string& message = std::get<outcome>(parsed).message;
  EXPECT_EQ(std::string::npos, message.find('\n'));
  return message;
}

TEST(watch_options, what_is_not_given_has_its_default) {
  const watch_options options = accepted(parse({}));
  EXPECT_STREQ("127.0.0.1", options.server->m_ServerIp);
  EXPECT_EQ(9000, options.server->m_ServerPort);
  EXPECT_EQ("me", options.user);
  EXPECT_EQ("secret", options.password.text());
  EXPECT_TRUE(options.symbols.empty());
  EXPECT_EQ(output_format::automatic, options.format);
  EXPECT_FALSE(options.count);
  EXPECT_FALSE(options.duration);
  EXPECT_EQ(10s, options.timeout);
  EXPECT_FALSE(options.list_only || options.keep_going || options.verbose || options.green_up);
}

TEST(watch_options, everything_can_be_given) {
  const watch_options options = accepted(
      parse({"--password", "-p w", "--format", "csv", "--count", "5", "--seconds", "1.5",
             "--timeout", "2", "--list", "--keep-going", "IF2509", "Au(T+D)", "IF2509", "-v"}));
  EXPECT_EQ("-p w", options.password.text());
  EXPECT_THAT(options.symbols, ElementsAre("IF2509", "Au(T+D)"));
  EXPECT_EQ(output_format::csv, options.format);
  EXPECT_EQ(5u, options.count);
  EXPECT_EQ(1500ms, options.duration);
  EXPECT_EQ(2s, options.timeout);
  EXPECT_TRUE(options.list_only && options.keep_going && options.verbose);
}

TEST(watch_options, each_format_has_its_name) {
  EXPECT_EQ(output_format::table, accepted(parse({"--format", "table"})).format);
  EXPECT_EQ(output_format::plain, accepted(parse({"--format", "plain"})).format);
  EXPECT_EQ(output_format::json, accepted(parse({"--format=json"})).format);
  EXPECT_THAT(refusal(parse({"--format", "xml"})), HasSubstr("--format"));
  EXPECT_THAT(refusal(parse({"--format", "1"})), HasSubstr("--format"));
}

TEST(watch_options, a_server_without_a_user_is_refused) {
  EXPECT_THAT(refusal(parse({"--server", "127.0.0.1:1"}, "secret", false)), HasSubstr("--user"));
}

TEST(watch_options, a_missing_source_of_quotes_is_refused_with_both_ways_to_give_one) {
  for (const std::vector<std::string>& arguments :
       {std::vector<std::string>{}, {"IF2509"}, {"--user", "me"}, {"--list"}}) {
    EXPECT_THAT(refusal(parse(arguments, "secret", false)),
                testing::AllOf(HasSubstr("--server"), HasSubstr("--multicast")));
  }
}

TEST(watch_options, multicast_alone_needs_no_login) {
  const watch_options options =
      accepted(parse({"--multicast", k_group, "IF2509", "--count", "3"}, std::nullopt, false));
  EXPECT_FALSE(options.server);
  EXPECT_EQ("", options.password.text());
  EXPECT_EQ("", accepted(parse({"--multicast", k_group}, "secret", false)).password.text());
  ASSERT_EQ(1u, options.groups.size());
  EXPECT_STREQ("239.255.10.1", options.groups[0].info.m_GroupIp);
  EXPECT_THAT(options.symbols, ElementsAre("IF2509"));
}

TEST(watch_options, multicast_can_be_given_again_and_beside_a_server) {
  const watch_options options =
      accepted(parse({"--multicast", k_group, "rb2510", "--multicast=239.255.10.2:30002:lumen"}));
  EXPECT_EQ(9000, options.server->m_ServerPort);
  ASSERT_EQ(2u, options.groups.size());
  EXPECT_STREQ("LUMEN", options.groups[1].info.m_ExchangeId);
  EXPECT_THAT(options.symbols, ElementsAre("rb2510"));
}

TEST(watch_options, what_only_a_session_can_do_is_refused_without_one) {
  for (const std::vector<std::string>& given : {std::vector<std::string>{"--list"},
                                                {"--user", "me"},
                                                {"--password=secret"},
                                                {"--timeout", "3"},
                                                {"--keep-going"}}) {
    std::vector<std::string> arguments{"--multicast", k_group};
    arguments.insert(arguments.end(), given.begin(), given.end());
    const std::string message = refusal(parse(arguments, std::nullopt, false));
    EXPECT_THAT(message, testing::StartsWith(given[0].substr(0, given[0].find('='))));
    EXPECT_THAT(message, HasSubstr("give --server"));
    EXPECT_THAT(message, Not(HasSubstr("secret")));
  }
}

TEST(watch_options, a_malformed_group_is_refused_with_an_example) {
  EXPECT_EQ(
      "--multicast: '239.255.10.1:SHFE' is no GROUP:PORT:EXCHANGE[@LOCALIP] such as "
      "239.255.10.1:30001:SHFE@127.0.0.1; kav-watch --help shows how to use it",
      refusal(parse({"--multicast", "239.255.10.1:SHFE"})));
  EXPECT_THAT(refusal(parse({"--multicast", ""})), HasSubstr("'' is no GROUP"));
  EXPECT_THAT(refusal(parse({"--multicast"})), HasSubstr("--multicast"));
}

TEST(watch_options, a_group_that_is_given_twice_is_refused) {
  EXPECT_THAT(refusal(parse({"--multicast", k_group, "--multicast", "239.255.10.1:30001:INE"})),
              HasSubstr("give it once"));
  EXPECT_EQ(
      2u,
      accepted(parse({"--multicast", k_group, "--multicast", "239.255.10.1:30001:SHFE@127.0.0.1"}))
          .groups.size());
}

TEST(watch_options, more_groups_than_the_library_takes_are_refused) {
  std::vector<std::string> arguments;
  for (int i = 0; i < 1025; ++i) {
    arguments.push_back("--multicast");
    arguments.push_back("239.255.10.1:" + std::to_string(20'000 + i) + ":SHFE");
  }
  EXPECT_THAT(refusal(parse(arguments)), HasSubstr("1024 is the most"));
  arguments.resize(2 * 1024);
  EXPECT_EQ(1024u, accepted(parse(arguments)).groups.size());
}

TEST(watch_options, a_missing_password_is_refused_and_an_empty_one_is_not) {
  EXPECT_THAT(refusal(parse({}, std::nullopt)), HasSubstr("KAV_PASSWORD"));
  EXPECT_EQ("", accepted(parse({}, "")).password.text());
  EXPECT_EQ("", accepted(parse({"--password", ""}, std::nullopt)).password.text());
}

TEST(watch_options, a_password_argument_wins_over_the_environment) {
  EXPECT_EQ("other", accepted(parse({"--password=other"})).password.text());
}

TEST(watch_options, texts_that_the_login_would_cut_are_refused) {
  EXPECT_EQ(std::string(15, 'u'),
            accepted(parse({"--server", "127.0.0.1:1", "--user", std::string(15, 'u')}, "s", false))
                .user);
  EXPECT_THAT(
      refusal(parse({"--server", "127.0.0.1:1", "--user", std::string(16, 'u')}, "s", false)),
      HasSubstr("15 bytes"));
  EXPECT_EQ(32u, accepted(parse({}, std::string(32, 'p'))).password.text().size());
  EXPECT_THAT(refusal(parse({}, std::string(33, 'p'))), HasSubstr("32 bytes"));
}

TEST(watch_options, a_misspelled_password_option_does_not_show_the_password) {
  EXPECT_THAT(refusal(parse({"--pasword", "hunter2"})), Not(HasSubstr("hunter2")));
  EXPECT_THAT(refusal(parse({"--pasword=hunter2"})), Not(HasSubstr("hunter2")));
}

TEST(watch_options, numbers_out_of_range_are_refused) {
  for (const char* option : {"--count", "--seconds", "--timeout"}) {
    for (const char* value : {"0", "-1", "x", "nan", "1e300"}) {
      EXPECT_THAT(refusal(parse({option, value})), HasSubstr(option)) << value;
    }
  }
}

TEST(watch_options, a_server_is_a_dotted_address_and_a_port) {
  EXPECT_EQ(65535, parse_server("255.255.255.255:65535")->m_ServerPort);
  EXPECT_STREQ("255.255.255.255", parse_server("255.255.255.255:65535")->m_ServerIp);
  for (const char* text : {"", "127.0.0.1", "127.0.0.1:", "127.0.0.1:0", "127.0.0.1:65536",
                           "127.0.0.1:9x", "127.0.0.1: 9", "127.1:9", "host:9", ":9", "::1:9"}) {
    EXPECT_FALSE(parse_server(text)) << text;
  }
}

TEST(watch_options, help_explains_statuses_keys_and_the_safer_password) {
  const parsed_options parsed = parse({"--help"}, std::nullopt, false);
  const std::string& help = std::get<information>(parsed).text;
  for (const char* part :
       {"Exit statuses", "9  output could not be written",
        "10 multicast group could not be received", "GROUP:PORT:EXCHANGE[@LOCALIP]", "PgUp",
        "Examples", "KAV_PASSWORD is safer", "--keep-going", "--timeout"}) {
    EXPECT_THAT(help, HasSubstr(part));
  }
}

TEST(watch_options, version_names_the_program) {
  const parsed_options parsed = parse({"--version"}, std::nullopt, false);
  EXPECT_THAT(std::get<information>(parsed).text, testing::StartsWith("kav-watch 1."));
}

}  // namespace
}  // namespace kav_watch
