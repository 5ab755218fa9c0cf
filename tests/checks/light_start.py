#!/usr/bin/env python3
"""Programs that start without the MQTT and TLS libraries, and without ICU. Usage: light_start.py PROGRAM …

A machine that is not managed, and a verb that asks no broker, need none of the first; they are loaded at the first connection. The
shared Boost.Regex loads ICU whether or not it is used.
"""

import re
import subprocess
import sys

HEAVY = re.compile(r"lib(mosquitto|ssl|crypto|boost_regex|icui18n)\.")


def heavy_libraries(program):
    listing = subprocess.run(["readelf", "--dynamic", "--wide", program], check=True, capture_output=True, text=True).stdout
    needed = re.findall(r"\(NEEDED\).*\[(.+)\]", listing)
    if not needed:
        yield f"{program}: needs no library at all, so this is not the program that was meant"
    yield from (f"{program}: {library} is loaded at every start" for library in needed if HEAVY.match(library))


def main(programs):
    if not programs:
        print(__doc__, file=sys.stderr)
        return 2
    complaints = [complaint for program in programs for complaint in heavy_libraries(program)]
    print("\n".join(complaints) or "nothing to complain of")
    return 1 if complaints else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
