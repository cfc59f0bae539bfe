#include "bench/side_by_side/receiver_process.h"

#include <fcntl.h>  // O_CLOEXEC
#include <fmt/format.h>
#include <poll.h>      // poll
#include <spawn.h>     // posix_spawn
#include <sys/wait.h>  // waitpid
#include <unistd.h>    // pipe2, read, close

#include <algorithm>  // std::max
#include <csignal>    // kill

#include "bench/side_by_side/stamped_quote.h"

namespace kav_bench {

namespace {

constexpr int k_child_result_fd = 3;
constexpr std::uint64_t k_most_samples = 100'000'000;

std::vector<std::string> arguments_of(const receiver_job& job) {
  return {"kav-side-by-side",
          "--receiver=" + job.receiver,
          "--task=" + job.task,
          fmt::format("--port={}", job.port),
          fmt::format("--clients={}", job.clients),
          fmt::format("--symbols={}", job.symbols),
          fmt::format("--samples={}", job.samples),
          fmt::format("--not-on={}", job.not_on),
          fmt::format("--result-fd={}", k_child_result_fd)};
}

}  // namespace

receiver_process::~receiver_process() { kill(); }

bool receiver_process::start(const receiver_job& job) {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) return false;
  std::vector<std::string> arguments = arguments_of(job);
  std::vector<char*> pointers;
  pointers.reserve(arguments.size() + 1);
  for (std::string& argument : arguments) pointers.push_back(argument.data());
  pointers.push_back(nullptr);
  // Two steps, since a descriptor that is the wanted one already would keep its close-on-exec mark.
  const int spare = ::fcntl(ends[1], F_DUPFD_CLOEXEC, k_child_result_fd + 1);
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_adddup2(&actions, spare, k_child_result_fd);
  const int error =
      ::posix_spawn(&m_pid, "/proc/self/exe", &actions, nullptr, pointers.data(), environ);
  ::posix_spawn_file_actions_destroy(&actions);
  ::close(ends[1]);
  ::close(spare);
  m_result_fd = ends[0];
  if (error != 0) m_pid = -1;
  return error == 0;
}

ssize_t receiver_process::read_some(void* data, std::size_t most, std::int64_t until_ns) const {
  const std::int64_t wait_ms = std::max<std::int64_t>(0, (until_ns - monotonic_ns()) / 1'000'000);
  pollfd watched{m_result_fd, POLLIN, 0};
  if (::poll(&watched, 1, static_cast<int>(wait_ms)) <= 0) return -1;
  return ::read(m_result_fd, data, most);
}

bool receiver_process::read_whole(void* data, std::size_t left, std::int64_t until_ns) const {
  char* bytes = static_cast<char*>(data);
  while (left > 0) {
    const ssize_t got = read_some(bytes, left, until_ns);
    if (got <= 0) return false;
    bytes += got;
    left -= static_cast<std::size_t>(got);
  }
  return true;
}

std::optional<receiver_outcome> receiver_process::wait_for_outcome(
    std::chrono::milliseconds limit) {
  const std::int64_t until = monotonic_ns() + std::chrono::nanoseconds{limit}.count();
  receiver_result result;
  if (!read_whole(&result, sizeof result, until)) return std::nullopt;
  if (result.latencies > k_most_samples || result.last_latencies > k_most_samples) {
    return std::nullopt;
  }
  receiver_outcome outcome;
  outcome.figures = result.figures;
  outcome.latencies.resize(result.latencies);
  outcome.last_latencies.resize(result.last_latencies);
  constexpr std::size_t value_bytes = sizeof(std::int64_t);
  if (!read_whole(outcome.latencies.data(), result.latencies * value_bytes, until) ||
      !read_whole(outcome.last_latencies.data(), result.last_latencies * value_bytes, until)) {
    return std::nullopt;
  }
  if (!ends_well(until)) return std::nullopt;
  return outcome;
}

// Its end closes the pipe.
bool receiver_process::ends_well(std::int64_t until_ns) {
  char more = 0;
  if (read_some(&more, sizeof more, until_ns) != 0) return false;
  int status = 0;
  const bool ended = ::waitpid(m_pid, &status, 0) == m_pid;
  m_pid = -1;
  return ended && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

void receiver_process::kill() {
  if (m_result_fd >= 0) ::close(m_result_fd);
  m_result_fd = -1;
  if (m_pid < 0) return;
  ::kill(m_pid, SIGKILL);
  ::waitpid(m_pid, nullptr, 0);
  m_pid = -1;
}

}  // namespace kav_bench
