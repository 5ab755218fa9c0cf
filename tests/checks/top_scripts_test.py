#!/usr/bin/env python3
"""What ./test and ./run do before they build: their usage, their errors, and that nothing is installed too early.
Usage: top_scripts_test.py ROOT. The scripts are real; what installs packages only says that it was called."""

import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import unittest

ROOT = pathlib.Path(sys.argv.pop())
NOBODY = 65534
INSTALL_STATUS = 42


class ATree(unittest.TestCase):
    def setUp(self):
        self.directory = tempfile.TemporaryDirectory()
        self.addCleanup(self.directory.cleanup)
        os.chmod(self.directory.name, 0o755)
        self.tree = pathlib.Path(self.directory.name, "tree")
        (self.tree / "packaging").mkdir(parents=True)
        for script in ("test", "run", "packaging/need-writable"):
            shutil.copy(ROOT / script, self.tree / script)
        installer = self.tree / "packaging" / "install-packages"
        installer.write_text(f"#!/bin/sh\necho installing\nexit {INSTALL_STATUS}\n")
        installer.chmod(0o755)

    def call(self, script, *arguments):
        """Runs it from elsewhere, as a user whom modes bind, which root is not."""
        user = {"user": NOBODY, "group": NOBODY, "extra_groups": []} if os.geteuid() == 0 else {}
        return subprocess.run([f"{self.tree.name}/{script}", *arguments], cwd=self.directory.name, capture_output=True,
                              text=True, timeout=30, **user)

    def open_to_everybody(self):
        self.tree.chmod(0o777)

    def close(self):
        self.tree.chmod(0o555)
        self.addCleanup(self.tree.chmod, 0o755)

    def expect_one_line(self, result, status, text):
        self.assertEqual(result.returncode, status)
        self.assertEqual(result.stdout, "")
        self.assertRegex(result.stderr, r"\A[^\n]+\n\Z")
        self.assertIn(text, result.stderr)

    def test_prints_the_usage_and_installs_nothing(self):
        self.close()
        for script in ("test", "run"):
            for option in ("--help", "-h"):
                result = self.call(script, option)
                self.assertEqual((result.returncode, result.stderr), (0, ""))
                self.assertIn(f"Usage: ./{script}", result.stdout)
                self.assertNotIn("#", result.stdout)
                self.assertNotIn("installing", result.stdout)

    def test_refuses_an_unknown_option_before_it_installs(self):
        self.open_to_everybody()
        for script in ("test", "run"):
            self.expect_one_line(self.call(script, "--nosuch"), 2, f"{script}: --nosuch: unknown argument. Usage: ./{script}")

    def test_that_cannot_be_written_is_refused_in_one_line_before_anything_is_installed(self):
        self.close()
        for script in ("test", "run"):
            self.expect_one_line(self.call(script), 1, f"{script}: {self.tree} cannot be written")

    def test_whose_build_is_another_users_is_refused_in_one_line(self):
        self.open_to_everybody()
        for script, preset in (("test", "dev"), ("run", "run")):
            build = self.tree / "build" / preset
            build.mkdir(parents=True, mode=0o755)
            build.chmod(0o555)
            self.expect_one_line(self.call(script), 1, f"{script}: {build} cannot be written")

    def test_that_can_be_written_is_built_after_the_packages_are_there(self):
        self.open_to_everybody()
        for script in ("test", "run"):
            result = self.call(script)
            self.assertEqual((result.returncode, result.stdout, result.stderr), (INSTALL_STATUS, "installing\n", ""))


if __name__ == "__main__":
    unittest.main()
