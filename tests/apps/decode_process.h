// kav-decode as a process, with its streams in files.
#pragma once

#include <sys/wait.h>  // WEXITSTATUS

#include <cstdlib>  // std::system
#include <string>   // std::string
#include <vector>   // std::vector

#include "tests/apps/decode_files.h"

namespace kav_decode_test {

struct process_result {
  int status = -1;
  std::string output, errors;
};

inline std::string quoted(const std::string& argument) { return fmt::format("'{}'", argument); }

// timeout ends what does not end by itself.
inline std::string command(const std::vector<std::string>& arguments) {
  std::string text = "timeout 60 " KAV_DECODE_PROGRAM;
  for (const std::string& argument : arguments) text += fmt::format(" '{}'", argument);
  return text;
}

inline int run_shell(const std::string& line) {
  const int status = std::system(line.c_str());
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

inline process_result run(const std::vector<std::string>& arguments,
                          const std::string& input = "/dev/null") {
  const temporary_file output, errors;
  const int status = run_shell(command(arguments) + " <" + quoted(input) + " >" +
                               quoted(output.path()) + " 2>" + quoted(errors.path()));
  return {status, output.text(), errors.text()};
}

}  // namespace kav_decode_test
