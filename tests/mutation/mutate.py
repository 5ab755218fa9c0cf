#!/usr/bin/env python3
"""Changes one thing of the daemon at a time and sees whether a unit test notices.

Works on a copy of the tree in --scratch; the working tree is only read. See README.md.
Exit status: 0 every survivor is explained, 1 one is not, 2 the run itself failed.
"""
import argparse
import collections
import ctypes
import os
import random
import re
import resource
import shutil
import signal
import subprocess
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
LIST = os.path.join(ROOT, "tests", "mutation", "survivors.txt")

# The unit programs that look at a folder, and those that look at single files of it besides.
PROGRAMS = {
    "daemon": ["unit-trace", "unit-signal-gate", "unit-controller", "unit-sentreld"],
    "store": ["unit-store-file", "unit-store-preferences", "unit-store-debug-logging"],
    "hub": ["unit-hub", "unit-commands", "unit-payloads"],
    "managed": ["unit-managed", "unit-policy"],
    "policy": ["unit-policy-rules", "unit-policy-contract", "unit-policy"],
    "events": ["unit-events", "unit-records", "unit-event-server"],
}
PROGRAMS_OF_A_FILE = {"daemon/VXControllerEvents.cpp": ["unit-commands"]}

# A change that only a warning tells of is the tests' to find.
IGNORED = "".join(f'#pragma GCC diagnostic ignored "-W{warning}"\n' for warning in (
    "unused-parameter unused-variable unused-but-set-variable unused-but-set-parameter unused-function unused-value "
    "unused-const-variable parentheses sign-compare empty-body int-in-bool-context type-limits maybe-uninitialized "
    "uninitialized bool-compare logical-not-parentheses conversion sign-conversion").split())

Mutant = collections.namedtuple("Mutant", "file line start end text operator source")
Entry = collections.namedtuple("Entry", "file source operator reason")


class Failure(Exception):
    """The run cannot go on; the text says what to do."""


# --- reading sources ------------------------------------------------------------------------------------------------

TOKEN = re.compile(r'//[^\n]*|/\*.*?\*/|"(?:\\.|[^"\\\n])*"|\'(?:\\.|[^\'\\\n])+\'|^[ \t]*#(?:\\\n|[^\n])*', re.S | re.M)


def masked(text):
    """The text with blanks for comments and directives and with '\"' for each character of a literal.
    Also the spans of the string literals."""
    out, strings = list(text), []
    for token in TOKEN.finditer(text):
        kind = token.group()[0]
        if kind == "'" and token.start() > 0 and text[token.start() - 1].isalnum() and text[token.start() - 1] not in "LuU":
            continue  # the separator of a number
        if kind == '"':
            strings.append(token.span())
        for at in range(*token.span()):
            if text[at] != "\n":
                out[at] = '"' if kind in "\"'" else " "
    return "".join(out), strings


def statements(code):
    """Start and end of each statement that stands on lines of its own: from the first character to its semicolon."""
    for first in re.finditer(r"^[ \t]*(?=[\w:*(+-])", code, re.M):
        depth = 0
        for at in range(first.end(), min(len(code), first.end() + 600)):
            depth += {"(": 1, ")": -1}.get(code[at], 0)
            if code[at] in "{}" and depth == 0 or depth < 0:
                break
            if code[at] == ";" and depth == 0:
                yield first.end(), at + 1
                break


CALL = re.compile(r"(?:static_cast<void>\()?(?:std::ignore = )?[\w:.>-]+(?:<[^;()]*>)?\(.*\)\)?;", re.S)
ASSIGNMENT = re.compile(r"[\w.:]+(?:->[\w.]+|\[[^\]]*\])* [+|-]?= .*;", re.S)
NOT_A_CALL = re.compile(r"(?:return|throw|if|while|for|switch|case|using|delete|static_assert|namespace|explicit|template)\b|"
                        r".*\) (?:const )?= (?:default|delete);", re.S)

