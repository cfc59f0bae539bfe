#!/usr/bin/env python3
"""bench_report_test.py SCRIPTS: tests of SCRIPTS/bench_report.py with figures of our own."""

import contextlib
import io
import json
import pathlib
import sys
import tempfile
import unittest

sys.path.insert(0, sys.argv.pop(1))
import bench_report  # noqa: E402
import report_page  # noqa: E402


def rounds(**figures):
    """One round for each value; rounds(p50_us=[1, 2]) are two."""
    count = max(len(values) for values in figures.values())
    return [{name: values[i] for name, values in figures.items()} for i in range(count)]


def side_by_side(scenarios):
    return {"program": "kav-side-by-side", "scenarios": scenarios,
            "machine": {"cpu": "A CPU", "cores": 2, "kernel": "6.1", "date": "2026-01-02 03:04",
                        "load": 0.25},
            "options": {"rounds": 3, "seconds": 1}}


def piece(name, times):
    return [{"name": name, "run_name": name, "run_type": "iteration", "cpu_time": time,
             "time_unit": "ns"} for time in times]


def figures_of(*data):
    figures = bench_report.Figures()
    for one in data:
        figures.add(one)
    return figures


def goal(figures, text):
    found = [g for g in bench_report.all_goals(figures) if g.what.startswith(text)]
    assert len(found) == 1, f"{len(found)} goals are about '{text}'"
    return found[0]


class BenchReportTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def run_main(self, *arguments):
        """Exit status, standard output, standard error."""
        out, err = io.StringIO(), io.StringIO()
        with contextlib.redirect_stdout(out), contextlib.redirect_stderr(err):
            status = bench_report.main([str(a) for a in arguments])
        return status, out.getvalue(), err.getvalue()

    def json_file(self, data):
        file = self.folder / "figures.json"
        file.write_text(json.dumps(data))
        return file

    def test_a_ratio_is_that_of_the_medians_over_the_rounds(self):
        figures = figures_of(side_by_side({"rate-1000": {
            "kavquote": rounds(p50_us=[900, 15, 14]), "reader": rounds(p50_us=[10, 10, 1])}}))
        self.assertEqual(1.5, figures.ratio("rate-1000", "p50_us", "reader"))

    def test_a_goal_is_reached_at_its_limit_and_not_beyond(self):
        for own, verdict in ((15, "reached"), (15.01, "**not reached**")):
            figures = figures_of(side_by_side({"rate-1000": {
                "kavquote": rounds(p50_us=[own]), "reader": rounds(p50_us=[10])}}))
            about = goal(figures, "1,000/s: median latency, times the reader's")
            self.assertEqual(verdict, about.verdict())

    def test_20000_a_second_are_judged_by_themselves(self):
        figures = figures_of(side_by_side({"rate-20000": {
            "kavquote": rounds(p99_us=[21]), "reader": rounds(p99_us=[10])}}))
        verdicts = {g.what: g.verdict() for g in bench_report.latency_goals(figures)}
        about = "99th percentile, times the reader's"
        self.assertEqual("**not reached**", verdicts[f"20,000/s: {about}"])
        self.assertEqual("not measured", verdicts[f"1,000/s: {about}"])

    def test_the_flood_is_to_be_at_least_as_fast(self):
        for own, reached in ((0.8e6, True), (0.79e6, False)):
            figures = figures_of(side_by_side({"flood": {
                "kavquote": rounds(messages_per_s=[own]), "reader": rounds(messages_per_s=[1e6])}}))
            self.assertEqual(reached, goal(figures, "flood: messages a second").reached)

    def test_memory_and_idle_goals_need_no_other_receiver(self):
        figures = figures_of(side_by_side({
            "idle": {"kavquote": rounds(cpu_s_per_s=[0.004], voluntary_per_s=[251])},
            "memory": {"kavquote": rounds(resident_begin_kib=[5000], resident_end_kib=[6024],
                                          messages=[19e6], allocations_per_1000_messages=[0],
                                          allocations_per_1000_chunks=[0])}}))
        self.assertTrue(goal(figures, "idle client: of one core").reached)
        self.assertFalse(goal(figures, "idle client: wake-ups").reached)
        self.assertTrue(goal(figures, "flood: growth of resident memory").reached)
        self.assertTrue(goal(figures, "flood: allocations for 1,000 chunks").reached)

    def test_the_worst_converter_decides(self):
        figures = figures_of({"benchmarks": [
            *piece("convert/a/kav", [20, 21, 22]), *piece("convert/a/memcpy", [10, 10, 10]),
            *piece("convert/b/kav", [31]), *piece("convert/b/memcpy", [10])]})
        converters = goal(figures, "each converter")
        self.assertFalse(converters.reached)
        self.assertEqual("b 3.10, a 2.10", converters.measured)

    def test_the_slowest_look_up_decides_and_insertions_do_not(self):
        figures = figures_of({"benchmarks": [
            *piece("map_str/list_find/90/kav", [10]),
            *piece("map_str/list_find/90/unordered_map", [16]),
            *piece("map_str/list_insert/90/kav", [10]),
            *piece("map_str/list_insert/90/unordered_map", [1])]})
        self.assertTrue(goal(figures, "map_str look-up").reached)

    def test_aggregates_and_other_units_do_not_disturb_the_median(self):
        benchmarks = piece("dispatch/quote/22/kav", [1, 2, 3])
        benchmarks[1].update(cpu_time=0.002, time_unit="us")
        benchmarks.append({"name": "x_stddev", "run_name": "dispatch/quote/22/kav",
                           "run_type": "aggregate", "cpu_time": 99, "time_unit": "ns"})
        figures = figures_of({"benchmarks": benchmarks})
        self.assertEqual(2, figures.pieces["dispatch/quote/22/kav"])

    def test_the_datagram_goal_looks_at_the_receiver_beside_the_bare_loop(self):
        figures = figures_of({"benchmark": "datagram", "ratios": {"receiver": {"drain_cpu": 1.31}},
                              "roads": {"receiver": {"drain_cpu_ns": 131},
                                        "bare_recv": {"drain_cpu_ns": 100}}})
        self.assertFalse(goal(figures, "one datagram").reached)

    def test_the_steps_add_up_to_the_whole(self):
        figures = figures_of(side_by_side({"rate-1000": {
            "kavquote": rounds(p50_us=[30]), "epoll": rounds(p50_us=[18.5]),
            "reader": rounds(p50_us=[20])}}))
        steps = [row[1] for row in bench_report.step_rows(figures)]
        self.assertEqual(["20.0 us", "-1.5 us", "11.5 us", "30.0 us", "-", "-"], steps)

    def test_what_was_not_measured_is_neither_reached_nor_missed(self):
        for g in bench_report.all_goals(figures_of()):
            self.assertEqual("not measured", g.verdict(), g.what)

    def test_the_docs_change_between_the_markers_only(self):
        docs = self.folder / "docs.md"
        docs.write_text(f"before\n{bench_report.BEGIN}\nold\n{report_page.END}\nafter\n")
        file = self.json_file(side_by_side({"idle": {"kavquote": rounds(cpu_s_per_s=[0.001])}}))
        status, _, _ = self.run_main(file, "--write-docs", docs, "--commit", "abc123")
        text = docs.read_text()
        self.assertEqual(0, status)
        self.assertTrue(text.startswith("before\n") and text.endswith("\nafter\n"))
        self.assertNotIn("old", text)
        self.assertIn("A CPU, 2 cores, Linux 6.1; 2026-01-02 03:04 UTC, load 0.25 before; commit "
                      "abc123", text)
        self.assertIn("0.100 %", text)
        self.run_main(file, "--write-docs", docs, "--commit", "abc123")
        self.assertEqual(text, docs.read_text())

    def test_docs_without_markers_stay_as_they_are(self):
        docs = self.folder / "docs.md"
        docs.write_text("no markers\n")
        status, _, err = self.run_main(self.json_file(side_by_side({})), "--write-docs", docs)
        self.assertEqual(1, status)
        self.assertIn("docs.md needs one line", err)
        self.assertEqual("no markers\n", docs.read_text())

    def test_a_file_that_no_benchmark_wrote_is_told(self):
        file = self.folder / "figures.json"
        for text in ("not json", "[]", '{"benchmarks": [{"name": "x"}]}'):
            file.write_text(text)
            status, _, err = self.run_main(file)
            self.assertEqual(1, status, text)
            self.assertIn("figures.json is not what a benchmark writes", err)

    def test_data_for_plots_has_a_line_for_each_row(self):
        file = self.json_file(side_by_side({"flood": {
            "kavquote": rounds(messages_per_s=[4e6, 6e6, 5e6]), "reader": rounds(other=[1])}}))
        status, _, _ = self.run_main(file, "--plot-data", self.folder / "plots")
        self.assertEqual(0, status)
        self.assertEqual("kavquote\t5e+06\nreader\tnan\n",
                         (self.folder / "plots" / "flood.tsv").read_text())


if __name__ == "__main__":
    unittest.main()
