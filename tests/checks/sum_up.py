#!/usr/bin/env python3
"""What ran, build by build, and the sum of it in the closing line. Usage: sum_up.py JUNIT-FILE…

A file is what ctest --output-junit wrote of the build that it is named after: dev.xml of build/dev. A unit program is one test
there; its cases are counted from build/dev/unit-results/<program>.xml, which GoogleTest wrote. A program that failed without
naming a failed case there, as one that crashed, counts as one failed case."""

import pathlib
import re
import sys
import xml.etree.ElementTree as tree

UNIT_PROGRAM = re.compile(r"unit-[\w-]+") # as sentrel_test names it; what ctest writes has no labels


class Sum:
    def __init__(self):
        self.passed = 0
        self.failed = []
        self.skipped = []

    def add(self, other):
        self.passed += other.passed
        self.failed += other.failed
        self.skipped += other.skipped


def cases_of(program, report):
    """What became of the cases of a unit program; nothing failed and nothing passed when there is no whole report."""
    result = Sum()
    try:
        suites = tree.parse(report).getroot()
    except (OSError, tree.ParseError):
        return result
    for case in suites.iter("testcase"):
        name = f"{program}: {case.get('classname')}.{case.get('name')}"
        if case.find("failure") is not None:
            result.failed.append(name)
        elif case.get("status") == "notrun" or case.get("result") == "skipped":
            result.skipped.append(name)
        else:
            result.passed += 1
    return result


def sum_of(junit, reports):
    result = Sum()
    for test in tree.parse(junit).getroot().iter("testcase"):
        name, status = test.get("name"), test.get("status")
        if status in ("notrun", "disabled"):
            result.skipped.append(name)
        elif UNIT_PROGRAM.fullmatch(name):
            cases = cases_of(name, reports / f"{name}.xml")
            if (status != "run" and not cases.failed) or (status == "run" and not cases.passed + len(cases.skipped)):
                cases.failed.append(f"{name}: ended without saying what failed")
            result.add(cases)
        elif status == "run":
            result.passed += 1
        else:
            result.failed.append(name)
    return result


def main(arguments):
    total = Sum()
    builds = pathlib.Path(__file__).resolve().parents[2] / "build"
    for junit in map(pathlib.Path, arguments):
        one = sum_of(junit, builds / junit.stem / "unit-results")
        print(f"{junit.stem}: {one.passed} passed, {len(one.failed)} failed, {len(one.skipped)} skipped")
        for name in one.failed:
            print(f"  failed: {name}")
        for name in one.skipped:
            print(f"  skipped: {name}")
        total.add(one)
    print(f"{total.passed} passed, {len(total.failed)} failed, {len(total.skipped)} skipped")
    return 1 if total.failed or not total.passed else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
