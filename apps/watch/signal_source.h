// Signals as something to wait for: they arrive in a descriptor instead of interrupting.
#pragma once

namespace kav_watch {

// Blocks SIGINT, SIGTERM, SIGHUP and SIGWINCH (those that the parent did not have ignored) in the
// calling thread and in every thread that it starts later; ignores SIGPIPE. Main thread, before
// any other thread exists.
class signal_source {
 public:
  signal_source();
  ~signal_source();
  signal_source(const signal_source&) = delete;
  signal_source& operator=(const signal_source&) = delete;

  int fd() const { return m_fd; }  // readable: a signal waits
  // Takes all that wait. Once the program has been asked to end, it stays so.
  void read_all();
  bool end_asked() const { return m_end_asked; }
  // Whether the terminal's size changed since the last call.
  bool take_resize();

 private:
  int m_fd;
  bool m_end_asked = false;
  bool m_resized = false;
};

}  // namespace kav_watch
