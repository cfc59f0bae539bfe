#!/usr/bin/env python3
"""Judges the figures of the benchmarks by their goals.

Reads the JSON files that the benchmark programs wrote, prints a table of goals with the figures,
and writes the same into a Markdown file between two marker comments, and data for plots.

Exit status: 0 done, whatever the goals say; 1 a file cannot be read or written; 2 wrong arguments.
"""

import argparse
import json
import pathlib
import statistics
import sys

from report_page import ReportError, begin_marker, markdown_table, write_page

BEGIN = begin_marker("./kav bench --write-docs")

LIBRARY, READER, POLLING = "kavquote", "reader", "polling"


class Figures:
    """What the programs measured; every look-up gives None for what was not measured."""

    def __init__(self):
        self.side = {}
        self.pieces = {}
        self.datagram = {}

    def add(self, data):
        if data.get("program") == "kav-side-by-side":
            self.side = data
        elif data.get("benchmark") == "datagram":
            self.datagram = data
        elif "benchmarks" in data:
            self.pieces.update(medians_of_pieces(data["benchmarks"]))

    def rows(self, scenario):
        return self.side.get("scenarios", {}).get(scenario, {})

    def of(self, scenario, row, figure):
        """The median over the rounds."""
        rounds = self.rows(scenario).get(row, [])
        values = [r[figure] for r in rounds if figure in r]
        return statistics.median(values) if values else None

    def ratio(self, scenario, figure, other):
        return quotient(self.of(scenario, LIBRARY, figure), self.of(scenario, other, figure))

    def piece_ratios(self, prefix, yardstick, faster):
        """By the pieces' names. faster: how many times as fast as the yardstick; else how long."""
        ratios = {}
        for name, own in self.pieces.items():
            head, _, who = name.rpartition("/")
            other = self.pieces.get(f"{head}/{yardstick}")
            if who == "kav" and head.startswith(prefix) and other is not None:
                ratios[head] = quotient(other, own) if faster else quotient(own, other)
        return {head: ratio for head, ratio in ratios.items() if ratio is not None}


def quotient(value, by):
    return None if value is None or not by else value / by


def medians_of_pieces(benchmarks):
    """Nanoseconds of CPU time by name, the median over the repetitions."""
    units = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}
    times = {}
    for b in benchmarks:
        if b.get("run_type", "iteration") == "iteration" and not b.get("error_occurred"):
            name = b.get("run_name", b["name"])
            times.setdefault(name, []).append(b["cpu_time"] * units[b["time_unit"]])
    return {name: statistics.median(values) for name, values in times.items()}


class Goal:
    """One row: what is asked, what was measured, whether it is reached (None: not measured)."""

    def __init__(self, what, limit, measured, reached):
        self.what, self.limit, self.measured, self.reached = what, limit, measured, reached

    def verdict(self):
        if self.reached is None:
            return "not measured" if self.measured == "-" else ""
        return "reached" if self.reached else "**not reached**"


def at_most(what, value, limit, text, wanted):
    return Goal(what, wanted, text if value is not None else "-",
                None if value is None else value <= limit)


def at_least(what, value, limit, text, wanted):
    return Goal(what, wanted, text if value is not None else "-",
                None if value is None else value >= limit)


def number(value, digits=1, unit=""):
    return "-" if value is None else f"{value:,.{digits}f}{unit}"


def latency_goal(figures, scenario, title, figure, head, other, limit):
    ratio = figures.ratio(scenario, figure, other)
    own, yardstick = figures.of(scenario, LIBRARY, figure), figures.of(scenario, other, figure)
    text = f"{number(ratio, 2)} ({number(own)} / {number(yardstick)} us)"
    return at_most(f"{title}: {head}, times the {other}'s", ratio, limit, text, f"<= {limit:g}")


def latency_goals(figures):
    goals = []
    for scenario, title in (("rate-1000", "1,000/s"), ("rate-20000", "20,000/s")):
        for figure, head, other, limit in (("p50_us", "median latency", READER, 1.5),
                                           ("p50_us", "median latency", POLLING, 0.45),
                                           ("p99_us", "99th percentile", READER, 2)):
            goals.append(latency_goal(figures, scenario, title, figure, head, other, limit))
    goals.append(latency_goal(figures, "burst", "bursts of 200", "last_p50_us",
                              "last message of a burst", READER, 1.3))
    return goals


