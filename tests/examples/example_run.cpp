#include "tests/examples/example_run.h"

#include <sys/wait.h>  // WIFEXITED

#include <cstdlib>     // mkdtemp
#include <filesystem>  // std::filesystem::remove_all
#include <fstream>     // std::ifstream
#include <iterator>    // std::istreambuf_iterator
#include <regex>       // std::regex_replace
#include <sstream>     // std::istringstream
#include <stdexcept>   // std::runtime_error

namespace kav_examples {
namespace {

std::string content(const std::string& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// With line ends alone, and without what makes it a comment.
std::string bare(std::string text) {
  text = std::regex_replace(text, std::regex(R"((^|\n)(//)? *)"), "$1");
  return std::regex_replace(text, std::regex(R"( *\*/)"), "");
}

}  // namespace

example_run::example_run(const std::string& name, const std::string& arguments) {
  char folder[] = "/tmp/kav_example_XXXXXX";
  if (::mkdtemp(folder) == nullptr) throw std::runtime_error("mkdtemp");
  m_folder = folder;
  const std::string command = "exec timeout 60 " KAV_EXAMPLES "/" + name + " " + arguments + " >" +
                              file("output") + " 2>" + file("errors");
  m_input = ::popen(command.c_str(), "we");
  if (m_input == nullptr) throw std::runtime_error("popen");
}

example_run::~example_run() {
  if (m_input != nullptr) wait();
  std::filesystem::remove_all(m_folder);
}

std::string example_run::file(const char* name) const { return m_folder + "/" + name; }

std::string example_run::output() const { return content(file("output")); }
std::string example_run::errors() const { return content(file("errors")); }

void example_run::press_enter() {
  std::fputc('\n', m_input);
  std::fflush(m_input);
}

std::optional<int> example_run::wait() {
  const int status = ::pclose(m_input);
  m_input = nullptr;
  if (!WIFEXITED(status)) return std::nullopt;
  return WEXITSTATUS(status);
}

std::set<std::string> shapes_of(const std::string& lines) {
  std::istringstream stream(std::regex_replace(lines, std::regex(R"(-?\d+(\.\d+)?)"), "#"));
  std::set<std::string> shapes;
  for (std::string line; std::getline(stream, line);) {
    if (!line.empty()) shapes.insert(std::regex_replace(line, std::regex("(IF|rb)#"), "SYMBOL"));
  }
  return shapes;
}

std::string promised_lines(const std::string& source_file) {
  const std::string source = content(std::string(KAV_EXAMPLE_SOURCES) + "/" + source_file);
  const std::string mark = "Prints:";
  const std::size_t at = source.rfind(mark);
  return at == std::string::npos ? "" : bare(source.substr(at + mark.size()));
}

}  // namespace kav_examples
