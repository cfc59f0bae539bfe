// The link between client and server is cut: two network namespaces and a pair of interfaces.
#include <sched.h>        // unshare
#include <sys/syscall.h>  // SYS_gettid
#include <unistd.h>       // syscall

#include <cstdlib>  // system
#include <future>   // std::promise

#include "tests/faults/stage.h"

namespace kav_faults {

namespace {

constexpr char k_server_ip[] = "10.99.7.2";
constexpr double k_goal_s = 20;
constexpr milliseconds k_notice_limit{25'000};
constexpr milliseconds k_down_longer{1000};  // than until the client has noticed

// The exit status of a shell command is 0. It works in the network of the calling thread.
bool run(const std::string& command) {
  return std::system((command + " >/dev/null 2>&1").c_str()) == 0;
}

// A thread in a network of its own that does what it is told, one thing after the other.
class far_end {
 public:
  far_end() : m_thread([this] { live(); }) {}
  far_end(const far_end&) = delete;
  far_end& operator=(const far_end&) = delete;
  ~far_end() {
    tell(nullptr);
    m_thread.join();
  }
  // 0: no network could be made.
  long thread_id() { return m_id.get_future().get(); }
  // Waits until it is done.
  void tell(const std::function<void()>* todo) {
    m_todo.store(todo);
    m_asked.store(true);
    m_asked.notify_all();
    m_asked.wait(true);
  }
  bool run_there(const std::string& command) {
    bool good = false;
    const std::function<void()> todo = [&] { good = run(command); };
    tell(&todo);
    return good;
  }

 private:
  void live() {
    m_id.set_value(::unshare(CLONE_NEWNET) == 0 ? ::syscall(SYS_gettid) : 0);
    for (;;) {
      m_asked.wait(false);
      const std::function<void()>* const todo = m_todo.load();
      if (todo != nullptr) (*todo)();
      m_asked.store(false);
      m_asked.notify_all();
      if (todo == nullptr) return;
    }
  }

  std::promise<long> m_id;
  std::atomic<bool> m_asked{false};
  std::atomic<const std::function<void()>*> m_todo{nullptr};
  std::thread m_thread;  // last: it uses the others
};

// Empty, or why there is no link.
std::string make_link(far_end& far) {
  if (::unshare(CLONE_NEWNET) != 0) return "no network namespace can be made here";
  const long id = far.thread_id();
  if (id == 0) return "no second network namespace can be made here";
  const bool made =
      run("ip link add kavnear type veth peer name kavfar netns " + std::to_string(id)) &&
      run("ip address add 10.99.7.1/24 dev kavnear") && run("ip link set kavnear up") &&
      far.run_there("ip address add 10.99.7.2/24 dev kavfar") &&
      far.run_there("ip link set kavfar up");
  return made ? "" : "no pair of interfaces can be made here";
}

void expect_notice_and_return(fault_result& r, stage& s, far_end& far) {
  const caller& events = s.client.events;
  const clock::time_point at = clock::now();
  r.expect(far.run_there("ip link set kavfar down"), "the link can be cut");
  events.wait_call(k_loss, 1, k_notice_limit);
  std::this_thread::sleep_for(k_down_longer);
  const clock::time_point back = clock::now();
  r.expect(far.run_there("ip link set kavfar up"), "the link can be mended");
  measure_return(r, events, at, k_loss);
  if (!r.expect(r.noticed_s && *r.noticed_s <= k_goal_s, "the loss is noticed within 20 s")) return;
  const auto flowed = events.first_after(back, "OnQuote");
  r.expect(flowed.has_value(), "quotes flow again when the link is back");
  if (flowed) r.add("from the link's return to the first quote", *flowed, "s");
}

// On a thread of its own, whose network is changed.
void cut_link(fault_result& r) {
  far_end far;
  r.skipped = make_link(far);
  if (!r.skipped.empty()) return;
  stage s{plain_options(k_server_ip)};
  bool started = false;
  const std::function<void()> start = [&] { started = s.server.start(); };
  far.tell(&start);
  if (!r.expect(started, "the server starts: " + s.server.start_error()) ||
      !r.expect(s.client.log_in(s.server.port(), k_server_ip), "the first login succeeds") ||
      !r.expect(s.client.register_symbol(k_symbol), "the symbol is registered")) {
    return;
  }
  quote_feed feed{s.server, 1000};
  r.expect(s.client.events.wait_quotes(100), "quotes flow at first");
  expect_notice_and_return(r, s, far);
}

}  // namespace

fault_result link_cut() {
  fault_result r;
  r.note = "two network namespaces; the far interface of the link goes down and up again";
  std::thread{[&] { cut_link(r); }}.join();
  return r;
}

}  // namespace kav_faults