REPLACED = [  # operator, pattern with the text to replace as group 1, replacement
    ("relational", r" (<) ", "<="), ("relational", r" (<=) ", "<"),
    ("relational", r" (>) ", ">="), ("relational", r" (>=) ", ">"),
    ("equality", r" (==) ", "!="), ("equality", r" (!=) ", "=="),
    ("logical", r" (&&) ", "||"), ("logical", r" (\|\|) ", "&&"),
    ("negation", r"(!)(?=[\w(:])", ""),
    ("arithmetic", r"(?<=[\w)\]]) (\+) ", "-"), ("arithmetic", r"(?<=[\w)\]]) (-) ", "+"),
    ("arithmetic", r"(?<=[\w)\]]) (\*) ", "/"), ("arithmetic", r" (/) ", "*"), ("arithmetic", r" (%) ", "*"),
    ("arithmetic", r"(\+\+)", "--"), ("arithmetic", r"(--)", "++"),
    ("arithmetic", r" (\+=) ", "-="), ("arithmetic", r" (-=) ", "+="),
    ("boolean", r"\b(true)\b", "false"), ("boolean", r"\b(false)\b", "true"),
]
NUMBER = re.compile(r"(?<![\w.'])(?:0[0-7]+|0|[1-9][\d']*)(?![\w.'])")
RETURN = re.compile(r"\breturn ([^;{}\"]+);")


def changes(text):
    """Every change of a text as (start, end, replacement, operator), operators without their number on the line."""
    code, strings = masked(text)
    for operator, pattern, replacement in REPLACED:
        for found in re.finditer(pattern, code):
            yield (*found.span(1), replacement, f"{operator} {found.group(1)} to {replacement or 'nothing'}")
    for found in NUMBER.finditer(code):
        digits = found.group().replace("'", "")
        octal = len(digits) > 1 and digits[0] == "0"
        value = int(digits, 8 if octal else 10)
        for other in {value + 1, value - 1}:
            written = f"0{other:o}" if octal else str(other)
            yield (*found.span(), f"({written})" if other < 0 else written, f"constant {digits} to {written}")
    for found in RETURN.finditer(code):
        if found.group(1) not in ("true", "false", "*this", "nullptr"):
            yield (*found.span(1), f"!({text[found.start(1):found.end(1)]})", "return value negated")
    for start, end in strings:
        if not re.search(r"(?:#include|static_assert|extern)[^\n]*$", text[:start]):
            yield (start + 1, start + 1, "~", f"string {text[start:end]} changed")
    for start, end in statements(code):
        statement = code[start:end]
        if not NOT_A_CALL.match(statement) and (CALL.fullmatch(statement) or ASSIGNMENT.fullmatch(statement)):
            yield (start, end, "", "statement deleted")


def traced(code):
    """The spans of the trace lines."""
    for found in re.finditer(r"\bST_TRACE\(", code):
        depth, at = 1, found.end()
        while depth > 0 and at < len(code):
            depth += {"(": 1, ")": -1}.get(code[at], 0)
            at += 1
        yield found.start(), at


def mutants_of(file, skip_trace=False, tree=ROOT):
    with open(os.path.join(tree, file), encoding="utf-8") as source:
        text = source.read()
    spans = list(traced(masked(text)[0])) if skip_trace else []
    lines, seen, result = text.split("\n"), collections.Counter(), []
    for start, end, replacement, operator in sorted(set(changes(text))):
        if any(first <= start < last for first, last in spans):
            continue
        line = text.count("\n", 0, start) + 1
        seen[line, operator] += 1
        if seen[line, operator] > 1:
            operator += f" (number {seen[line, operator]} of the line)"
        result.append(Mutant(file, line, start, end, replacement, operator, lines[line - 1].strip()))
    return result


# --- the list of explained survivors --------------------------------------------------------------------------------

