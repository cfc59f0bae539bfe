// kav-sim as a program: what it prints, how it ends.
#include <gtest/gtest.h>
#include <sys/wait.h>  // waitpid
#include <unistd.h>    // fork, execl

#include <csignal>  // kill
#include <cstdio>   // popen
#include <cstdlib>  // atoi

#include "tests/apps/sim_raw_client.h"

namespace kav_sim_test {

struct outcome {
  int status = -1;
  std::string text;  // both streams
};

// timeout ends what does not end by itself.
std::string command(const std::string& arguments) {
  return "timeout 60 " KAV_SIM_PROGRAM " " + arguments + " 2>&1";
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

TEST(sim_program, it_serves_a_client_and_a_second_one_on_its_port_ends_with_1) {
  int ends[2];
  ASSERT_EQ(0, ::pipe(ends));
  const pid_t child = ::fork();
  ASSERT_NE(-1, child);
  if (child == 0) {
    ::dup2(ends[1], STDOUT_FILENO);
    ::execl(KAV_SIM_PROGRAM, KAV_SIM_PROGRAM, "--seconds", "60", "--heartbeat", "0", "--rate", "50",
            "--quiet", static_cast<char*>(nullptr));
    ::_exit(127);
  }
  ::close(ends[1]);
  FILE* pipe = ::fdopen(ends[0], "r");
  char line[512] = "";
  ASSERT_NE(nullptr, std::fgets(line, sizeof line, pipe));
  const std::string first = line, head = "listening on 127.0.0.1:";
  ASSERT_EQ(0u, first.find(head)) << first;
  const std::string port = first.substr(head.size(), first.size() - head.size() - 1);

  const outcome second = run("--port " + port);
  EXPECT_EQ(1, second.status);
  EXPECT_EQ("kav-sim: cannot listen on 127.0.0.1:" + port + ": Address already in use\n",
            second.text);

  raw_client client{static_cast<unsigned short>(std::atoi(port.c_str()))};
  ASSERT_TRUE(client.send(login_bytes("trader", k_abc_digest)));
  EXPECT_EQ('Y', client.read_exactly(24)[1]);
  ASSERT_TRUE(client.send(symbol_request_bytes('N', '2', "0")));
  EXPECT_EQ("I0", client.read_exactly(32).substr(0, 2));
  const std::string message = client.read_exactly(367);
  EXPECT_EQ("Q2", message.substr(0, 2));
  EXPECT_EQ(std::string("0\0", 2), message.substr(31, 2));

  ASSERT_EQ(0, ::kill(child, SIGTERM));
  int status = -1;
  ASSERT_EQ(child, ::waitpid(child, &status, 0));
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(0, WEXITSTATUS(status));
  std::fclose(pipe);
}

TEST(sim_program, it_ends_by_itself_with_a_summary) {
  const outcome result = run("--seconds 0.1 --quiet");
  EXPECT_EQ(0, result.status);
  EXPECT_NE(std::string::npos, result.text.find("end: 0 quotes sent, 0 dropped")) << result.text;
}

}  // namespace kav_sim_test
