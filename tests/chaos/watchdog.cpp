#include "tests/chaos/watchdog.h"

#include <fmt/format.h>
#include <pthread.h>  // pthread_setname_np

#include <cstdio>      // fputs
#include <cstdlib>     // abort
#include <filesystem>  // std::filesystem::directory_iterator
#include <fstream>     // std::ifstream

namespace kav_chaos {
namespace {

constexpr std::chrono::seconds k_look{1};

// One line, with its lines joined; empty when it cannot be read.
std::string content_of(const std::filesystem::path& file) {
  std::ifstream in(file);
  std::string all, line;
  while (std::getline(in, line)) all += (all.empty() ? "" : " < ") + line;
  return all;
}

std::string state_of(const std::filesystem::path& task) {
  std::ifstream status(task / "status");
  for (std::string line; std::getline(status, line);) {
    if (line.compare(0, 6, "State:") == 0) return line.substr(7);
  }
  return "?";
}

}  // namespace

std::string describe_threads() {
  std::string text;
  std::error_code error;
  std::filesystem::directory_iterator at("/proc/self/task", error);
  while (!error && at != std::filesystem::directory_iterator()) {
    const std::filesystem::path& task = at->path();
    text += fmt::format("  {:>8} {:15} {:12} wchan {} syscall {}", task.filename().string(),
                        content_of(task / "comm"), state_of(task), content_of(task / "wchan"),
                        content_of(task / "syscall"));
    const std::string stack = content_of(task / "stack");
    text += stack.empty() ? "\n" : " stack " + stack + "\n";
    at.increment(error);
  }
  return text;
}

watchdog::watch::watch(watchdog& dog, const life_script& script) : m_dog(dog), m_script(script) {
  const std::lock_guard<std::mutex> hold{m_dog.m_lock};
  m_dog.m_watched.push_back(this);
}

watchdog::watch::~watch() {
  const std::lock_guard<std::mutex> hold{m_dog.m_lock};
  m_dog.m_watched.remove(this);
}

watchdog::watchdog(std::chrono::seconds limit) : m_limit(limit), m_thread([this] { run(); }) {}

watchdog::~watchdog() {
  {
    const std::lock_guard<std::mutex> hold{m_lock};
    m_done = true;
  }
  m_changed.notify_all();
  m_thread.join();
}

void watchdog::run() {
  ::pthread_setname_np(::pthread_self(), "chaos-watchdog");
  std::unique_lock<std::mutex> hold{m_lock};
  while (!m_changed.wait_for(hold, k_look, [this] { return m_done; })) {
    for (const watch* const watched : m_watched) {
      if (std::chrono::steady_clock::now() - watched->m_begin > m_limit) bite(*watched);
    }
  }
}

void watchdog::bite(const watch& late) const {
  const std::string text = fmt::format(
      "kav-chaos: life {} of seed {} has not ended within {} s; repeat it with "
      "kav-chaos --seed {} --life {}\nthreads:\n{}{}",
      late.m_script.number, late.m_script.seed, m_limit.count(), late.m_script.seed,
      late.m_script.number, describe_threads(), text_of(late.m_script));
  std::fputs(text.c_str(), stderr);
  std::fflush(stderr);
  std::abort();
}

}  // namespace kav_chaos
