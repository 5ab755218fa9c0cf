#!/usr/bin/env python3
"""Whether debian/ and packaging/ agree with the rest of the tree, without building a package.
Usage: packages_test.py ROOT"""

import pathlib
import re
import subprocess
import sys
import unittest

ROOT = pathlib.Path(sys.argv.pop())
UNITS = ROOT / "packaging" / "units"


def text_of(path: str) -> str:
    return (ROOT / path).read_text()


def settings_of(unit: pathlib.Path, key: str) -> list[str]:
    return re.findall(rf"^{key}=(.*)$", unit.read_text(), flags=re.MULTILINE)


class ThePackages(unittest.TestCase):
    def test_are_built_with_every_library_that_a_build_needs(self):
        needed = set(re.findall(r"^run (lib\S+-dev|nlohmann-json3-dev)$", text_of("packaging/debian-packages.txt"), re.MULTILINE))
        source = text_of("debian/control").split("\n\n")[0]
        self.assertGreater(len(needed), 10)
        self.assertEqual(set(), needed - set(re.findall(r"^ ([a-z0-9.+-]+)", source, re.MULTILINE)))

    def test_are_built_with_nothing_but_what_the_tree_installs(self):
        installed = set(re.findall(r"^(?:run|package) (\S+)$", text_of("packaging/debian-packages.txt"), re.MULTILINE))
        source = text_of("debian/control").split("\n\n")[0]
        needed = set(re.findall(r"^ ([a-z0-9.+-]+)", source, re.MULTILINE)) - {"debhelper-compat"}
        self.assertLessEqual({"libgtest-dev", "libgmock-dev"}, needed)
        self.assertEqual(set(), needed - installed)

    def test_have_every_manual_page_that_is_made(self):
        made = set(subprocess.run([ROOT / "packaging" / "make-manpages", "--list"], check=True, capture_output=True,
                                  text=True).stdout.split())
        shipped = {pathlib.Path(line).name for package in ("sentrel", "sentrel-browser")
                   for line in text_of(f"debian/{package}.manpages").split()}
        self.assertEqual(shipped, {page for page in made if not page.startswith("sentrelctl")})
        self.assertIn("sentrelctl-log.1", made)

    def test_make_every_directory_that_a_unit_writes(self):
        made = set(re.findall(r"^d (\S+)", text_of("debian/sentrel.tmpfiles"), re.MULTILINE))
        written = {path for unit in UNITS.glob("*.service") for line in settings_of(unit, "ReadWritePaths") for path in line.split()}
        self.assertGreater(len(written), 3)
        self.assertEqual(set(), written - made)

    def test_make_every_user_that_a_unit_runs_as(self):
        made = set(re.findall(r"^u (\S+)", text_of("debian/sentrel.sysusers"), re.MULTILINE))
        self.assertEqual(made, {user for unit in UNITS.glob("*.service") for user in settings_of(unit, "User")})

    def test_hold_every_service_in(self):
        held = set(re.findall(r"10-hold-in.conf lib/systemd/system/(\S+)\.service\.d", text_of("debian/sentrel.install")))
        for unit in UNITS.glob("*.service"):
            self.assertTrue(unit.stem in held or ("sentrel-" in held and unit.stem.startswith("sentrel-")), unit.name)

    def test_bring_every_service_back_for_ever(self):
        for unit in UNITS.glob("*.service"):
            self.assertEqual(["0"], settings_of(unit, "StartLimitIntervalSec"), unit.name)
            if settings_of(unit, "User"):
                self.assertEqual(["always"], settings_of(unit, "Restart"), unit.name)

    def test_start_a_silent_daemon_three_times_in_ten_minutes_at_the_most(self):
        rest = re.search(r"^ExecStart=\S+sleep (\d+)$", text_of("packaging/units/sentreld-restart.service"), re.MULTILINE)
        self.assertGreaterEqual(3 * int(rest.group(1)), 600)


unittest.main()
