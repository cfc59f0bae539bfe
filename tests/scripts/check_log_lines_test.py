#!/usr/bin/env python3
"""Tests of check_log_lines.py, with a page and sources of our own."""

import unittest

import check_log_lines

SOURCE = r'''
constexpr char k_lost[] = "[QuoteClient] out of memory, query dropped.";
void Ckqc_tcp::act() {
  write_log(LogLevelError, "[QuoteClient] connect failed. server ip: %s, port: "
            "%d.", ip, port);
  write_log(LogLevelDebug, "[on_cache_callback] EVENT_CONNECT");
  write_log(LogLevelError, "[QuoteClient] %s", reason);
  write_log(LogLevelError, format_str("[QuoteClient] group %zu: %s.", i, why));
  snprintf_vl(reason, sizeof(reason), "query error");
}
'''
PAGE = """
| Level | Line | Thread | Meaning |
|---|---|---|---|
| 3 | `[QuoteClient] out of memory, query dropped.` | caller | ask again |
| 3 | `[QuoteClient] connect failed. server ip: <ip>, port: <port>.` | caller | look |
| 0 | `[on_cache_callback] EVENT_CONNECT` | kav-event | connected |
| 3 | `[QuoteClient] query error` | kav-worker | too late |
| 3 | `[QuoteClient] group <number>: <cause>.` | caller | wrong |
"""


class LogLinesTest(unittest.TestCase):
    def mistakes(self, source=SOURCE, page=PAGE):
        return check_log_lines.check([source], page)

    def test_a_page_with_every_line_has_no_mistakes(self):
        self.assertEqual([], self.mistakes())

    def test_a_line_that_the_page_leaves_out_is_found(self):
        rows = PAGE.splitlines()
        for number, line in ((3, "[QuoteClient] out of memory, query dropped."),
                             (4, "[QuoteClient] connect failed. server ip: *, port: *."),
                             (7, "[QuoteClient] group *: *.")):
            page = "\n".join(rows[:number] + rows[number + 1:])
            self.assertEqual([f"not in the page: {line}"], self.mistakes(page=page))

    def test_a_line_that_nobody_writes_is_found(self):
        page = PAGE + "| 3 | `[QuoteClient] made up.` | caller | never |\n"
        self.assertEqual(["written by nobody: [QuoteClient] made up."], self.mistakes(page=page))
        self.assertEqual(["written by nobody: [QuoteClient] query error"],
                         self.mistakes(source=SOURCE.replace("query error", "another error")))

    def test_a_changed_word_is_found_on_both_sides(self):
        self.assertEqual(2, len(self.mistakes(page=PAGE.replace("connect failed", "connect fails"))))

    def test_a_wrong_level_is_found(self):
        page = PAGE.replace("| 0 | `[on_cache", "| 3 | `[on_cache")
        self.assertEqual(["has level 0, not 3: [on_cache_callback] EVENT_CONNECT"],
                         self.mistakes(page=page))

    def test_a_page_without_lines_is_a_mistake(self):
        self.assertIn("the page lists no line at all", self.mistakes(page="# Nothing\n"))


if __name__ == "__main__":
    unittest.main()
