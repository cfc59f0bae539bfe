#include "tests/support/two_networks.h"

#include <sched.h>   // unshare
#include <unistd.h>  // gettid

#include <cerrno>   // errno
#include <cstdlib>  // std::system
#include <cstring>  // std::strerror
#include <utility>  // std::move

namespace kav_test {
namespace {

// Known in advance: a neighbour that no longer answers would be noticed by itself, and a server is
// seldom a neighbour.
constexpr const char* k_far_mac = "02:00:00:00:00:02";

}  // namespace

network_thread::network_thread() : m_thread([this] { live(); }) {
  run([this] {
    m_id = ::gettid();
    if (::unshare(CLONE_NEWNET) != 0) {
      m_obstacle = std::string("no network namespace: ") + std::strerror(errno);
    }
  });
}

network_thread::~network_thread() {
  {
    const std::lock_guard<std::mutex> guard(m_lock);
    m_ends = true;
  }
  m_changed.notify_all();
  m_thread.join();
}

void network_thread::run(std::function<void()> body) {
  std::unique_lock<std::mutex> guard(m_lock);
  m_body = std::move(body);
  m_changed.notify_all();
  m_changed.wait(guard, [this] { return m_body == nullptr; });
}

void network_thread::live() {
  std::unique_lock<std::mutex> guard(m_lock);
  for (;;) {
    m_changed.wait(guard, [this] { return m_body != nullptr || m_ends; });
    if (m_body == nullptr) return;
    m_body();
    m_body = nullptr;
    m_changed.notify_all();
  }
}

bool network_thread::ip(const std::string& command) {
  bool done = false;
  // The child inherits this thread's network.
  run([&] { done = std::system(("ip " + command + " 2>/dev/null").c_str()) == 0; });
  return done;
}

two_networks::two_networks() : m_obstacle(m_near.obstacle()) {
  if (m_obstacle.empty()) m_obstacle = m_far.obstacle();
  if (!m_obstacle.empty()) return;
  const std::string peer = " type veth peer name kav-far address " + std::string(k_far_mac);
  const bool done =
      m_near.ip("link add kav-near" + peer + " netns " + std::to_string(m_far.id())) &&
      m_near.ip(std::string("address add ") + k_near_ip + "/30 dev kav-near") &&
      m_near.ip("link set kav-near up") &&
      m_near.ip(std::string("neighbour add ") + k_far_ip + " lladdr " + k_far_mac +
                " dev kav-near nud permanent") &&
      m_far.ip(std::string("address add ") + k_far_ip + "/30 dev kav-far") && mend_cable();
  if (!done) m_obstacle = "no pair of virtual network devices";
}

}  // namespace kav_test