def flood_goal(figures):
    ratio = figures.ratio("flood", "messages_per_s", READER)
    own, other = (figures.of("flood", name, "messages_per_s") for name in (LIBRARY, READER))
    text = f"{number(ratio, 2)} ({number(quotient(own, 1e6), 2)} / " \
           f"{number(quotient(other, 1e6), 2)} million/s)"
    return at_least("flood: messages a second, times the reader's with 8 KiB reads", ratio, 0.8, text,
                    ">= 0.8")


def idle_goals(figures):
    cpu = figures.of("idle", LIBRARY, "cpu_s_per_s")
    percent = None if cpu is None else cpu * 100
    wakes = figures.of("idle", LIBRARY, "voluntary_per_s")
    return [at_most("idle client: of one core, all threads", percent, 0.5,
                    number(percent, 3, " %"), "<= 0.5 %"),
            at_most("idle client: wake-ups a second", wakes, 250, number(wakes), "<= 250")]


def memory_goals(figures):
    messages = figures.of("memory", LIBRARY, "allocations_per_1000_messages")
    chunks = figures.of("memory", LIBRARY, "allocations_per_1000_chunks")
    before = figures.of("memory", LIBRARY, "resident_begin_kib")
    after = figures.of("memory", LIBRARY, "resident_end_kib")
    growth = None if after is None or before is None else after - before
    count = figures.of("memory", LIBRARY, "messages")
    paced = figures.of("rate-20000", LIBRARY, "allocations_per_1000_messages")
    return [
        at_most("flood: allocations for 1,000 chunks", chunks, 1,
                f"{number(chunks, 3)} ({number(messages, 3)} for 1,000 messages)", "<= 1"),
        at_most("20,000/s: allocations for 1,000 messages", paced, 1, number(paced, 3), "<= 1"),
        at_most("flood: growth of resident memory", growth, 1024,
                f"{number(growth, 0)} KiB ({number(before, 0)} to {number(after, 0)} KiB over "
                f"{number(quotient(count, 1e6), 1)} million messages)", "<= 1 MiB")]


def worst_text(ratios, worst):
    """The worst one first."""
    sign = -1 if worst is max else 1
    return ", ".join(f"{head.split('/', 1)[1]} {ratio:.2f}" for head, ratio in sorted(
        ratios.items(), key=lambda item: sign * item[1]))


def piece_goals(figures):
    path = figures.pieces.get("dispatch/quote/22/kav")
    convert = figures.piece_ratios("convert/", "memcpy", faster=False)
    lookup = {head: ratio for head, ratio in
              figures.piece_ratios("map_str/", "unordered_map", faster=True).items()
              if "_find/" in head}
    return [
        at_most("bytes in a buffer to OnQuote, each message", path, 60, number(path, 1, " ns"),
                "<= 60 ns"),
        at_most("each converter, times a memcpy of its bytes", max(convert.values(), default=None),
                3, worst_text(convert, max), "<= 3"),
        at_least("map_str look-up, times as fast as unordered_map",
                 min(lookup.values(), default=None), 1.5, worst_text(lookup, min), ">= 1.5")]


def datagram_goal(figures):
    ratio = figures.datagram.get("ratios", {}).get("receiver", {}).get("drain_cpu")
    roads = figures.datagram.get("roads", {})
    own = roads.get("receiver", {}).get("drain_cpu_ns")
    bare = roads.get("bare_recv", {}).get("drain_cpu_ns")
    return at_most("one datagram to the callback, times a bare recv loop", ratio, 1.3,
                   f"{number(ratio, 2)} ({number(own, 0)} / {number(bare, 0)} ns)", "<= 1.3")


def start_goal(figures):
    start = figures.of("start", LIBRARY, "p50_ms")
    return Goal("start: ConnServer to OnLoginResult(true), median", "no sleep of ours",
                number(start, 2, " ms"), None)


