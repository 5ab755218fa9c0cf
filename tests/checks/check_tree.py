#!/usr/bin/env python3
"""Checks that keep the map of the tree true. Usage: check_tree.py CHECK ROOT [BUILD-DIRECTORY]"""

import json
import os
import pathlib
import re
import sys

DAEMON_FOLDERS = ["daemon", "store", "hub", "managed", "events"]
PRODUCT_FOLDERS = ["base", "policy", *DAEMON_FOLDERS, "platform", "browser", "apps"]
CODE_FOLDERS = [*PRODUCT_FOLDERS, "tests", "bench", "fuzz"]
# Folders whose folders are units of their own.
GROUPS = ("platform", "browser", "apps")
TEST_FOLDERS = ["tests", "bench", "fuzz"]
# The row of the table in docs/architecture.md that says what a folder, or a single source, may include.
INCLUDE_ROW = re.compile(r"^\| `([\w/.-]+)`(?: alone)? \| ((?:`[\w/.-]+`(?:, )?)+|nothing) \|$", re.M)
# The calls of SQLite that the settings file is used with; no other keeps its promises to the other readers.
SQLITE_CALLS = {"sqlite3_" + name for name in (
    "open", "busy_handler", "close", "errcode", "exec", "prepare", "finalize", "bind_text", "bind_blob", "bind_int",
    "reset", "step", "changes", "column_blob", "column_text", "column_bytes", "column_int")}
# Where a test may sleep, and why.
MAY_SLEEP = {
    "tests/support/Eventually.h": "the one place that polls",
    "tests/unit/store/Interposed.cpp": "stands in the place of the code's own wait",
    "tests/integration/SettingsFileTest.cpp": "an instant that has nothing to do with the daemon's steps",
    "tests/integration/SignalStormTest.cpp": "an instant that has nothing to do with the daemon's steps",
    "tests/unit/daemon/MainTest.cpp": "an instant that has nothing to do with the program's steps",
}
# Above so many lines a source begins with a comment of so many: the model, what must stay so, what was tried.
LONG_SOURCE = 150
SHORTEST_STORY = 5


def sources(root, folders, endings):
    return [path for folder in folders if (root / folder).is_dir() for path in sorted((root / folder).rglob("*"))
            if path.suffix in endings]


def folder_readmes(root, _build):
    """Every folder of code has a README of at most 40 lines."""
    folders = [folder for folder in CODE_FOLDERS if (root / folder).is_dir() and folder != "apps"]
    folders += [str(path.relative_to(root)) for path in (root / "apps").iterdir() if path.is_dir()]
    for folder in folders:
        readme = root / folder / "README.md"
        if not readme.is_file():
            yield f"{folder}: has no README.md"
        elif len(readme.read_text().splitlines()) > 40:
            yield f"{readme.relative_to(root)}: longer than 40 lines"


def document_paths(root, _build):
    """Links, and paths in code marks, lead somewhere in the tree."""
    path_like = re.compile(r"^(?:%s|docs|packaging|cmake|\.ci)(?:/[\w.{},<>-]+)+/?$" % "|".join(CODE_FOLDERS))
    for document in sorted(root.rglob("*.md")):
        if "build" in document.relative_to(root).parts:
            continue
        text = document.read_text()
        for target in re.findall(r"\]\(([^)#]+)(?:#[^)]*)?\)", text):
            if "://" not in target and not (document.parent / target).exists():
                yield f"{document.relative_to(root)}: link leads nowhere: {target}"
        for name in re.findall(r"`([^`\n]+)`", text):
            if path_like.match(name) and not any(mark in name for mark in "<{") and not (root / name).exists():
                yield f"{document.relative_to(root)}: no such path: {name}"


def room_of(path):
    """The unit that the include table speaks of: a top folder, or a library or program below platform/, browser/ and apps/."""
    parts = path.split("/")
    return "/".join(parts[:2]) if parts[0] in GROUPS else parts[0]


