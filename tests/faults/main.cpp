// kav-faults: how the client reacts to what can go wrong, measured.
#include <fcntl.h>  // O_CLOEXEC
#include <fmt/format.h>
#include <sys/prctl.h>  // prctl
#include <sys/wait.h>   // waitpid
#include <unistd.h>     // fork, pipe2

#include <algorithm>  // std::find
#include <csignal>    // SIGKILL

#include "tests/faults/options.h"
#include "tests/faults/report.h"
#include "tests/faults/result_lines.h"

namespace {

using namespace kav_faults;

[[noreturn]] void measure_as_child(const fault& f, int out) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  ::dup2(STDERR_FILENO, STDOUT_FILENO);  // the socket layer's own lines are not for the table
  const std::string lines = to_lines(f.measure());
  const bool told = ::write(out, lines.data(), lines.size()) == static_cast<ssize_t>(lines.size());
  ::_exit(told ? 0 : 1);
}

std::string read_all(int fd) {
  std::string text;
  char buffer[4096];
  for (ssize_t got = 0; (got = ::read(fd, buffer, sizeof buffer)) > 0;) {
    text.append(buffer, static_cast<std::size_t>(got));
  }
  return text;
}

// In a process of its own, so that no fault finds what another has left. This one has no threads.
fault_result measure_apart(const fault& f) {
  fault_result r;
  int ends[2];
  if (!r.expect(::pipe2(ends, O_CLOEXEC) == 0, "there is a pipe")) return r;
  const pid_t child = ::fork();
  if (child == 0) measure_as_child(f, ends[1]);
  ::close(ends[1]);
  add_lines(r, read_all(ends[0]));
  ::close(ends[0]);
  int status = 0;
  ::waitpid(child, &status, 0);
  r.expect(WIFEXITED(status) && WEXITSTATUS(status) == 0,
           fmt::format("the process of the measurement ends well (status {:#x})", status));
  return r;
}

bool is_wanted(const program_options& options, const fault& f) {
  return options.only.empty() ||
         std::find(options.only.begin(), options.only.end(), f.name) != options.only.end();
}

int run(const program_options& options) {
  const kav_test::machine machine = kav_test::this_machine();
  results all;
  bool holds = true;
  for (const fault& f : all_faults()) {
    if (!is_wanted(options, f)) continue;
    fmt::print(stderr, "{} ...\n", f.title);
    const fault_result& r = all[f.name] = measure_apart(f);
    holds = holds && r.broken.empty();
  }
  print_table(all);
  const std::string error = write_json(options.json, machine, all);
  if (!error.empty()) fmt::print(stderr, "kav-faults: {}\n", error);
  return holds && error.empty() ? k_exit_good : k_exit_bad;
}

}  // namespace

int main(int argc, char** argv) {
  program_options options;
  if (const std::optional<int> status = parse_command_line(argc, argv, options)) return *status;
  return run(options);
}
