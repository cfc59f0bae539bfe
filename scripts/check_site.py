#!/usr/bin/env python3
"""check_site.py FOLDER: no link of the HTML pages in FOLDER leads nowhere.

Links into the network are not followed. Exit status: 0 all lead somewhere, 1 some do not, 2 wrong
arguments.
"""

import functools
import html
import pathlib
import re
import sys

LINK = re.compile(r'(?:href|src|data)="([^"]+)"')
NAME = re.compile(r'(?:id|name)="([^"]+)"')
# Doxygen links to this heading of pages that have none, since their nested classes are private.
FALSE_ALARMS = {"#nested-classes"}


@functools.cache
def names_in(page):
    return set(NAME.findall(page.read_text(encoding="utf-8")))


def leads_somewhere(page, link):
    name, _, anchor = link.partition("#")
    target = page.parent / name if name else page
    if not target.exists():
        return False
    return not anchor or target.suffix != ".html" or anchor in names_in(target)


def broken_links(folder):
    for page in sorted(folder.rglob("*.html")):
        links = {html.unescape(link) for link in LINK.findall(page.read_text(encoding="utf-8"))}
        for link in sorted(links - FALSE_ALARMS):
            if not re.match(r"[a-z]+:", link) and not leads_somewhere(page, link):
                yield f"{page.relative_to(folder)}: {link}"


def main(arguments):
    if len(arguments) != 1 or not (pathlib.Path(arguments[0]) / "index.html").exists():
        print("usage: check_site.py FOLDER, one with an index.html", file=sys.stderr)
        return 2
    broken = list(broken_links(pathlib.Path(arguments[0])))
    print("\n".join(broken), file=sys.stderr, end="\n" if broken else "")
    return 1 if broken else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
