#!/usr/bin/env python3
"""Which sources tests/checks/tidy looks at. Usage: tidy_test.py ROOT. The repository is a real one, made for each test;
clang-tidy itself is not run."""

import contextlib
import importlib.machinery
import importlib.util
import io
import os
import pathlib
import subprocess
import sys
import tempfile
import unittest
from unittest import mock

ROOT = pathlib.Path(sys.argv.pop())
LOADER = importlib.machinery.SourceFileLoader("tidy", str(ROOT / "tests" / "checks" / "tidy"))
sys.dont_write_bytecode = True
SOURCES = ["a/One.cpp", "a/Two.cpp", "b/Three.cpp"]
FILES = {
    "a/One.h": "",
    "a/Inner.h": "",
    "a/Outer.h": '#include "a/Inner.h"\n',
    "a/One.cpp": '#include "a/One.h"\n',
    "a/Two.cpp": '#include "a/One.h"\n',
    "b/Three.cpp": '#include "a/Outer.h"\n',
    ".clang-tidy": "",
}


class ARepository(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        environment = mock.patch.dict(os.environ)
        environment.start()
        self.addCleanup(environment.stop)
        os.environ.pop("SENTREL_TIDY_BASE", None)
        self.root = pathlib.Path(directory.name)
        self.tidy = importlib.util.module_from_spec(importlib.util.spec_from_loader("tidy", LOADER))
        LOADER.exec_module(self.tidy)
        self.tidy.ROOT = self.root
        self.git("init", "--quiet", "--initial-branch=main")
        for name, text in FILES.items():
            self.write(name, text)
        self.commit("2026-01-01T00:00:00Z")

    def git(self, *arguments, **environment):
        done = subprocess.run(["git", "-c", "user.name=t", "-c", "user.email=t@t.example", *arguments], cwd=self.root,
                              env={**os.environ, **environment}, text=True, check=True, capture_output=True)
        return done.stdout.strip()

    def write(self, name, text):
        (self.root / name).parent.mkdir(exist_ok=True)
        (self.root / name).write_text(text)

    def commit(self, when):
        self.git("add", "--all")
        self.git("commit", "--quiet", "--message=x", GIT_AUTHOR_DATE=when, GIT_COMMITTER_DATE=when)
        return self.git("rev-parse", "HEAD")

    def changed(self):
        return self.tidy.changed_sources("HEAD", SOURCES)

    def test_looks_at_nothing_when_nothing_changed(self):
        self.assertEqual(self.changed(), [])

    def test_looks_at_a_changed_source_alone(self):
        self.write("a/Two.cpp", "int two;\n")
        self.assertEqual(self.changed(), ["a/Two.cpp"])

    def test_looks_at_the_sources_that_include_a_changed_header(self):
        self.write("a/One.h", "int one();\n")
        self.assertEqual(self.changed(), ["a/One.cpp", "a/Two.cpp"])

    def test_looks_through_a_header_that_only_headers_include(self):
        self.write("a/Inner.h", "int inner();\n")
        self.assertEqual(self.changed(), ["b/Three.cpp"])

    def test_looks_at_all_when_the_rules_changed(self):
        self.write(".clang-tidy", "Checks: '-*'\n")
        self.assertEqual(self.changed(), SOURCES)

    def test_takes_the_commit_that_is_named_in_the_environment(self):
        with mock.patch.dict(os.environ, SENTREL_TIDY_BASE="abc"):
            self.assertEqual(self.tidy.last_landed(), "abc")

    def test_takes_the_newest_commit_that_is_a_day_older(self):
        first = self.git("rev-parse", "HEAD")
        self.write("a/Two.cpp", "int two;\n")
        self.commit("2026-01-03T00:00:00Z")
        self.write("a/Two.cpp", "int three;\n")
        self.commit("2026-01-03T01:00:00Z")
        self.assertEqual(self.tidy.last_landed(), first)

    def test_takes_where_the_branch_of_origin_and_its_own_part(self):
        landed = self.git("rev-parse", "HEAD")
        self.git("update-ref", "refs/remotes/origin/main", landed)
        self.write("a/Two.cpp", "int two;\n")
        self.commit("2026-01-01T00:01:00Z")
        self.assertEqual(self.tidy.last_landed(), landed)

    def test_takes_all_when_nothing_tells_what_landed(self):
        self.assertEqual(self.tidy.last_landed(), "--all")

    def test_looks_at_a_source_that_brings_the_analyzer_down_without_it(self):
        looked = []

        def clang_tidy(source, options, *more):
            names = [name for name in SOURCES if f'/{name}"' in source.read_text()]
            crashes = "a/Two.cpp" in names and not more
            looked.extend([] if crashes else [(names, *more)])
            return subprocess.CompletedProcess([], 1 if crashes else 0, "", "Stack dump:\n" if crashes else "")

        self.tidy.BUILD = self.root / "build"
        self.write("tests/.clang-tidy", "")
        (self.root / "build").mkdir()
        self.tidy.prepare_batches()
        with mock.patch.object(self.tidy, "clang_tidy", clang_tidy), contextlib.redirect_stdout(io.StringIO()) as told:
            self.assertEqual(self.tidy.check(False, SOURCES, ()), "")
        self.assertEqual(looked, [(["a/One.cpp"],), (["a/Two.cpp"], "--checks=-clang-analyzer-*"), (["b/Three.cpp"],)])
        self.assertIn("a/Two.cpp", told.getvalue())


if __name__ == "__main__":
    unittest.main()
