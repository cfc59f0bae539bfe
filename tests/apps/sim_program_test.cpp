// kav-sim as a program: what it prints, how it ends.
#include <gtest/gtest.h>
#include <sys/wait.h>  // WEXITSTATUS

#include <algorithm>  // std::min
#include <csignal>    // SIGTERM
#include <cstdio>     // popen
#include <cstdlib>    // atoi
#include <optional>   // std::optional
#include <vector>     // std::vector

#include "tests/apps/sim_raw_client.h"
#include "tests/apps/watch_process.h"

namespace kav_sim_test {

using kav_watch_test::child_options;
using kav_watch_test::child_process;

struct outcome {
  int status = -1;
  std::string text;  // both streams
};

// timeout ends what does not end by itself.
std::string command(const std::string& arguments) {
  return "timeout 60 " KAV_TESTED_PROGRAM " " + arguments + " 2>&1";
}

outcome run(const std::string& arguments) {
  outcome result;
  FILE* pipe = ::popen(command(arguments).c_str(), "r");
  char line[512];
  while (std::fgets(line, sizeof line, pipe) != nullptr) result.text += line;
  result.status = WEXITSTATUS(::pclose(pipe));
  return result;
}

TEST(sim_program, bad_options_end_it_with_2_and_one_line) {
  for (const char* arguments : {"--bogus",
                                "extra",
                                "--port x",
                                "--port 70000",
                                "--port -1",
                                "--bind here",
                                "--speed nan",
                                "--speed -1",
                                "--rate 0",
                                "--seed -4",
                                "--loop",
                                "--heartbeat -1",
                                "--seconds inf",
                                "--fault-loss close",
                                "--fault-loss sometimes",
                                "--fault-after-seconds 1",
                                "--fault-loss truncate --fault-after-seconds 1",
                                "--fault-list none",
                                "--fault-chunks 0",
                                "--fault-times -1",
                                "--fault-register 12",
                                "--fault-full-width all",
                                "--fault-login-reason 0123456789012345678901",
                                "--ticks /nowhere/t.csv",
                                "--user 0123456789abcdef"}) {
    const outcome result = run(arguments);
    EXPECT_EQ(2, result.status) << arguments;
    EXPECT_EQ(0u, result.text.find("kav-sim: ")) << arguments << ": " << result.text;
    EXPECT_EQ(result.text.size() - 1, result.text.find('\n')) << arguments << ": " << result.text;
  }
}

TEST(sim_program, help_version_and_list_end_it_with_0) {
  const outcome help = run("--help");
  EXPECT_EQ(0, help.status);
  EXPECT_NE(std::string::npos, help.text.find("Examples:"));
  EXPECT_NE(std::string::npos, help.text.find("Exit status:"));
  EXPECT_EQ(0, run("--version").status);
  const outcome list = run("--list");
  EXPECT_EQ(0, list.status);
  EXPECT_NE(std::string::npos, list.text.find("1 IF2612\n"));
  EXPECT_NE(std::string::npos, list.text.find("2 4\n"));
}

// The program while it runs, at a port that it has told.
class running_sim {
 public:
  explicit running_sim(const std::vector<std::string>& arguments) : m_child{with(arguments)} {
    const std::string head = "listening on 127.0.0.1:", line = m_child.line(0);
    EXPECT_EQ(0u, line.find(head)) << line;
    m_port = static_cast<unsigned short>(
        std::atoi(line.substr(std::min(head.size(), line.size())).c_str()));
  }

  unsigned short port() const { return m_port; }
  // Asks it to end; its exit status.
  std::optional<int> end() {
    m_child.send_signal(SIGTERM);
    return m_child.wait();
  }
  std::string errors() const { return m_child.errors(); }

 private:
  static child_options with(const std::vector<std::string>& arguments) {
    child_options options;
    options.arguments = arguments;
    return options;
  }

  child_process m_child;
  unsigned short m_port = 0;
};

TEST(sim_program, it_serves_a_client_and_a_second_one_on_its_port_ends_with_1) {
  running_sim sim{{"--seconds", "60", "--heartbeat", "0", "--rate", "50", "--quiet"}};
  const std::string port = std::to_string(sim.port());

  const outcome second = run("--port " + port);
  EXPECT_EQ(1, second.status);
  EXPECT_EQ("kav-sim: cannot listen on 127.0.0.1:" + port + ": Address already in use\n",
            second.text);

  raw_client client{sim.port()};
  ASSERT_TRUE(client.send(login_bytes("trader", k_abc_digest)));
  EXPECT_EQ('Y', client.read_exactly(24)[1]);
  ASSERT_TRUE(client.send(symbol_request_bytes('N', '2', "0")));
  EXPECT_EQ("I0", client.read_exactly(32).substr(0, 2));
  const std::string message = client.read_exactly(367);
  EXPECT_EQ("Q2", message.substr(0, 2));
  EXPECT_EQ(std::string("0\0", 2), message.substr(31, 2));
  EXPECT_EQ(0, sim.end());
}

TEST(sim_program, what_a_client_sends_cannot_move_the_cursor_of_whoever_reads_its_lines) {
  running_sim sim{{"--seconds", "60", "--heartbeat", "0"}};
  raw_client client{sim.port()};
  ASSERT_TRUE(client.send(login_bytes("\x1b[2J\ntrader\x9b", k_abc_digest)));
  EXPECT_EQ('Y', client.read_exactly(24)[1]);
  ASSERT_TRUE(client.send(symbol_request_bytes('N', '2', "a\rb\x07")));
  EXPECT_EQ("I1", client.read_exactly(32).substr(0, 2));
  EXPECT_EQ(0, sim.end());
  const std::string told = sim.errors();
  EXPECT_NE(std::string::npos, told.find(": logged in as ?[2J?trader?\n")) << told;
  EXPECT_NE(std::string::npos, told.find(": registration of a?b? with type ")) << told;
}

TEST(sim_program, it_ends_by_itself_with_a_summary) {
  const outcome result = run("--seconds 0.1 --quiet");
  EXPECT_EQ(0, result.status);
  EXPECT_NE(std::string::npos, result.text.find("end: 0 quotes sent, 0 dropped")) << result.text;
}

}  // namespace kav_sim_test