def all_goals(figures):
    return [*latency_goals(figures), flood_goal(figures), *idle_goals(figures),
            *memory_goals(figures), *piece_goals(figures), datagram_goal(figures),
            start_goal(figures)]


def goal_rows(goals):
    return [[g.what, g.limit, g.measured, g.verdict()] for g in goals]


def goal_table(goals):
    return markdown_table(["What", "Goal", "Measured", ""], goal_rows(goals))


def goal_lines(goals):
    """The same for a terminal, the verdict in front."""
    rows = [[verdict.strip("*"), what, limit, measured]
            for what, limit, measured, verdict in goal_rows(goals)]
    widths = [max(len(row[i]) for row in rows) for i in range(3)]
    return "\n".join("  ".join([row[i].ljust(widths[i]) for i in range(3)] + [row[3]])
                     for row in rows)


# Scenario, title, and columns: figure, head, factor, digits.
LATENCY_COLUMNS = [("p50_us", "p50 us", 1, 1), ("p90_us", "p90", 1, 1), ("p99_us", "p99", 1, 1),
                   ("p99_9_us", "p99.9", 1, 1), ("max_us", "max", 1, 1),
                   ("cpu_s_per_s", "CPU %", 100, 1), ("voluntary_per_s", "waits/s", 1, 0),
                   ("involuntary_per_s", "preemptions/s", 1, 0),
                   ("resident_peak_kib", "peak KiB", 1, 0), ("allocations", "allocations", 1, 0)]
GROWTH_COLUMNS = [("threads", "threads", 1, 0), ("resident_end_kib", "KiB", 1, 0),
                  ("p50_us", "p50 us", 1, 1), ("p99_us", "p99", 1, 1),
                  ("login_ms", "login ms", 1, 1), ("register_ms", "register ms", 1, 1)]
TABLES = [
    ("rate-1000", "1,000 messages a second", LATENCY_COLUMNS),
    ("rate-20000", "20,000 messages a second", LATENCY_COLUMNS),
    ("burst", "Bursts of 200 messages every 10 ms",
     [("last_p50_us", "last of a burst us", 1, 1), *LATENCY_COLUMNS]),
    ("flood", "As fast as it goes",
     [("messages_per_s", "million/s", 1e-6, 2), ("cpu_ns_per_message", "CPU ns/message", 1, 0),
      ("voluntary_per_s", "waits/s", 1, 0), ("involuntary_per_s", "preemptions/s", 1, 0),
      ("resident_peak_kib", "peak KiB", 1, 0), ("allocations", "allocations", 1, 0)]),
    ("idle", "Logged in, nothing but heartbeats",
     [("cpu_s_per_s", "CPU %", 100, 3), ("voluntary_per_s", "wake-ups/s", 1, 1),
      ("threads", "threads", 1, 0), ("resident_kib", "KiB", 1, 0)]),
    ("growth-clients", "Clients in one process, 1,000 messages a second in all",
     [*GROWTH_COLUMNS, ("idle_cpu_s_per_s", "idle CPU %", 100, 3),
      ("idle_voluntary_per_s", "idle wake-ups/s", 1, 0)]),
    ("growth-symbols", "Registered symbols of one client, 1,000 messages a second in all",
     GROWTH_COLUMNS),
]


def scenario_table(figures, scenario, columns):
    rows = []
    for row in figures.rows(scenario):
        values = [figures.of(scenario, row, figure) for figure, _, _, _ in columns]
        rows.append([row] + [number(None if v is None else v * factor, digits)
                             for v, (_, _, factor, digits) in zip(values, columns)])
    return markdown_table([""] + [head for _, head, _, _ in columns], rows)


def difference(value, less):
    return None if value is None or less is None else value - less


