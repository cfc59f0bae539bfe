// The table on a terminal. Everything about curses is in here.
#pragma once

#include <cstdio>  // FILE
#include <memory>  // std::unique_ptr
#include <string>  // std::string
#include <vector>  // std::vector

#include "apps/watch/quote_table.h"

namespace kav_watch {

struct screen_colours {
  bool on = true;
  bool green_up = false;
};

// Main thread only; one at a time. The destructor gives the terminal back as it was.
class table_screen {
 public:
  // Null when the terminal cannot do it (TERM unknown). `out_fd` stays the caller's; keys come
  // from standard input, or from the controlling terminal when that is something else.
  static std::unique_ptr<table_screen> open(int out_fd, const screen_colours& colours);
  ~table_screen();
  table_screen(const table_screen&) = delete;
  table_screen& operator=(const table_screen&) = delete;

  int key_fd() const;  // -1: there is no keyboard
  // Obeys the keys that were pressed. False: the user quits.
  bool obey_keys();
  void fit_to_terminal();  // after its size changed
  // Below the rows: the lines of `status`, at least one, then the log line.
  void draw(const quote_table& table, const std::vector<std::string>& status,
            const std::string& last_log);

 private:
  struct implementation;
  explicit table_screen(std::unique_ptr<implementation> inner);
  bool obey(int key);
  void draw_header();
  void draw_row(int y, const table_line& line);
  void draw_text(int y, const std::string& text);

  const std::unique_ptr<implementation> m;
};

}  // namespace kav_watch
