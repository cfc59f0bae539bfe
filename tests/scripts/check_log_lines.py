#!/usr/bin/env python3
"""Checks that a page lists every log line of the client, each with its level, and no other.

The sources' texts are those in quotes that begin like a log line; the page's stand in the second
column of its tables, in backticks, with words in <angle brackets> for what is filled in.

Exit status: 0 page and sources agree; 1 they do not, or cannot be read; 2 wrong arguments.
"""

import pathlib
import re
import sys

LITERAL = r'"(?:[^"\\\n]|\\.)*"'
TEXT = re.compile(rf"(?:(?:write_log\(\s*LogLevel(\w+),\s*)(?:format_str\()?)?({LITERAL}(?:\s*{LITERAL})*)")
BEGINNING = re.compile(r"\[QuoteClient\]|\[on_cache_callback\]|Ckqc_tcp::_th")
FILLED_BY_CONVERSION = re.compile(r"%[-+ 0-9.]*(?:z|l)?[a-zA-Z]")
FILLED_IN_PAGE = re.compile(r"<[^<>]+>")
ROW = re.compile(r"\| (\d) \| `([^`]+)` \|")
LEVELS = {"Debug": "0", "Info": "1", "Warning": "2", "Error": "3"}
ANY_TEXT = "[QuoteClient] *"  # what is filled in there is a text of its own


def source_lines(text):
    """(level or None, shape) of each log line in a source; what is filled in is a '*'."""
    for match in TEXT.finditer(text):
        line = "".join(piece[1:-1] for piece in re.findall(LITERAL, match.group(2)))
        if BEGINNING.match(line):
            yield LEVELS.get(match.group(1)), FILLED_BY_CONVERSION.sub("*", line)


def page_lines(text):
    """(level, shape) of each row of the page."""
    return [(level, FILLED_IN_PAGE.sub("*", line)) for level, line in ROW.findall(text)]


def covers(shape, line):
    """Does the shape stand for the line? Its '*' may be any text."""
    return re.fullmatch(".*".join(map(re.escape, shape.split("*"))), line) is not None


def check(sources, page):
    """The mistakes, a line of text each."""
    told = page_lines(page)
    written = {line for source in sources for line in source_lines(source)}
    mistakes = []
    for level, shape in sorted(written, key=str):
        levels = {of_page for of_page, line in told if covers(line, shape)}
        if not levels and shape != ANY_TEXT:
            mistakes.append(f"not in the page: {shape}")
        elif levels and level is not None and level not in levels:
            mistakes.append(f"has level {level}, not {', '.join(sorted(levels))}: {shape}")
    for _, line in told:
        own = line.removeprefix("[QuoteClient] ")
        if (not any(covers(line, shape) for _, shape in written)
                and not any(f'"{own}"' in source for source in sources)):
            mistakes.append(f"written by nobody: {line}")
    if not told:
        mistakes.append("the page lists no line at all")
    return mistakes


def main(arguments):
    if len(arguments) < 2:
        print("usage: check_log_lines.py PAGE SOURCE...", file=sys.stderr)
        return 2
    try:
        page, *sources = (pathlib.Path(name).read_text(encoding="utf-8") for name in arguments)
    except OSError as error:
        print(f"{error.filename} cannot be read: {error.strerror}", file=sys.stderr)
        return 1
    mistakes = check(sources, page)
    print("\n".join(mistakes), file=sys.stderr, end="\n" if mistakes else "")
    return 1 if mistakes else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
