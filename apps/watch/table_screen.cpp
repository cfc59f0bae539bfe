#include "apps/watch/table_screen.h"

#include <fcntl.h>      // fcntl
#include <ncurses.h>    // newterm, ...
#include <poll.h>       // poll
#include <sys/ioctl.h>  // TIOCGWINSZ
#include <unistd.h>     // isatty

#include <algorithm>  // std::max
#include <utility>    // std::move

#include "apps/watch/text_safety.h"

namespace kav_watch {
namespace {

constexpr short k_rise_pair = 1;
constexpr short k_fall_pair = 2;
constexpr int k_header_lines = 1;
constexpr int k_escape_wait_ms = 25;  // an Esc that begins no key sequence is told after this
constexpr int k_ctrl_l = 'L' & 0x1F;

struct file_closer {
  void operator()(FILE* file) const { std::fclose(file); }
};
using file_handle = std::unique_ptr<FILE, file_closer>;

file_handle open_copy(int fd, const char* mode) {
  const int copy = ::fcntl(fd, F_DUPFD_CLOEXEC, 3);
  return file_handle{copy < 0 ? nullptr : ::fdopen(copy, mode)};
}

// Null when nobody can press a key.
file_handle open_keyboard() {
  if (::isatty(STDIN_FILENO) == 1) return open_copy(STDIN_FILENO, "r");
  return file_handle{std::fopen("/dev/tty", "re")};
}

void start_colours(const screen_colours& wanted) {
  if (!wanted.on || !has_colors() || start_color() == ERR) return;
  use_default_colors();
  init_pair(k_rise_pair, wanted.green_up ? COLOR_GREEN : COLOR_RED, -1);
  init_pair(k_fall_pair, wanted.green_up ? COLOR_RED : COLOR_GREEN, -1);
}

bool is_coloured(std::size_t column) {
  return column == k_change_column || column == k_percent_column;
}

std::array<std::string, k_table_columns> titles() {
  std::array<std::string, k_table_columns> out;
  for (std::size_t i = 0; i < k_table_columns; ++i) out[i] = table_columns()[i].title;
  return out;
}

}  // namespace

struct table_screen::implementation {
  file_handle out;
  file_handle keyboard;
  file_handle nothing;  // stands in for a missing keyboard
  SCREEN* screen = nullptr;
  bool coloured = false;
  column_widths widths;
  table_position position;
};

table_screen::table_screen(std::unique_ptr<implementation> inner) : m(std::move(inner)) {}

std::unique_ptr<table_screen> table_screen::open(int out_fd, const screen_colours& colours) {
  auto inner = std::make_unique<implementation>();
  inner->out = open_copy(out_fd, "w");
  inner->keyboard = open_keyboard();
  if (!inner->keyboard) inner->nothing = file_handle{std::fopen("/dev/null", "re")};
  FILE* input = inner->keyboard ? inner->keyboard.get() : inner->nothing.get();
  if (!inner->out || input == nullptr) return nullptr;
  inner->screen = newterm(nullptr, inner->out.get(), input);
  if (inner->screen == nullptr) return nullptr;
  set_term(inner->screen);
  set_escdelay(k_escape_wait_ms);
  cbreak();
  noecho();
  nonl();
  curs_set(0);
  keypad(stdscr, TRUE);
  nodelay(stdscr, TRUE);
  start_colours(colours);
  inner->coloured = colours.on && has_colors();
  return std::unique_ptr<table_screen>{new table_screen{std::move(inner)}};
}

table_screen::~table_screen() {
  endwin();
  delscreen(m->screen);
}

int table_screen::key_fd() const { return m->keyboard ? ::fileno(m->keyboard.get()) : -1; }

bool table_screen::obey_keys() {
  for (int key = getch(); key != ERR; key = getch()) {
    if (!obey(key)) return false;
  }
  // A terminal that is gone stays readable for ever and has no keys.
  pollfd keyboard{key_fd(), POLLIN, 0};
  return ::poll(&keyboard, 1, 0) <= 0 || (keyboard.revents & (POLLHUP | POLLERR)) == 0;
}

bool table_screen::obey(int key) {
  table_position& position = m->position;
  switch (key) {
    case 'q':
    case 'Q':
      return false;
    case KEY_UP:
      position.move_rows(-1);
      return true;
    case KEY_DOWN:
      position.move_rows(1);
      return true;
    case KEY_PPAGE:
      position.move_pages(-1);
      return true;
    case KEY_NPAGE:
      position.move_pages(1);
      return true;
    case KEY_HOME:
      position.to_first();
      return true;
    case KEY_END:
      position.to_last();
      return true;
    case KEY_LEFT:
      position.move_columns(-1);
      return true;
    case KEY_RIGHT:
      position.move_columns(1);
      return true;
    case k_ctrl_l:
      clearok(curscr, TRUE);
      return true;
    default:
      return true;
  }
}

void table_screen::fit_to_terminal() {
  winsize size{};
  if (::ioctl(::fileno(m->out.get()), TIOCGWINSZ, &size) != 0) return;
  if (size.ws_row > 0 && size.ws_col > 0) resizeterm(size.ws_row, size.ws_col);
  clearok(curscr, TRUE);
}

void table_screen::draw_text(int y, const std::string& text) {
  if (y >= k_header_lines && y < getmaxy(stdscr)) mvaddnstr(y, 0, text.c_str(), getmaxx(stdscr));
}

void table_screen::draw_header() {
  const auto width = static_cast<std::size_t>(getmaxx(stdscr));
  attr_on(A_BOLD, nullptr);
  for (const auto& piece : m->widths.arrange(titles(), m->position.first_column(), width)) {
    mvaddstr(0, static_cast<int>(piece.at), piece.text.c_str());
  }
  attr_off(A_BOLD, nullptr);
}

void table_screen::draw_row(int y, const table_line& line) {
  const auto width = static_cast<std::size_t>(getmaxx(stdscr));
  const short pair = line.direction > 0 ? k_rise_pair : k_fall_pair;
  for (const auto& piece : m->widths.arrange(line.cells, m->position.first_column(), width)) {
    const bool tint = m->coloured && line.direction != 0 && is_coloured(piece.column);
    if (tint) color_set(pair, nullptr);
    mvaddstr(y, static_cast<int>(piece.at), piece.text.c_str());
    if (tint) color_set(0, nullptr);
  }
}

void table_screen::draw(const quote_table& table, const std::vector<std::string>& status,
                        const std::string& last_log) {
  const int height = getmaxy(stdscr);
  const int footer = height - static_cast<int>(status.size()) - 1;  // where it begins
  const int visible = std::max(footer - k_header_lines, 0);
  m->position.set_rows(table.size(), static_cast<std::size_t>(visible));
  const steady_time now = std::chrono::steady_clock::now();
  std::vector<table_line> lines;
  for (std::size_t i = m->position.first_row(); i < m->position.end_row(); ++i) {
    m->widths.fit(lines.emplace_back(table.line(i, now)));
  }
  erase();
  draw_header();
  int y = k_header_lines;
  for (const table_line& line : lines) draw_row(y++, line);
  const std::string rows =
      fmt::format("rows {}-{} of {}", lines.empty() ? 0 : m->position.first_row() + 1,
                  m->position.end_row(), table.size());
  draw_text(footer, ascii_text(fmt::format("{} | {} | q quits", status.front(), rows)));
  for (std::size_t i = 1; i < status.size(); ++i) {
    draw_text(footer + static_cast<int>(i), ascii_text(status[i]));
  }
  draw_text(height - 1, ascii_text(last_log));
  refresh();
}

}  // namespace kav_watch
