// An example as a child process, and what it says of itself.
#pragma once

#include <cstdio>    // std::FILE
#include <optional>  // std::optional
#include <set>       // std::set
#include <string>    // std::string

namespace kav_examples {

// Runs NAME with these arguments until it ends, one minute at most. One thread uses an object.
class example_run {
 public:
  example_run(const std::string& name, const std::string& arguments);
  ~example_run();
  example_run(const example_run&) = delete;
  example_run& operator=(const example_run&) = delete;

  std::string output() const;  // so far: standard output
  std::string errors() const;  // so far: standard error
  void press_enter();
  // The exit status, once it has ended; none when it was killed by a signal.
  std::optional<int> wait();

 private:
  std::string file(const char* name) const;

  std::string m_folder;
  std::FILE* m_input;
};

// Texts as shapes: each number is a '#', so that prices and times do not matter.
std::set<std::string> shapes_of(const std::string& lines);
// The lines behind "Prints:" at the end of the example's source.
std::string promised_lines(const std::string& source_file);

}  // namespace kav_examples
