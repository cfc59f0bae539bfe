// What tcpdump captures of real datagrams, decoded.
#include <arpa/inet.h>  // htonl
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/if.h>      // ifreq
#include <netinet/in.h>  // sockaddr_in
#include <sched.h>       // unshare
#include <sys/ioctl.h>   // SIOCSIFFLAGS
#include <sys/socket.h>  // sendto
#include <unistd.h>      // geteuid

#include <cerrno>        // errno
#include <chrono>        // std::chrono_literals
#include <cstdio>        // popen
#include <ctime>         // std::time
#include <system_error>  // std::generic_category
#include <thread>        // std::thread

#include "feeds/exchange_id.h"
#include "tests/apps/decode_lines.h"
#include "tests/apps/decode_process.h"
#include "tests/support/tcp_peer.h"
#include "tests/support/wait_until.h"

namespace kav_decode_test {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;

constexpr std::uint32_t k_lumen_group = 0xEFFF0A05;
constexpr std::uint16_t k_lumen_port = 30005;

bool bring_loopback_up() {
  const kav_test::owned_fd probe{::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
  ifreq request{};
  request.ifr_name[0] = 'l';
  request.ifr_name[1] = 'o';
  request.ifr_flags = IFF_UP;
  return ::ioctl(probe.get(), SIOCSIFFLAGS, &request) == 0;
}

bool send_datagram(const bytes& payload, std::uint32_t group, std::uint16_t port) {
  const kav_test::owned_fd sender{::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
  const in_addr loopback{htonl(INADDR_LOOPBACK)};
  ::setsockopt(sender.get(), IPPROTO_IP, IP_MULTICAST_IF, &loopback, sizeof(loopback));
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_addr.s_addr = htonl(group);
  to.sin_port = htons(port);
  return ::sendto(sender.get(), payload.data(), payload.size(), 0,
                  reinterpret_cast<const sockaddr*>(&to),
                  sizeof(to)) == static_cast<ssize_t>(payload.size());
}

const sent_record k_first{k_exchange_number_cffex, cffex_record("IF2509", 1)};
const sent_record k_second{0, lumen_tick("IC2509", 6001.5, 3)};

// On a thread whose network is a namespace of its own. Empty, or why it cannot be done here.
std::string capture_datagrams(const std::string& options, const std::string& path) {
  if (::geteuid() != 0) return "only root may make a network namespace";
  if (run_shell("command -v tcpdump >/dev/null") != 0) return "tcpdump is not installed";
  if (::unshare(CLONE_NEWNET) != 0) {
    return "no network namespace: " + std::generic_category().message(errno);
  }
  EXPECT_TRUE(bring_loopback_up());
  const temporary_file errors;
  FILE* const capture = ::popen(("timeout 60 tcpdump -U -Z root -c 3 -w " + quoted(path) + " " +
                                 options + " udp 2>" + quoted(errors.path()))
                                    .c_str(),
                                "r");
  EXPECT_TRUE(
      wait_until([&] { return errors.text().find("listening on") != std::string::npos; }, 30s))
      << errors.text();
  EXPECT_TRUE(send_datagram(k_first.payload, k_group, k_port));
  EXPECT_TRUE(send_datagram(k_second.payload, k_lumen_group, k_lumen_port));
  EXPECT_TRUE(send_datagram(k_first.payload, 0xEFFF0A63, 9));
  EXPECT_EQ(0, ::pclose(capture)) << errors.text();  // ends after three packets
  return "";
}

class decode_live_test : public testing::TestWithParam<const char*> {};

TEST_P(decode_live_test, captured_datagrams_become_quotes) {
  const temporary_file file;
  std::string obstacle;
  std::thread{[&] { obstacle = capture_datagrams(GetParam(), file.path()); }}.join();
  if (!obstacle.empty()) GTEST_SKIP() << obstacle;
  const process_result result = run({file.path()});
  EXPECT_EQ(0, result.status);
  EXPECT_EQ(csv_header() + joined(lines_of({k_first, k_second}, false)), result.output);
  for (const char* line : {" 3  packets\n", " 2  quotes decoded\n", " 1    CFFEX\n",
                           " 1    LUMEN lumen tick\n", " 1      239.255.10.99:9\n"}) {
    EXPECT_THAT(result.errors, HasSubstr(line));
  }
  const process_result timed = run({file.path(), "--time", "--count", "1", "--quiet"});
  const std::string line = timed.output.substr(timed.output.find('\n') + 1);
  EXPECT_NEAR(static_cast<double>(std::time(nullptr)), std::strtod(line.c_str(), nullptr), 120);
}

INSTANTIATE_TEST_SUITE_P(tcpdump, decode_live_test,
                         testing::Values("-i lo", "-i lo --time-stamp-precision=nano", "-i any",
                                         "-i any -y LINUX_SLL"));

}  // namespace
}  // namespace kav_decode_test
