#!/usr/bin/env python3
"""Tests of check_links.py, with pages of our own."""

import pathlib
import tempfile
import unittest

import check_links


class LinksTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        (self.folder / "docs").mkdir()
        (self.folder / "docs/other.md").write_text("# Other page\n\n## `Q`, and more\n")

    def broken(self, text):
        page = self.folder / "README.md"
        page.write_text(text)
        return list(check_links.broken(page, text, check_links.read_text))

    def test_links_that_lead_somewhere_are_fine(self):
        self.assertEqual([], self.broken("# Here\n[a](docs/other.md) [b](docs/other.md#other-page) "
                                         "[c](docs/other.md#q-and-more) [d](#here) "
                                         "[e](https://example.org/nowhere) ![f](docs)"))

    def test_a_file_that_is_not_there_is_found(self):
        self.assertEqual(1, len(self.broken("[a](docs/nobody.md)")))

    def test_a_heading_that_is_not_there_is_found(self):
        self.assertEqual(2, len(self.broken("[a](docs/other.md#nobody) [b](#nobody)")))

    def test_what_stands_in_code_is_no_link_and_no_heading(self):
        self.assertEqual([], self.broken("`[a](b)`\n```\n[c](d)\n```\n"))
        self.assertEqual(1, len(self.broken("```\n# Comment\n```\n[a](#comment)")))


if __name__ == "__main__":
    unittest.main()
