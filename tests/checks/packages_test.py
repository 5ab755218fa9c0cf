#!/usr/bin/env python3
"""Whether debian/ and packaging/ agree with the rest of the tree, without building a package.
Usage: packages_test.py ROOT"""

import pathlib
import re
import subprocess
import sys
import tempfile
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

    def test_have_a_menu_entry_that_desktops_take(self):
        for command in (["desktop-file-validate", "packaging/sentrelctl.desktop"],
                        ["appstreamcli", "validate", "--no-net", "packaging/invalid.sentrel.status.metainfo.xml"]):
            done = subprocess.run(command, cwd=ROOT, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
            self.assertEqual(0, done.returncode, done.stdout)

    def test_have_a_menu_entry_that_runs_the_status_and_waits(self):
        line = re.search(r"^Exec=sh -c \"(.*)\"$", text_of("packaging/sentrelctl.desktop"), re.MULTILINE)[1]
        with tempfile.TemporaryDirectory() as place:
            program = pathlib.Path(place, "sentrelctl")
            program.write_text("#!/bin/sh\necho \"told $*\"\n")
            program.chmod(0o755)
            # A desktop file has a backslash twice, and within quotes twice again.
            done = subprocess.run(["sh", "-c", line.replace("\\\\\\\\", "\\")], input="\nmore", capture_output=True, text=True,
                                  env={"PATH": f"{place}:/usr/bin:/bin"}, check=True)
        self.assertEqual("told status\n\nPress Enter to close. ", done.stdout)
        self.assertEqual(["sentrelctl.desktop"], re.findall(r'launchable type="desktop-id">(.*)<', text_of("packaging/invalid.sentrel.status.metainfo.xml")))

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
