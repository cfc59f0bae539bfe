#!/usr/bin/env python3
"""Tests of check_named_tests.py, with documents and a list of tests of our own."""

import contextlib
import io
import json
import pathlib
import tempfile
import unittest

import check_named_tests

TESTS = {"map_str.finds_what_was_set", "kav.the_demo_shows_quotes",
         "places/inside_test.it_ends/OnQuote", "places/inside_test.it_ends/OnLog"}

TABLE = """# Promises
| Promise | Tests |
|---|---|
| It finds. | `map_str.finds_what_was_set` |
| It ends. | `places/inside_test.it_ends/*`, `kav.the_demo_shows_quotes` |
"""


def listing(names):
    return json.dumps({"tests": [{"name": name} for name in names]})


class NamesTest(unittest.TestCase):
    def mistakes(self, text, **options):
        return check_named_tests.check("doc.md", text, TESTS, **options)

    def test_names_and_patterns_that_exist_are_no_mistakes(self):
        self.assertEqual([], self.mistakes(TABLE, every_row=True))

    def test_a_wrong_name_is_found_with_its_line(self):
        text = TABLE.replace("finds_what_was_set", "finds_what_was_not_set")
        self.assertEqual(["doc.md:4: no test is called 'map_str.finds_what_was_not_set'"],
                         self.mistakes(text))

    def test_part_of_a_name_is_a_wrong_name(self):
        for name in ("map_str.finds", "map_str.finds_what_was_set_", "inside_test.it_ends/OnLog"):
            self.assertEqual([f"doc.md:1: no test is called '{name}'"],
                             self.mistakes(f"See `{name}`."))

    def test_a_pattern_that_nothing_matches_is_found(self):
        self.assertEqual(["doc.md:1: no test is called 'map_str.*lost*'"],
                         self.mistakes("`map_str.*lost*`"))

    def test_files_commands_and_plain_words_are_no_names(self):
        text = "`map_str.finds_what_was_set`, `tools/map_str.h`, `libkavquote.so`, `ctest -N`, " \
               "`./kav test`, map_str.unknown, `g_sge_symbol`, `239.255.10.1`"
        self.assertEqual([], self.mistakes(text))

    def test_every_name_of_a_line_is_looked_at(self):
        self.assertEqual(2, len(self.mistakes("`a.b` and `map_str.finds_what_was_set` and `c.d`")))

    def test_a_document_without_names_is_a_mistake(self):
        self.assertEqual(["doc.md: names no test at all"], self.mistakes("# Nothing\n"))

    def test_a_row_without_a_test_is_found_but_not_the_head_of_its_table(self):
        text = TABLE + "| It flies. | nobody has looked |\n"
        self.assertEqual(["doc.md:6: the row names no test"], self.mistakes(text, every_row=True))
        self.assertEqual([], self.mistakes(text))


class ListTest(unittest.TestCase):
    def test_names_are_taken_from_the_list_of_ctest(self):
        self.assertEqual(TESTS, check_named_tests.tests_of(listing(TESTS)))

    def test_programs_that_are_not_built_are_told(self):
        with self.assertRaisesRegex(check_named_tests.CheckError, "not built.*: destroy_test; "):
            check_named_tests.tests_of(listing(["map_str.a", "destroy_test_NOT_BUILT"]))

    def test_what_is_no_list_is_told(self):
        for text in ("", "Test project", "[]", '{"tests": [{}]}'):
            with self.assertRaisesRegex(check_named_tests.CheckError, "does not list"):
                check_named_tests.tests_of(text)


class MainTest(unittest.TestCase):
    def setUp(self):
        self.folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        self.document = self.folder / "promises.md"
        self.document.write_text(TABLE)
        self.ctest = self.folder / "ctest"
        self.set_ctest(f"echo '{listing(sorted(TESTS))}'")

    def set_ctest(self, command):
        self.ctest.write_text(f"#!/bin/sh\n{command}\n")
        self.ctest.chmod(0o755)

    def run_main(self, *arguments):
        with contextlib.redirect_stderr(io.StringIO()) as err:
            status = check_named_tests.main(["--ctest", str(self.ctest), str(self.folder),
                                             *map(str, arguments)])
        return status, err.getvalue()

    def test_a_sound_document_passes_in_silence(self):
        self.assertEqual((0, ""), self.run_main("--every-row", self.document))

    def test_a_wrong_name_fails(self):
        self.document.write_text(TABLE + "\n`map_str.gone`\n")
        status, err = self.run_main(self.document)
        self.assertEqual(1, status)
        self.assertEqual("promises.md:7: no test is called 'map_str.gone'\n", err)

    def test_an_optional_document_may_be_missing_a_required_one_not(self):
        self.assertEqual((0, ""), self.run_main(self.document, self.folder / "none.md"))
        status, err = self.run_main("--every-row", self.folder / "none.md")
        self.assertEqual(1, status)
        self.assertIn("none.md cannot be read", err)

    def test_a_ctest_that_fails_or_is_missing_is_told(self):
        self.set_ctest("echo broken >&2; exit 3")
        status, err = self.run_main(self.document)
        self.assertEqual(1, status)
        self.assertIn("cannot list the tests", err)
        self.ctest.unlink()
        self.assertEqual(1, self.run_main(self.document)[0])

    def test_nothing_to_check_is_a_wrong_argument(self):
        with self.assertRaises(SystemExit) as end:
            self.run_main()
        self.assertEqual(2, end.exception.code)


if __name__ == "__main__":
    unittest.main()