def read_list(path=LIST):
    with open(path, encoding="utf-8") as listed:
        text = "\n".join(line for line in listed.read().split("\n") if not line.startswith("#"))
    entries = []
    for block in filter(str.strip, re.split(r"\n\s*\n", text)):
        fields = [line.strip() for line in block.strip().split("\n")]
        if len(fields) < 4:
            raise Failure(f"{path}: an entry has file, line, operator and reason on a line each, not:\n{block}")
        entries.append(Entry(*fields[:3], " ".join(fields[3:])))
    return entries


def check_list(entries):
    known = {}
    for entry in entries:
        if entry.file not in known:
            exists = os.path.exists(os.path.join(ROOT, entry.file))
            known[entry.file] = {(m.source, m.operator) for m in mutants_of(entry.file)} if exists else set()
    stale = [e for e in entries if (e.source, e.operator) not in known[e.file]]
    if stale:
        raise Failure("\n".join(f"{LIST}: no line of {e.file} is '{e.source}' with the change '{e.operator}'; "
                                "mend or remove the entry" for e in stale))


# --- building and running -------------------------------------------------------------------------------------------

def end_orphans():
    """Ends what a test has left running: this process is the parent of all its orphans."""
    for _ in range(100):
        with open(f"/proc/self/task/{os.getpid()}/children", encoding="ascii") as listed:
            children = [int(pid) for pid in listed.read().split()]
        for pid in children:
            try:
                os.kill(pid, signal.SIGKILL)
                os.waitpid(pid, 0)
            except (ProcessLookupError, ChildProcessError):
                pass
        if not children:
            return


def limit_resources():
    resource.setrlimit(resource.RLIMIT_FSIZE, (1 << 30, 1 << 30))  # bytes: a mutant may write without end
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))


def run(command, timeout, cwd):
    """Exit status, None when the time was over, and the output."""
    with subprocess.Popen(command, cwd=cwd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, errors="replace",
                          stdin=subprocess.DEVNULL, start_new_session=True, preexec_fn=limit_resources,
                          env={**os.environ, "GTEST_FAIL_FAST": "1"}) as child:
        try:
            output, _ = child.communicate(timeout=timeout)
            status = child.returncode
        except subprocess.TimeoutExpired:
            os.killpg(child.pid, signal.SIGKILL)
            output, status = "", None
    end_orphans()
    return status, output


class Copy:
    """The tree that is changed, and its build: not optimised, not sanitized, through ccache when there is one."""

    def __init__(self, scratch, jobs):
        self.tree, self.jobs = os.path.join(scratch, "tree"), jobs
        # As deep as an ordinary build directory, so that the two share what ccache has.
        self.build = os.path.join(self.tree, "build", "fast")
        os.makedirs(self.build, exist_ok=True)
        listed = subprocess.run(["git", "ls-files", "-co", "--exclude-standard", "-z"], cwd=ROOT, check=True,
                                capture_output=True, text=True).stdout
        files = [name for name in listed.split("\0") if name and os.path.isfile(os.path.join(ROOT, name))]
        for name in files:
            self.restore(name)
        for folder, _, names in os.walk(self.tree):
            for name in names:
                relative = os.path.relpath(os.path.join(folder, name), self.tree)
                if not relative.startswith("build/") and relative not in files:
                    os.remove(os.path.join(folder, name))
        launcher = ["-DCMAKE_CXX_COMPILER_LAUNCHER=ccache"] if shutil.which("ccache") else []
        status, output = run(["cmake", "-S", self.tree, "-B", self.build, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Debug",
                              "-DCMAKE_CXX_FLAGS_DEBUG=-O0", *launcher], 600, self.tree)
        if status != 0:
            raise Failure("the copy cannot be configured:\n" + output)

    def write(self, name, content):
        """Writes a file of the tree when it differs, so that only what changed is built."""
        target = os.path.join(self.tree, name)
        if os.path.exists(target):
            with open(target, "rb") as current:
                if current.read() == content:
                    return
        os.makedirs(os.path.dirname(target), exist_ok=True)
        with open(target, "wb") as changed:
            changed.write(content)

    def restore(self, name):
        with open(os.path.join(ROOT, name), "rb") as source:
            content = source.read()
        self.write(name, content)
        shutil.copymode(os.path.join(ROOT, name), os.path.join(self.tree, name))

    def apply(self, mutant):
        with open(os.path.join(ROOT, mutant.file), encoding="utf-8") as source:
            text = source.read()
        self.write(mutant.file, (IGNORED + text[:mutant.start] + mutant.text + text[mutant.end:]).encode())

    def make(self, programs):
        return run(["cmake", "--build", self.build, "--target", *programs, "--", f"-j{self.jobs}"], 1800, self.tree)

    def test(self, programs, timeout):
        which = "^(" + "|".join(programs) + ")(:|$)"
        return run(["ctest", "--test-dir", self.build, "-R", which, f"-j{self.jobs}", "--stop-on-failure",
                    "--output-on-failure", "--no-tests=error"], timeout, self.tree)


