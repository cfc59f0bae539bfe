#include "tests/support/machine.h"

#include <sys/utsname.h>  // uname
#include <unistd.h>       // sysconf

#include <cstdlib>  // strtoull, getloadavg
#include <ctime>    // gmtime_r, strftime, clock_gettime
#include <fstream>  // std::ifstream
#include <thread>   // hardware_concurrency

namespace kav_test {

namespace {

// What follows the colon in the first line of the file that begins with the name.
std::string line_of(const char* path, const std::string& name) {
  std::ifstream file{path};
  std::string line;
  while (std::getline(file, line)) {
    const std::size_t colon = line.find(':');
    if (!line.starts_with(name) || colon == std::string::npos) continue;
    const std::size_t text = line.find_first_not_of(" \t", colon + 1);
    return text == std::string::npos ? "" : line.substr(text);
  }
  return "";
}

std::string utc_now() {
  const std::time_t now = std::time(nullptr);
  std::tm parts{};
  ::gmtime_r(&now, &parts);
  char text[32] = "";
  std::strftime(text, sizeof text, "%Y-%m-%d %H:%M", &parts);
  return text;
}

}  // namespace

machine this_machine() {
  machine m;
  utsname system{};
  if (::uname(&system) == 0) m.kernel = system.release;
  m.cpu = line_of("/proc/cpuinfo", "model name");
  m.cores = std::thread::hardware_concurrency();
  m.memory_kib = std::strtoull(line_of("/proc/meminfo", "MemTotal").c_str(), nullptr, 10);
  m.date = utc_now();
  if (::getloadavg(&m.load, 1) != 1) m.load = 0;
  return m;
}

double processor_seconds_of_others() {
  std::ifstream file{"/proc/stat"};
  std::string cpu;
  double user = 0, nice = 0, system = 0, idle = 0, waiting = 0, irq = 0, softirq = 0, stolen = 0;
  file >> cpu >> user >> nice >> system >> idle >> waiting >> irq >> softirq >> stolen;
  timespec own{};
  ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &own);
  const double all = (user + nice + system + stolen) / static_cast<double>(::sysconf(_SC_CLK_TCK));
  return all - static_cast<double>(own.tv_sec) - static_cast<double>(own.tv_nsec) / 1e9;
}

}  // namespace kav_test
