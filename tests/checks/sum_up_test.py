#!/usr/bin/env python3
"""What sum_up.py counts. Usage: sum_up_test.py. The reports are made here, as ctest and GoogleTest write them."""

import contextlib
import io
import pathlib
import tempfile
import unittest

import sum_up


def test_of_ctest(name, status):
    return f'<testcase name="{name}" classname="{name}" status="{status}"><system-out>…</system-out></testcase>'


def cases(*elements):
    return f'<testsuites><testsuite name="A">{"".join(elements)}</testsuite></testsuites>'


PASSED = '<testcase name="Passes" status="run" result="completed" classname="A"/>'
FAILED = '<testcase name="Fails" status="run" result="completed" classname="A"><failure message="x"/></testcase>'
SKIPPED = '<testcase name="Skips" status="run" result="skipped" classname="A"><skipped message="x"/></testcase>'
DISABLED = '<testcase name="DISABLED_B" status="notrun" result="suppressed" classname="A"/>'


class ASum(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.builds = pathlib.Path(directory.name)
        (self.builds / "dev" / "unit-results").mkdir(parents=True)

    def sum(self, *tests):
        junit = self.builds / "dev.xml"
        junit.write_text(f"<testsuite>{''.join(tests)}</testsuite>")
        return sum_up.sum_of(junit, self.builds / "dev" / "unit-results")

    def report(self, *elements):
        (self.builds / "dev" / "unit-results" / "unit-a.xml").write_text(cases(*elements))

    def test_counts_the_cases_of_a_unit_program(self):
        self.report(PASSED, PASSED, SKIPPED, DISABLED)
        result = self.sum(test_of_ctest("unit-a", "run"))
        self.assertEqual((result.passed, result.failed, result.skipped), (2, [], ["unit-a: A.Skips", "unit-a: A.DISABLED_B"]))

    def test_names_the_failed_cases(self):
        self.report(PASSED, FAILED)
        result = self.sum(test_of_ctest("unit-a", "fail"))
        self.assertEqual((result.passed, result.failed), (1, ["unit-a: A.Fails"]))

    def test_counts_a_program_without_a_report_as_failed(self):
        for status in ("fail", "run"):
            result = self.sum(test_of_ctest("unit-a", status))
            self.assertEqual((result.passed, len(result.failed)), (0, 1))

    def test_counts_a_program_that_failed_after_its_last_case_as_failed(self):
        self.report(PASSED)
        result = self.sum(test_of_ctest("unit-a", "fail"))
        self.assertEqual((result.passed, len(result.failed)), (1, 1))

    def test_counts_a_cut_report_as_failed(self):
        (self.builds / "dev" / "unit-results" / "unit-a.xml").write_text("<testsuites><testsuite>")
        self.assertEqual(len(self.sum(test_of_ctest("unit-a", "fail")).failed), 1)

    def test_counts_any_other_test_once(self):
        result = self.sum(test_of_ctest("integration-a:B.C", "run"), test_of_ctest("tree:d", "fail"),
                          test_of_ctest("unit-e", "notrun"), test_of_ctest("seam:f", "run"))
        self.assertEqual((result.passed, result.failed, result.skipped), (2, ["tree:d"], ["unit-e"]))

    def test_ends_with_the_sum_and_fails_when_something_failed(self):
        self.sum(test_of_ctest("tree:d", "fail"), test_of_ctest("tree:e", "run"))
        with contextlib.redirect_stdout(io.StringIO()) as printed:
            status = sum_up.main([str(self.builds / "dev.xml")])
        self.assertEqual(status, 1)
        self.assertEqual(printed.getvalue().splitlines()[-1], "1 passed, 1 failed, 0 skipped")


if __name__ == "__main__":
    unittest.main()
