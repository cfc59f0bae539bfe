#!/usr/bin/env python3
"""Writes what kav-faults measured as a table.

Reads the JSON file that `kav-faults --json` wrote, prints the table in Markdown, and puts it into a
Markdown file between two marker comments.

Exit status: 0 done, whatever the figures say; 1 a file cannot be read or written; 2 wrong arguments.
"""

import argparse
import json
import pathlib
import sys

from report_page import ReportError, begin_marker, markdown_table, write_page

BEGIN = begin_marker("./kav faults --write-docs")

# The test that fails when a fault has other consequences than it should, by the fault's name.
TESTS = {
    "server-killed": "faults_test.killed_server_is_noticed_at_once_and_tried_every_2_seconds",
    "server-back-3s": "faults_test.server_back_after_3_seconds_is_found_without_the_callers_help",
    "server-back-10min":
        "faults_time_test.server_back_after_10_minutes_is_found_and_nothing_has_piled_up",
    "link-cut": "faults_test.link_that_is_cut_is_noticed_within_20_seconds",
    "stalled-message": "faults_test.message_that_stops_in_the_middle_waits_for_its_rest",
    "silent-login":
        "faults_test.server_that_is_silent_at_login_leaves_the_caller_waiting_but_free_to_go",
    "silent-relogin": "faults_time_test.silence_at_every_relogin_ends_the_session_after_10_tries",
    "refused-relogin": "faults_test.refused_relogin_ends_the_session_without_a_callback",
    "garbage": "faults_test.random_bytes_are_thrown_away_and_quotes_flow_on",
    "flood": "faults_test.flood_is_received_whole_and_in_order",
    "slow-callback": "faults_test.slow_callback_costs_memory_but_no_quotes",
    "signals": "faults_test.signals_at_every_thread_disturb_nothing",
    "fork": "faults_test.children_of_every_kind_leave_the_parents_session_alone",
    "fork-lives-on": "faults_test.child_that_lives_on_does_not_keep_its_parent_from_a_new_session",
    "two-copies": "faults_test.two_copies_of_the_library_have_a_session_each",
    "dlclose": "faults_test.unloading_leaves_the_code_under_a_living_client",
}

# What is refused at each place in turn, which takes no time that could be measured: the fault, what
# the caller is told, what holds, the tests.
REFUSALS = [
    ("Memory refused, each request in turn",
     "`std::bad_alloc` from `CreateKAVQuoteApi`; elsewhere a failed call, or a loss of the connection "
     "that is mended",
     "no crash, nothing leaked, no lock left held",
     "`memory_refused_test.*`, `drought_test.*`, `multicast_refused_test.*`"),
    ("Threads refused, each in turn",
     "a failed `ConnServer`, or a failed login and the end of the connection",
     "nothing leaked; a later try works",
     "`threads_refused_test.*`, `one_thread_refused_test.*`"),
    ("Descriptors refused, or at their limit",
     "a failed `ConnServer`; `OnLog(3, connect server failed)` every 2 s in a session",
     "found again once there are descriptors",
     "`descriptors_refused_test.*`, `descriptor_limit_test.*`"),
]


def seconds(value):
    if value is None:
        return "–"
    return f"{value * 1000:.1f} ms" if value < 0.1 else f"{value:.1f} s"


def number(value):
    if value == int(value) or abs(value) >= 1000:
        return f"{value:,.0f}"
    return f"{value:.1f}" if abs(value) >= 0.1 else f"{value:.2g}"


def figure_text(figure):
    return f"{figure['name']}: {number(figure['value'])} {figure['unit']}".rstrip()


def calls_text(calls):
    return "<br>".join(f"`{call}`" for call in calls) or "–"


def remarks(fault):
    lines = [figure_text(f) for f in fault["figures"]]
    if fault["note"]:
        lines.append(f"*{fault['note']}*")
    lines += [f"**does not hold: {what}**" for what in fault["broken"]]
    return "<br>".join(lines) or "–"


def row(fault):
    test = f"`{TESTS[fault['name']]}`"
    if fault["skipped"]:
        return [fault["title"], "not measured", "not measured", "–", fault["skipped"], test]
    return [fault["title"], seconds(fault["noticed_s"]), seconds(fault["quotes_s"]),
            calls_text(fault["calls"]), remarks(fault), test]


def machine_line(data, commit):
    machine = data["machine"]
    return (f"{machine['cpu']}, {machine['cores']} cores, Linux {machine['kernel']}; "
            f"{machine['date']} UTC; commit {commit}.")


def report_text(data, commit):
    rows = [row(fault) for fault in data["faults"]]
    rows += [[fault, "–", "–", calls, holds, tests] for fault, calls, holds, tests in REFUSALS]
    heads = ["Fault", "Noticed after", "Quotes again after", "What the caller is told", "Figures",
             "Test"]
    return f"{machine_line(data, commit)}\n\n{markdown_table(heads, rows)}"


def read_report(path, commit):
    try:
        data = json.loads(path.read_text())
        if data["program"] != "kav-faults":
            raise KeyError("program")
        return report_text(data, commit)
    except (ValueError, KeyError, TypeError, AttributeError) as error:
        raise ReportError(f"{path} is not what kav-faults writes: {error}") from error


def parse_arguments(arguments):
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("file", type=pathlib.Path, metavar="JSON", help="what kav-faults wrote")
    parser.add_argument("--commit", default="?", help="named in the report")
    parser.add_argument("--write-docs", type=pathlib.Path, metavar="FILE",
                        help="Markdown file whose text between the markers is replaced")
    return parser.parse_args(arguments)


def main(arguments):
    options = parse_arguments(arguments)
    try:
        text = read_report(options.file, options.commit)
        print(text)
        if options.write_docs:
            write_page(options.write_docs, BEGIN, text)
    except (ReportError, OSError) as error:
        print(f"fault_report: {error}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
