#!/usr/bin/env python3
"""Whether packaging/install-browser-extension puts into its places what both browsers take, without either browser.
Usage: browser_installation_test.py ROOT

The signature is looked at as Chromium does: by the public key in the package, over the parts that Chromium signs. That Chromium
really takes it is seen in tests/browser. What is the program's own is asked of it by running it, with a private root."""

import hashlib
import json
import os
import pathlib
import re
import struct
import subprocess
import sys
import tempfile
import unittest
import zipfile

ROOT = pathlib.Path(sys.argv.pop())
PROGRAM = ROOT / "packaging" / "install-browser-extension"
XPI = "usr/share/mozilla/extensions/{ec8030f7-c20a-464f-9b0e-13a3a9e97384}/extension@sentrel.invalid.xpi"
FIREFOX_HOST = "usr/lib/mozilla/native-messaging-hosts/sentrel.browser_host.json"
CHROMIUM_HOST = "etc/chromium/native-messaging-hosts/sentrel.browser_host.json"
POLICY = "etc/chromium/policies/managed/sentrel.json"
BY_HAND = "usr/local/Orvanta/Sentrel/browser"
HOST = "/bin/true"


def read_fields(data: bytes) -> list[tuple[int, bytes]]:
    """The text fields of a protocol buffer with their numbers."""
    def varint(at: int) -> tuple[int, int]:
        value = shift = 0
        while True:
            value |= (data[at] & 0x7f) << shift
            shift += 7
            at += 1
            if data[at - 1] < 0x80:
                return value, at
    fields, at = [], 0
    while at < len(data):
        tag, at = varint(at)
        length, at = varint(at)
        fields.append((tag >> 3, data[at:at + length]))
        at += length
    return fields


def id_of(public: bytes) -> str:
    return "".join(chr(ord("a") + int(digit, 16)) for digit in hashlib.sha256(public).hexdigest()[:32])


