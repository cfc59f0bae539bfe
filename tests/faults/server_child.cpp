#include "tests/faults/server_child.h"

#include <fcntl.h>       // O_CLOEXEC, O_WRONLY
#include <netinet/in.h>  // sockaddr_in
#include <spawn.h>       // posix_spawn
#include <sys/socket.h>  // socket, bind
#include <sys/wait.h>    // waitpid
#include <unistd.h>      // pipe2, close

#include <csignal>  // kill
#include <cstdio>   // fdopen, fscanf
#include <memory>   // std::unique_ptr
#include <string>   // std::to_string

namespace kav_faults {

namespace {

// Of each of the made-up market's contracts.
constexpr char k_quotes_per_second[] = "500";

// What the simulator says first; 0: something else.
unsigned short port_told(int fd) {
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> lines{::fdopen(fd, "r"), std::fclose};
  unsigned short port = 0;
  return std::fscanf(lines.get(), "listening on 127.0.0.1:%hu", &port) == 1 ? port : 0;
}

}  // namespace

server_child::~server_child() {
  kill_it();
  release_port();
}

void server_child::hold_port() {
  m_held = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int on = 1;  // connections of the server that was killed may linger
  ::setsockopt(m_held, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(m_port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::bind(m_held, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    release_port();
  }
}

void server_child::release_port() {
  if (m_held >= 0) ::close(m_held);
  m_held = -1;
}

bool server_child::start() {
  release_port();
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) return false;
  posix_spawn_file_actions_t files;
  posix_spawn_file_actions_init(&files);
  posix_spawn_file_actions_adddup2(&files, ends[1], STDOUT_FILENO);
  posix_spawn_file_actions_addopen(&files, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  std::string port = std::to_string(m_port);
  std::string words[] = {KAV_SIM_PROGRAM, "--quiet", "--rate", k_quotes_per_second, "--port", port};
  char* argv[std::size(words) + 1] = {};
  for (std::size_t i = 0; i < std::size(words); ++i) argv[i] = words[i].data();
  const bool made = ::posix_spawn(&m_child, argv[0], &files, nullptr, argv, environ) == 0;
  posix_spawn_file_actions_destroy(&files);
  ::close(ends[1]);
  if (!made) m_child = -1;
  const unsigned short told = port_told(ends[0]);
  if (told != 0) m_port = told;
  return told != 0;
}

void server_child::kill_it() {
  if (m_child <= 0) return;
  ::kill(m_child, SIGKILL);
  ::waitpid(m_child, nullptr, 0);
  m_child = -1;
  hold_port();
}

}  // namespace kav_faults
