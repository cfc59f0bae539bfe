#!/usr/bin/env python3
"""fault_report_test.py SCRIPTS: tests of SCRIPTS/fault_report.py with figures of our own."""

import contextlib
import io
import json
import pathlib
import sys
import tempfile
import unittest

sys.path.insert(0, sys.argv.pop(1))
import fault_report  # noqa: E402
import report_page  # noqa: E402


def fault(**changes):
    return {"name": "flood", "title": "A flood", "noticed_s": None, "quotes_s": None, "calls": [],
            "figures": [], "note": "", "skipped": "", "broken": [], **changes}


def measured(*faults):
    return {"program": "kav-faults", "faults": list(faults),
            "machine": {"cpu": "A CPU", "cores": 2, "kernel": "6.1", "date": "2026-01-02 03:04"}}


class FaultReportTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def row_of(self, **changes):
        text = fault_report.report_text(measured(fault(**changes)), "abc")
        return next(line for line in text.splitlines() if line.startswith("| A flood"))

    def run_main(self, data, docs=None):
        file = self.folder / "faults.json"
        file.write_text(data if isinstance(data, str) else json.dumps(data))
        arguments = [str(file), "--commit", "abc"]
        if docs is not None:
            (self.folder / "docs.md").write_text(docs)
            arguments += ["--write-docs", str(self.folder / "docs.md")]
        out, err = io.StringIO(), io.StringIO()
        with contextlib.redirect_stdout(out), contextlib.redirect_stderr(err):
            status = fault_report.main(arguments)
        return status, out.getvalue(), err.getvalue()

    def test_short_times_are_in_milliseconds_long_ones_in_seconds(self):
        self.assertIn("| 0.3 ms | 4.4 s |", self.row_of(noticed_s=0.0003, quotes_s=4.395))

    def test_what_did_not_happen_is_a_dash(self):
        self.assertTrue(self.row_of().startswith("| A flood | – | – | – | – |"))

    def test_each_row_names_its_test(self):
        self.assertTrue(self.row_of(name="garbage").endswith(
            "| `faults_test.random_bytes_are_thrown_away_and_quotes_flow_on` |"))

    def test_calls_stand_in_their_order(self):
        self.assertIn("`OnLog(0, a)`<br>`OnQuote`", self.row_of(calls=["OnLog(0, a)", "OnQuote"]))

    def test_figures_carry_their_unit(self):
        figure = {"name": "growth", "value": 5.5038, "unit": "MiB/s"}
        self.assertIn("growth: 5.5 MiB/s", self.row_of(figures=[figure]))
        self.assertIn("growth: 846,006 |",
                      self.row_of(figures=[{**figure, "value": 846006, "unit": ""}]))

    def test_what_does_not_hold_stands_out(self):
        self.assertIn("**does not hold: none is lost**", self.row_of(broken=["none is lost"]))

    def test_skipped_fault_tells_its_reason_and_no_figure(self):
        self.assertTrue(self.row_of(skipped="no rights", noticed_s=1).startswith(
            "| A flood | not measured | not measured | – | no rights |"))

    def test_bars_do_not_break_the_table(self):
        self.assertIn("a \\| b", self.row_of(note="a | b"))

    def test_machine_and_commit_are_named(self):
        text = fault_report.report_text(measured(), "abc")
        self.assertTrue(text.startswith(
            "A CPU, 2 cores, Linux 6.1; 2026-01-02 03:04 UTC; commit abc."))

    def test_text_between_the_markers_is_replaced(self):
        docs = f"before\n{fault_report.BEGIN}\nOLD FIGURES\n{report_page.END}\nbehind\n"
        status, out, _ = self.run_main(measured(fault()), docs)
        written = (self.folder / "docs.md").read_text()
        self.assertEqual(0, status)
        self.assertIn("| A flood |", out)
        self.assertIn("| A flood |", written)
        self.assertNotIn("OLD FIGURES", written)
        self.assertTrue(written.startswith("before\n") and written.endswith("behind\n"))

    def test_page_without_markers_is_refused_in_one_line(self):
        status, _, err = self.run_main(measured(fault()), "nothing\n")
        self.assertEqual(1, status)
        self.assertEqual(1, err.count("\n"))
        self.assertEqual("nothing\n", (self.folder / "docs.md").read_text())

    def test_other_files_are_refused_in_one_line(self):
        for data in ("no json", "[]", {"program": "other"}, {"program": "kav-faults"}):
            status, out, err = self.run_main(data)
            self.assertEqual((1, "", 1), (status, out, err.count("\n")), data)


if __name__ == "__main__":
    unittest.main()