def programs_for(file):
    return PROGRAMS[file.split("/")[0]] + PROGRAMS_OF_A_FILE.get(file, [])


def baseline(copy, programs):
    """Builds and runs what is unchanged. The seconds that a changed run may take."""
    status, output = copy.make(programs)
    if status != 0:
        raise Failure("the unchanged tree does not build:\n" + output[-4000:])
    began = time.monotonic()
    status, output = copy.test(programs, 1200)
    if status != 0:
        raise Failure("the unchanged tree fails its tests, so nothing can be told:\n" + output[-4000:])
    return 30 + 3 * (time.monotonic() - began)


def verdict(copy, mutant, timeout):
    """What became of a mutant, and what noticed it."""
    programs = programs_for(mutant.file)
    copy.apply(mutant)
    try:
        status, output = copy.make(programs)
        if status != 0:
            return "did not compile", ""
        status, output = copy.test(programs, timeout)
    finally:
        copy.restore(mutant.file)
    if status is None:
        return "killed", "time-out"
    failed = re.search(r"Test +#\d+: (\S+) \.+\**(?!.*Passed)", output)
    return ("survived", "") if status == 0 else ("killed", failed.group(1) if failed else "")


# --- choosing and reporting -----------------------------------------------------------------------------------------

def files_of(path, suffixes):
    """The daemon's sources at a path, which may end in a line number: (file, line or None)."""
    path, _, line = path.partition(":")
    relative = os.path.relpath(os.path.join(ROOT, path), ROOT)
    full = os.path.join(ROOT, relative)
    names = sorted(os.path.join(relative, name) for name in os.listdir(full)) if os.path.isdir(full) else [relative]
    chosen = [(name, int(line) if line else None) for name in names if name.endswith(suffixes)]
    if not chosen or any(name.split("/")[0] not in PROGRAMS for name, _ in chosen):
        raise Failure(f"{path}: not a folder or source of {', '.join(PROGRAMS)}")
    return chosen