def include_table(root):
    """Who may include whom, as docs/architecture.md shows it: a folder is named without its last slash."""
    text = (root / "docs" / "architecture.md").read_text()
    return {own: [name.rstrip("/") for name in re.findall(r"`([^`]+)`", names)]
            for own, names in INCLUDE_ROW.findall(text.partition("\n## Rooms")[2].partition("\n## ")[0])}


def include_rules(root, _build):
    """Who may include whom, and no permission that nobody uses."""
    table, used = include_table(root), set()
    for path in sources(root, PRODUCT_FOLDERS, {".h", ".cpp"}):
        relative = str(path.relative_to(root))
        own = room_of(relative)
        for target in re.findall(r'^#include "([^"]+)"', path.read_text(), re.M):
            if not (root / target).is_file():
                yield f"{relative}: not written from the repository root: {target}"
            if room_of(target) == own:
                continue
            permitted = [(who, rule) for who in (own, relative) for rule in table.get(who, [])
                         if target == rule or target.startswith(rule + "/")]
            if not permitted:
                yield f"{relative}: may not include {target}"
            used |= set(permitted)
    for own, rules in table.items():
        yield from (f"{own} may include {rule}, but does not" for rule in rules if (own, rule) not in used)


def sqlite_calls(root, _build):
    """The store calls SQLite in one file, and only what the settings file is used with."""
    for path in sources(root, ["daemon", "store", "hub", "managed", "events"], {".h", ".cpp"}):
        relative = path.relative_to(root)
        for call in sorted(set(re.findall(r"\b(sqlite3_\w+)\s*\(", path.read_text()))):
            if call not in SQLITE_CALLS or str(relative) != "store/SQLite.cpp":
                yield f"{relative}: may not call {call}"


def registration(root, build):
    """Every source file is compiled by some target of this build."""
    compiled = {pathlib.Path(entry["file"]).resolve()
                for entry in json.loads((build / "compile_commands.json").read_text())}
    for merged in [path for path in compiled if path.parent.name == "Unity"]:
        compiled |= {pathlib.Path(name).resolve() for name in re.findall(r'^#include "(.*)"$', merged.read_text(), re.M)}
    for path in sources(root, CODE_FOLDERS, {".cpp"}):
        if path.resolve() not in compiled:
            yield f"{path.relative_to(root)}: in no target"


def no_sleeping(root, _build):
    """Tests wait for conditions; they do not sleep."""
    for path in sources(root, ["tests"], {".h", ".cpp"}):
        relative = str(path.relative_to(root))
        if relative not in MAY_SLEEP and re.search(r"\b(?:u|nano)?sleep(?:_for|_until)?\s*\(", path.read_text()):
            yield f"{relative}: sleeps"


def deadlines(root, _build):
    """Every wait in a test has a deadline and names what it waits for, as far as the text shows. A std::barrier only starts
    threads together that the test itself made."""
    endless = re.compile(r"\.get_future\(\)\.(?:get|wait)\(|\byield\s*\(|\.wait\(lock")
    waitable = re.compile(r"\b(?:std::(?:shared_)?future<.*> |std::(?:latch|binary_semaphore)&? )(\w+)|"
                          r"\b(\w+) = std::async\(|\b(\w+) = \w+(?:\.|->)get_future\(\)")
    for path in sources(root, TEST_FOLDERS, {".h", ".cpp"}):
        relative = str(path.relative_to(root))
        text = path.read_text()
        names = {name for match in waitable.finditer(text) for name in match.groups() if name}
        if relative == "tests/support/Eventually.h":
            continue # the helper that has the deadline
        for number, line in enumerate(text.splitlines(), 1):
            calls = re.findall(r"\b(\w+)\.(?:get|wait|acquire|arrive_and_wait)\(\)", line)
            if endless.search(line) or names.intersection(calls):
                yield f"{relative}:{number}: waits without a deadline; use await of tests/support/Eventually.h"


def temporary_directories(root, _build):
    """Only the machine says where temporary files are: tests/support/TemporaryDirectory.h asks it."""
    for path in sources(root, TEST_FOLDERS, {".h", ".cpp"}):
        for number, line in enumerate(path.read_text().splitlines(), 1):
            if re.search(r"/(?:var/)?tmp\b", line):
                yield f"{path.relative_to(root)}:{number}: a fixed temporary directory"


