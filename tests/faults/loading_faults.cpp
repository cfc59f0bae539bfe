// The library loaded by hosts that are not linked with it: they are processes of their own.
#include <sys/wait.h>  // WIFEXITED

#include <cstdio>  // popen
#include <memory>  // std::unique_ptr

#include "tests/faults/result_lines.h"
#include "tests/faults/stage.h"

namespace kav_faults {

namespace {

constexpr unsigned k_rate = 10'000;

fault_result run_loader(const char* mode) {
  fault_result r;
  kav_sim::quote_server server{plain_options()};
  if (!r.expect(server.start(), "the server starts")) return r;
  quote_feed feed{server, k_rate};
  const std::string command = std::string(KAV_LOADER_PROGRAM) + " " + mode + " " + KAV_LIBRARY +
                              " " + std::to_string(server.port());
  std::FILE* const lines = ::popen(command.c_str(), "re");
  if (!r.expect(lines != nullptr, "the host starts")) return r;
  std::string told;
  char buffer[1024];
  while (std::fgets(buffer, sizeof buffer, lines) != nullptr) told += buffer;
  const int status = ::pclose(lines);
  r.expect(WIFEXITED(status) && WEXITSTATUS(status) == 0, "the host ends well");
  add_lines(r, told);
  return r;
}

}  // namespace

fault_result two_copies() {
  fault_result r = run_loader("two-copies");
  r.note = "one file under two names, loaded with RTLD_LOCAL by a host that is not linked with it";
  return r;
}

fault_result unloaded_while_in_use() { return run_loader("dlclose"); }

}  // namespace kav_faults