def sampled(mutants, size, seed):
    """Evenly over the sources: one by chance of each of as many equal stretches."""
    if not size or size >= len(mutants):
        return mutants
    chance = random.Random(seed)
    bounds = [len(mutants) * part // size for part in range(size + 1)]
    return [mutants[chance.randrange(first, last)] for first, last in zip(bounds, bounds[1:])]


def describe(mutant):
    return f"{mutant.file}:{mutant.line}\n    {mutant.source}\n    {mutant.operator}"


def report(results, population, arguments, explanations):
    print(f"\nSample: {arguments.sample or 'all'} of a folder, seed {arguments.seed}"
          f"{', without trace lines' if arguments.skip_trace else ''}"
          f"{', without headers' if arguments.skip_headers else ''}\n")
    row = "{:10} {:>9} {:>7} {:>15} {:>6} {:>8} {:>9}"
    print(row.format("folder", "possible", "tried", "did not compile", "killed", "survived", "explained"))
    for folder in sorted(population):
        mine = [(m, outcome) for m, outcome in results if m.file.split("/")[0] == folder]
        counts = collections.Counter(outcome for _, outcome in mine)
        explained = sum(outcome == "survived" and (m.file, m.source, m.operator) in explanations for m, outcome in mine)
        print(row.format(folder, population[folder], len(mine), counts["did not compile"], counts["killed"],
                         counts["survived"], explained))
    left = [m for m, outcome in results
            if outcome == "survived" and (m.file, m.source, m.operator) not in explanations]
    if left:
        print("\nSurvivors that nothing explains:\n")
        print("\n".join(map(describe, left)))
    return 1 if left else 0


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__.split("\n", maxsplit=1)[0])
    parser.add_argument("paths", nargs="*", help="folders, files or file:line; default: " + " ".join(PROGRAMS))
    parser.add_argument("--sample", type=int, metavar="N", help="try N mutants of each folder; default: all")
    parser.add_argument("--seed", type=int, default=1, help="which N; default: 1")
    parser.add_argument("--minutes", type=int, metavar="M", help="begin no mutant later than this; order by chance")
    parser.add_argument("--skip-trace", action="store_true", help="leave the trace lines as they are")
    parser.add_argument("--skip-headers", action="store_true", help="leave headers: each of their mutants builds much")
    parser.add_argument("--list", action="store_true", help="print the mutants and check survivors.txt, build nothing")
    parser.add_argument("--jobs", type=int, default=os.cpu_count(), help="compilers and tests at a time")
    parser.add_argument("--scratch", default=os.path.join(ROOT, "build", "mutation"),
                        help="where the changed copy lives; default: build/mutation")
    return parser.parse_args()


def choose(arguments):
    by_folder = collections.defaultdict(list)
    suffixes = (".cpp",) if arguments.skip_headers else (".cpp", ".h")
    for file, line in sorted({found for path in arguments.paths or PROGRAMS for found in files_of(path, suffixes)}):
        by_folder[file.split("/")[0]] += [m for m in mutants_of(file, arguments.skip_trace) if line in (None, m.line)]
    population = {folder: len(mutants) for folder, mutants in by_folder.items()}
    chosen = [m for folder in sorted(by_folder)
              for m in sampled(by_folder[folder], arguments.sample, f"{arguments.seed} {folder}")]
    if arguments.minutes:
        random.Random(arguments.seed).shuffle(chosen)  # so that what is tried in the time is an even sample too
    return population, chosen


def try_all(chosen, arguments, explanations):
    ctypes.CDLL(None).prctl(36, 1, 0, 0, 0)  # PR_SET_CHILD_SUBREAPER: what a killed test leaves comes to us
    copy, limits, results, began = Copy(arguments.scratch, arguments.jobs), {}, [], time.monotonic()
    try:
        for number, mutant in enumerate(chosen, 1):
            if arguments.minutes and time.monotonic() > began + 60 * arguments.minutes:
                print(f"\n{arguments.minutes} minutes are over.")
                break
            programs = tuple(programs_for(mutant.file))
            if programs not in limits:
                limits[programs] = baseline(copy, programs)
            outcome, by = verdict(copy, mutant, limits[programs])
            results.append((mutant, outcome))
            reason = explanations.get((mutant.file, mutant.source, mutant.operator))
            told = f" ({reason})" if outcome == "survived" and reason else f" by {by}" if by else ""
            print(f"{number}/{len(chosen)} {outcome}{told}: {describe(mutant)}", flush=True)
    except KeyboardInterrupt:
        print("\nStopped; what follows is what was tried until then.")
    return results


def main():
    arguments = parse_arguments()
    for stop in (signal.SIGINT, signal.SIGTERM):
        signal.signal(stop, signal.default_int_handler)  # a background shell would have the first ignored
    try:
        entries = read_list()
        check_list(entries)
        population, chosen = choose(arguments)
        if arguments.list:
            print("\n".join(map(describe, chosen)))
            return 0
        explanations = {(e.file, e.source, e.operator): e.reason for e in entries}
        return report(try_all(chosen, arguments, explanations), population, arguments, explanations)
    except (Failure, OSError) as failure:
        print(f"mutate.py: {failure}", file=sys.stderr)
        return 2


if __name__ == "__main__":
    sys.exit(main())