def header_names(root, _build):
    """No two headers have one file name."""
    first = {}
    for path in sources(root, CODE_FOLDERS, {".h"}):
        other = first.setdefault(path.name, path)
        if other != path:
            yield f"{path.relative_to(root)}: has the file name of {other.relative_to(root)}"


def calls_of(function, text):
    """The calls of a CMake function: the first argument of each, and its other arguments."""
    return {name: rest.split() for name, rest in re.findall(rf"^{function}\((\w+)\s([^)]*)\)", text, re.M)}


def fuzz_targets(root, _build):
    """Every fuzz source is in a target, the preset builds all of them, and each has a corpus that is replayed whole."""
    folder = root / "fuzz"
    targets = calls_of("sentrel_fuzz", (folder / "CMakeLists.txt").read_text())
    named = {word for arguments in targets.values() for word in arguments}
    for path in sorted(folder.glob("*.cpp")):
        if "LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {" in path.read_text() and path.name not in named:
            yield f"{path.relative_to(root)}: in no target"
    presets = json.loads((root / "CMakePresets.json").read_text())["buildPresets"]
    if [preset.get("targets") for preset in presets if preset["name"] == "fuzz"] != [["fuzz-targets"]]:
        yield "CMakePresets.json: the build preset fuzz does not build the target fuzz-targets, which holds every fuzz target"
    corpora = {path.name for path in (folder / "corpus").iterdir()}
    yield from (f"fuzz/corpus/{name}: of no target" for name in sorted(corpora - targets.keys()))
    yield from (f"fuzz/corpus/{name}: missing" for name in sorted(targets.keys() - corpora))
    for name in sorted(corpora & targets.keys()):
        entries = list((folder / "corpus" / name).iterdir())
        if not entries:
            yield f"fuzz/corpus/{name}: empty"
        yield from (f"{path.relative_to(root)}: no file, so it is not replayed" for path in entries if not path.is_file())


def benches(root, _build):
    """Every bench has a brief run among the tests."""
    named = {word for words in calls_of("sentrel_bench", (root / "bench" / "CMakeLists.txt").read_text()).values()
             for word in words}
    for path in sorted((root / "bench").glob("*.cpp")):
        if path.name not in named:
            yield f"{path.relative_to(root)}: in no sentrel_bench"


def head_comments(root, _build):
    """A source that is longer than a few screens begins with its story."""
    for path in sources(root, PRODUCT_FOLDERS, {".cpp"}):
        lines = path.read_text().splitlines()
        head = next((number for number, line in enumerate(lines) if not line.startswith("//")), len(lines))
        if len(lines) > LONG_SOURCE and head < SHORTEST_STORY:
            yield f"{path.relative_to(root)}: {len(lines)} lines, and no {SHORTEST_STORY} lines at its top that tell their story"


def readme_commands(root, _build):
    """The commands that the README names exist and can be run."""
    for command in re.findall(r"^    (\./\w+)", (root / "README.md").read_text(), re.M):
        if not os.access(root / command, os.X_OK):
            yield f"README.md: cannot be run: {command}"


CHECKS = {check.__name__: check for check in
          (folder_readmes, document_paths, include_rules, sqlite_calls, registration, fuzz_targets, benches, header_names,
           no_sleeping, deadlines, temporary_directories, head_comments,
           readme_commands)}


def main(arguments):
    if len(arguments) not in (2, 3) or arguments[0] not in CHECKS:
        print(f"usage: check_tree.py {'|'.join(CHECKS)} ROOT [BUILD-DIRECTORY]", file=sys.stderr)
        return 2
    root = pathlib.Path(arguments[1])
    build = pathlib.Path(arguments[2]) if len(arguments) == 3 else None
    complaints = list(CHECKS[arguments[0]](root, build))
    print("\n".join(complaints) or "nothing to complain of")
    return 1 if complaints else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
