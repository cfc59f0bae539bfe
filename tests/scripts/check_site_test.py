#!/usr/bin/env python3
"""check_site_test.py SCRIPTS: tests of check_site.py in the folder SCRIPTS, with a site of our own."""

import pathlib
import sys
import tempfile
import unittest

sys.path.insert(0, sys.argv.pop(1))

import check_site  # noqa: E402


class SiteTest(unittest.TestCase):
    def broken(self, body):
        check_site.names_in.cache_clear()
        with tempfile.TemporaryDirectory() as name:
            folder = pathlib.Path(name)
            (folder / "other.html").write_text('<h1 id="top">x</h1><a name="old"></a>')
            (folder / "index.html").write_text(body)
            return list(check_site.broken_links(folder))

    def test_links_that_lead_somewhere_are_fine(self):
        self.assertEqual([], self.broken('<h1 id="here"></h1><a href="#here"><a href="other.html">'
                                         '<a href="other.html#top"><a href="other.html#old">'
                                         '<a href="https://example.org/x"><img src="other.html">'))

    def test_a_page_a_picture_or_a_heading_that_is_not_there_is_found(self):
        for link in ('href="nobody.html"', 'src="nobody.svg"', 'href="other.html#nobody"',
                     'href="#nobody"', 'data="nobody.svg"'):
            self.assertEqual(1, len(self.broken(f"<a {link}>")), link)


if __name__ == "__main__":
    unittest.main()
