#!/usr/bin/env python3
"""Checks that no link of the Markdown files leads nowhere.

A link to a file needs that file, one to a heading (#like-this) needs that heading. Links into the
network are not followed: whether they work depends on the day.

Exit status: 0 all of them lead somewhere; 1 some do not, or a file cannot be read; 2 wrong
arguments.
"""

import pathlib
import re
import sys

CODE = re.compile(r"```.*?```|`[^`\n]*`", re.DOTALL)
LINK = re.compile(r"\]\(([^()\s]+)\)")
HEADING = re.compile(r"^#+ +(.+?) *$", re.MULTILINE)
FENCED = re.compile(r"^```.*?^```", re.DOTALL | re.MULTILINE)


def anchors_of(text):
    """What a heading is called in a link: small letters, blanks as hyphens, nothing else."""
    headings = HEADING.findall(FENCED.sub("", text))
    return {re.sub(r"[^\w -]", "", heading.lower()).replace(" ", "-") for heading in headings}


def broken(path, text, read):
    """The links of one file that lead nowhere; `read` gives the text of a file or raises OSError."""
    for link in LINK.findall(CODE.sub("", text)):
        if re.match(r"[a-z]+:", link):
            continue
        name, _, anchor = link.partition("#")
        target = path.parent / name if name else path
        try:
            if not target.exists():
                yield f"{path}: no file for ({link})"
            elif anchor and anchor not in anchors_of(read(target)):
                yield f"{path}: no heading for ({link})"
        except OSError as error:
            yield f"{path}: ({link}): {error.strerror}"


def read_text(path):
    return path.read_text(encoding="utf-8")


def main(arguments):
    if not arguments:
        print("usage: check_links.py FILE.md...", file=sys.stderr)
        return 2
    mistakes = []
    for path in map(pathlib.Path, arguments):
        try:
            mistakes += broken(path, read_text(path), read_text)
        except OSError as error:
            mistakes.append(f"{path} cannot be read: {error.strerror}")
    print("\n".join(mistakes), file=sys.stderr, end="\n" if mistakes else "")
    return 1 if mistakes else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