def step_rows(figures):
    """Where a message's time goes: what each receiver has more than the one before it."""
    medians = [[figures.of(scenario, name, "p50_us") for scenario in ("rate-1000", "rate-20000")]
               for name in (READER, "epoll", LIBRARY)]
    reader, epoll, library = medians
    steps = [("send(), loopback, wake-up of a thread in read(), cutting: `reader`", reader),
             ("waiting before each read(): `epoll` less `reader`",
              [difference(a, b) for a, b in zip(epoll, reader)]),
             ("session, stream, dispatch, other threads: `kavquote` less `epoll`",
              [difference(a, b) for a, b in zip(library, epoll)]),
             ("in all: `kavquote`", library)]
    rows = [[what] + [number(value, 1, " us") for value in values] for what, values in steps]
    for what, piece in (("in it: cutting and dispatch of one message", "dispatch/quote/1/kav"),
                        ("in it: through the stream, 367 bytes", "stream_buffer/push_pop/367/kav")):
        time = number(figures.pieces.get(piece), 1, " ns")
        rows.append([f"{what} (`{piece}`)", time, time])
    return rows


def step_table(figures):
    return markdown_table(["Median of a message's time", "1,000/s", "20,000/s"],
                          step_rows(figures))


def machine_line(figures, commit):
    machine = figures.side.get("machine", {})
    options = figures.side.get("options", {})
    return (f"{machine.get('cpu', '?')}, {machine.get('cores', '?')} cores, Linux "
            f"{machine.get('kernel', '?')}; {machine.get('date', '?')} UTC, "
            f"load {number(machine.get('load'), 2)} before; commit {commit}; "
            f"medians over {options.get('rounds', '?')} rounds of {options.get('seconds', '?')} s.")


def report_text(figures, commit):
    parts = [machine_line(figures, commit), goal_table(all_goals(figures))]
    for scenario, title, columns in TABLES:
        if figures.rows(scenario):
            parts.append(f"### {title}\n\n{scenario_table(figures, scenario, columns)}")
    parts.append(f"### Where the time goes\n\n{step_table(figures)}")
    return "\n\n".join(parts)


def plot_lines(figures, scenario, columns):
    """One line for each row: its name, and the figures, tab-separated."""
    lines = []
    for row in figures.rows(scenario):
        values = [figures.of(scenario, row, figure) for figure in columns]
        lines.append("\t".join([row] + ["nan" if v is None else f"{v:.6g}" for v in values]))
    return "".join(line + "\n" for line in lines)


PLOTS = [
    ("flood", ["messages_per_s"]),
    ("idle", ["cpu_s_per_s", "voluntary_per_s"]),
    ("growth-clients", ["threads", "resident_end_kib", "idle_cpu_s_per_s", "p50_us", "p99_us"]),
    ("growth-symbols", ["p50_us", "p99_us", "login_ms", "register_ms", "resident_end_kib"]),
]


def write_plot_data(figures, folder):
    folder.mkdir(parents=True, exist_ok=True)
    for scenario, columns in PLOTS:
        (folder / f"{scenario}.tsv").write_text(plot_lines(figures, scenario, columns))


def read_figures(files):
    figures = Figures()
    for file in files:
        try:
            figures.add(json.loads(file.read_text()))
        except (ValueError, KeyError, TypeError, AttributeError) as error:
            raise ReportError(f"{file} is not what a benchmark writes: {error}") from error
    return figures


def parse_arguments(arguments):
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("files", nargs="+", type=pathlib.Path, metavar="JSON",
                        help="what the programs wrote: kav-side-by-side --json, "
                             "kav-bench-datagram --json, Google Benchmark's --benchmark_out")
    parser.add_argument("--commit", default="?", help="named in the report")
    parser.add_argument("--plot-data", type=pathlib.Path, metavar="FOLDER",
                        help="tab-separated files for gnuplot go there")
    parser.add_argument("--write-docs", type=pathlib.Path, metavar="FILE",
                        help="Markdown file whose text between the markers is replaced")
    return parser.parse_args(arguments)


def main(arguments):
    options = parse_arguments(arguments)
    try:
        figures = read_figures(options.files)
        print(goal_lines(all_goals(figures)))
        if options.plot_data:
            write_plot_data(figures, options.plot_data)
        if options.write_docs:
            write_page(options.write_docs, BEGIN, report_text(figures, options.commit))
    except (ReportError, OSError) as error:
        print(f"bench_report: {error}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
