#!/usr/bin/env python3
"""Checks that every test named in a document is a test of a build.

In backticks, `suite.test_name` is the name of a test as ctest -N shows it; a * in it stands for
anything, and at least one test has to match. What ends like a file (`kav_quote_api.h`) is none. In
a document of promises (--every-row) each row of each table has to name at least one test.

Exit status: 0 all of them exist; 1 some do not, or a document or the build cannot be read; 2 wrong
arguments.
"""

import argparse
import fnmatch
import json
import pathlib
import re
import subprocess
import sys

FILE_SUFFIXES = {"a", "cmake", "cpp", "csv", "gz", "h", "json", "log", "md", "pcap", "py", "sh",
                 "so", "svg", "txt"}
IN_BACKTICKS = re.compile(r"`([^`\n]+)`")
TEST_NAME = re.compile(r"[A-Za-z_*][\w/*]*\.[A-Za-z_*][\w/*]*")
RULE_OF_A_TABLE = re.compile(r"[\s|:-]+")


class CheckError(Exception):
    """A cause that the user can do something about."""


def names_in(line):
    """The names and patterns of tests in one line of a document."""
    tokens = (match.group(1) for match in IN_BACKTICKS.finditer(line))
    return [token for token in tokens
            if TEST_NAME.fullmatch(token) and token.rpartition(".")[2] not in FILE_SUFFIXES]


def is_row(line, next_line):
    """Is the line one of a table, but neither its head nor the rule below that?"""
    if not line.startswith("|") or RULE_OF_A_TABLE.fullmatch(line):
        return False
    return not (next_line.startswith("|") and RULE_OF_A_TABLE.fullmatch(next_line))


def has_test(name, tests):
    if "*" not in name:
        return name in tests
    return bool(fnmatch.filter(tests, name))


def check(label, text, tests, every_row=False):
    """The mistakes of one document, a line of text each."""
    mistakes = []
    lines = text.splitlines()
    named = 0
    for number, line in enumerate(lines, 1):
        names = names_in(line)
        named += len(names)
        mistakes += [f"{label}:{number}: no test is called '{name}'"
                     for name in names if not has_test(name, tests)]
        following = lines[number] if number < len(lines) else ""
        if every_row and not names and is_row(line, following):
            mistakes.append(f"{label}:{number}: the row names no test")
    if named == 0:
        mistakes.append(f"{label}: names no test at all")
    return mistakes


def tests_of(listing):
    """The names in what ctest --show-only=json-v1 prints."""
    try:
        names = {test["name"] for test in json.loads(listing)["tests"]}
    except (ValueError, KeyError, TypeError) as error:
        raise CheckError("ctest does not list its tests as JSON; this needs CMake 3.14 or "
                         f"later ({error})") from error
    missing = sorted(name for name in names if name.endswith("_NOT_BUILT"))
    if missing:
        raise CheckError("not built, so that their tests have no names yet: "
                         + ", ".join(name.removesuffix("_NOT_BUILT") for name in missing)
                         + "; build everything first")
    return names


def list_tests(ctest, build):
    done = subprocess.run([ctest, "--test-dir", build, "--show-only=json-v1"],
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, check=False)
    if done.returncode != 0:
        raise CheckError(f"{ctest} cannot list the tests of {build}: {done.stderr.strip()}")
    return tests_of(done.stdout)


def read(path):
    try:
        return path.read_text(encoding="utf-8")
    except OSError as error:
        raise CheckError(f"{path} cannot be read: {error.strerror}") from error


def parse(arguments):
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0], allow_abbrev=False)
    parser.add_argument("build", help="folder of a finished build")
    parser.add_argument("documents", nargs="*", type=pathlib.Path, metavar="DOCUMENT",
                        help="a Markdown file; one that does not exist is left out")
    parser.add_argument("--every-row", action="append", default=[], type=pathlib.Path,
                        metavar="DOCUMENT", help="one whose rows name a test each")
    parser.add_argument("--ctest", default="ctest", help="the ctest to ask (%(default)s)")
    options = parser.parse_args(arguments)
    if not options.documents and not options.every_row:
        parser.error("no document to check")
    return options


def main(arguments):
    options = parse(arguments)
    try:
        tests = list_tests(options.ctest, options.build)
        mistakes = []
        for path in options.every_row:
            mistakes += check(path.name, read(path), tests, every_row=True)
        for path in options.documents:
            if path.exists():
                mistakes += check(path.name, read(path), tests)
    except (CheckError, OSError) as error:
        print(f"check_named_tests: {error}", file=sys.stderr)
        return 1
    for mistake in mistakes:
        print(mistake, file=sys.stderr)
    return 1 if mistakes else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