class AnInstallation(unittest.TestCase):
    def setUp(self) -> None:
        place = tempfile.TemporaryDirectory()
        self.addCleanup(place.cleanup)
        self.root = pathlib.Path(place.name, "root")
        self.outside = pathlib.Path(place.name)

    def run_it(self, *words: str) -> None:
        # Without a browser anywhere: what there is of programs is what the program may use.
        programs = self.outside / "bin"
        programs.mkdir(exist_ok=True)
        for name in ("openssl", "python3"):
            if not (programs / name).exists():
                (programs / name).symlink_to(f"/usr/bin/{name}")
        subprocess.run([PROGRAM, "--root", self.root, *words], check=True, stdout=subprocess.DEVNULL, env={"PATH": str(programs)})

    def files(self) -> set[str]:
        return {str(path.relative_to(self.root)) for path in self.root.rglob("*") if path.is_file()}

    def text(self, place: str) -> str:
        return (self.root / place).read_text()

    def test_needs_no_browser(self):
        self.run_it(HOST)
        self.assertEqual({XPI, FIREFOX_HOST, CHROMIUM_HOST, POLICY, *(f"{BY_HAND}/{name}" for name in (
            "sentrel-browser-host", "extension.pem", "extension.crx", "update.xml"))}, self.files())
        self.assertEqual([], [path.name for path in self.root.rglob("*.new")])

    def test_is_signed_as_chromium_asks(self):
        self.run_it(HOST)
        package = (self.root / BY_HAND / "extension.crx").read_bytes()
        magic, version, length = struct.unpack_from("<4sII", package)
        self.assertEqual((b"Cr24", 3), (magic, version))
        header = dict(read_fields(package[12:12 + length]))
        proof, signed = dict(read_fields(header[2])), header[10000]
        self.assertEqual({1: hashlib.sha256(proof[1]).digest()[:16]}, dict(read_fields(signed)))
        (self.outside / "key").write_bytes(proof[1])
        (self.outside / "signature").write_bytes(proof[2])
        over = b"CRX3 SignedData\0" + struct.pack("<I", len(signed)) + signed + package[12 + length:]
        subprocess.run(["openssl", "dgst", "-sha256", "-verify", self.outside / "key", "-keyform", "DER", "-signature",
                        self.outside / "signature"], check=True, input=over, stdout=subprocess.DEVNULL)
        named = id_of(proof[1])
        self.assertEqual([f"chrome-extension://{named}/"], json.loads(self.text(CHROMIUM_HOST))["allowed_origins"])
        self.assertEqual([named], list(json.loads(self.text(POLICY))["ExtensionSettings"]))
        self.assertIn(f"appid='{named}'", self.text(f"{BY_HAND}/update.xml"))

    def test_gives_both_browsers_the_same_files(self):
        self.run_it(HOST)
        names = [zipfile.ZipFile(self.root / place).namelist() for place in (XPI, f"{BY_HAND}/extension.crx")]
        self.assertEqual(names[0], names[1])
        self.assertLessEqual({"manifest.json", "background/main.js", "vendor/chart.min.js"}, set(names[0]))
        self.assertNotIn("README.md", names[0])

    def version(self) -> str:
        inside = json.loads(zipfile.ZipFile(self.root / XPI).read("manifest.json"))["version"]
        self.assertIn(f"version='{inside}'/>", self.text(f"{BY_HAND}/update.xml"))
        package = zipfile.ZipFile(self.root / BY_HAND / "extension.crx")
        self.assertEqual(inside, json.loads(package.read("manifest.json"))["version"])
        return inside

    def test_has_the_trees_version_and_a_number_that_stays_while_nothing_changes(self):
        self.run_it(HOST)
        tree = re.search(r"^project\(sentrel VERSION (\S+)", (ROOT / "CMakeLists.txt").read_text(), re.MULTILINE)[1]
        self.assertRegex(self.version(), rf"^{re.escape(tree)}\.\d+$")
        self.assertEqual(tree, json.loads((ROOT / "browser/extension/manifest.json").read_text())["version"])
        before = self.version()
        self.run_it(HOST)
        self.assertEqual(before, self.version())

    def test_has_a_higher_version_whenever_another_extension_was_there(self):
        self.run_it(HOST)
        numbers = []
        for _ in range(3):
            numbers.append([int(part) for part in self.version().split(".")])
            with zipfile.ZipFile(self.root / XPI, "a") as package:
                package.writestr(f"of-another-tree-{len(numbers)}", "")
            self.run_it(HOST)
        self.assertEqual(sorted(numbers), numbers)
        self.assertEqual(3, len({tuple(each) for each in numbers}))

    def test_has_chromium_look_for_a_changed_extension_where_it_got_the_first(self):
        self.run_it(HOST)
        told = next(iter(json.loads(self.text(POLICY))["ExtensionSettings"].values()))
        self.assertEqual({"installation_mode": "force_installed", "update_url": (self.root / BY_HAND / "update.xml").as_uri(),
                          "override_update_url": True}, told)

    def test_has_a_version_when_what_is_there_is_damaged(self):
        self.run_it(HOST)
        before = self.version()
        (self.root / XPI).write_bytes(b"PK damaged")
        self.run_it(HOST)
        self.assertEqual(before, self.version())

    def test_keeps_its_key_which_is_roots_alone(self):
        self.run_it(HOST)
        key = self.root / BY_HAND / "extension.pem"
        before, policy = key.read_bytes(), self.text(POLICY)
        self.assertEqual(0o600, key.stat().st_mode & 0o777)
        self.run_it(HOST)
        self.assertEqual((before, policy), (key.read_bytes(), self.text(POLICY)))

    def test_lies_where_its_caller_says(self):
        policy = self.outside / "policy.json"
        self.run_it("--home", "/var/lib/elsewhere", "--in-place", "--policy", str(policy), HOST)
        self.assertEqual({XPI, FIREFOX_HOST, CHROMIUM_HOST, *(f"var/lib/elsewhere/{name}" for name in (
            "extension.pem", "extension.crx", "update.xml"))}, self.files())
        for place in (FIREFOX_HOST, CHROMIUM_HOST):
            self.assertEqual(HOST, json.loads(self.text(place))["path"])
        update = next(iter(json.loads(policy.read_text())["ExtensionSettings"].values()))["update_url"]
        self.assertEqual((self.root / "var/lib/elsewhere/update.xml").as_uri(), update)

    def test_goes_but_for_its_key(self):
        self.run_it(HOST)
        self.run_it("--remove")
        self.assertEqual({f"{BY_HAND}/extension.pem"}, self.files())


class ThePackage(unittest.TestCase):
    """Whether what the scripts of the Debian package name is what the program has."""

    def script(self, name: str) -> str:
        return (ROOT / "debian" / f"sentrel-browser.{name}").read_text()

    def test_takes_over_what_an_installation_by_hand_has_made(self):
        self.assertIn(f"by_hand=/{BY_HAND}\n", self.script("postinst"))

    def test_names_the_policy_that_the_program_removes(self):
        for name in ("postinst", "prerm"):
            self.assertIn(f"policy=/{POLICY}\n", self.script(name))

    def test_owns_every_directory_that_it_fills(self):
        owned = set(self.script("dirs").split())
        self.assertEqual({str(pathlib.PurePath(place).parent) for place in (XPI, FIREFOX_HOST, CHROMIUM_HOST, POLICY)}
                         | {"var/lib/sentrel-browser"}, owned)

    def test_says_what_private_windows_need(self):
        rule = next(line.strip() for line in (ROOT / "debian/rules").read_text().splitlines() if "private-windows" in line)
        said = subprocess.run(["sh", "-c", rule.partition(">")[0]], check=True, capture_output=True, text=True, cwd=ROOT).stdout
        found = [json.loads(text) for text in re.findall(r"`(\{.*?\})`", said)]
        self.assertEqual([{"policies": {"ExtensionSettings": {"extension@sentrel.invalid": {"private_browsing": True}}}},
                          {"policies": {"DisablePrivateBrowsing": True}}], found)
        self.assertIn("IncognitoModeAvailability", said)
        self.assertNotIn("##", said)


os.umask(0o022)
unittest.main()
