#!/usr/bin/env python3
"""Checks that the daemon asks its neighbours' libraries for the listed operations, for each of them and for no other,
and that the stub libraries have the same ones. Usage: neighbour_seam.py NM LIST --daemon ARCHIVE… --stubs ARCHIVE…"""

import argparse
import re
import subprocess
import sys

# What nm writes, and how the list spells it.
SPELLINGS = [
    (r"\[abi:cxx11\]", ""),
    (r"std::__cxx11::", "std::"),
    (r"std::basic_string<char, std::char_traits<char>, std::allocator<char> ?>", "std::string"),
    (r"std::basic_string<wchar_t, std::char_traits<wchar_t>, std::allocator<wchar_t> ?>", "std::wstring"),
    (r"std::map<([\w:]+), ([\w:]+), std::less<\1 ?>, std::allocator<std::pair<\1 const, \2 ?> ?> ?>",
     r"std::map<\1, \2>"),
    (r"std::unique_ptr<([\w:]+), std::default_delete<\1 ?> ?>", r"std::unique_ptr<\1>"),
]
# What only a neighbour can be asked for.
OF_A_NEIGHBOUR = re.compile(
    r"(?:HVB|HVBEnterprise|MacUtils|LibXml\w*|XmlFile)::|(?:HVB_|LogMsg|CF[A-Z]|SCDynamicStore)\w*(?:\(|$)|"
    r"(?:cmdHelper|regHelper|hvInit|hvComm)Flowvalue$")


def spelled(name):
    for pattern, short in SPELLINGS:
        name = re.sub(pattern, short, name)
    return name


def symbols(nm, option, kinds, archives):
    """The names of these kinds, as `nm` shows them demangled with the option."""
    output = subprocess.run([nm, "--demangle", "--extern-only", option, *archives], check=True, capture_output=True, text=True).stdout
    found = re.findall(rf"^(?:[0-9a-f]+)? *([{kinds}]) (.+)$", output, re.M)
    return {spelled(name) for _, name in found if not name.startswith("__")}  # those are the compiler's own


def complaints(listed, asked, stubs):
    yield from (f"the daemon asks a neighbour for what is not listed: {name}" for name in sorted(asked - listed))
    yield from (f"listed, but the daemon does not ask for it: {name}" for name in sorted(listed - asked))
    yield from (f"a stub has what is not listed: {name}" for name in sorted(stubs - listed))
    yield from (f"listed, but no stub has it: {name}" for name in sorted(listed - stubs))


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("nm")
    parser.add_argument("list")
    parser.add_argument("--daemon", nargs="+", required=True)
    parser.add_argument("--stubs", nargs="+", required=True)
    arguments = parser.parse_args()
    with open(arguments.list, encoding="utf-8") as file:
        listed = {line.strip() for line in file if line.strip() and not line.startswith("#")}
    asked = symbols(arguments.nm, "--undefined-only", "Uvw", arguments.daemon)
    asked -= symbols(arguments.nm, "--defined-only", "A-Za-z", arguments.daemon)
    asked = {name for name in asked if OF_A_NEIGHBOUR.match(name)}
    stubs = symbols(arguments.nm, "--defined-only", "TDBR", arguments.stubs)
    found = list(complaints(listed, asked, stubs))
    print("\n".join(found) or f"{len(listed)} operations, and no other")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
