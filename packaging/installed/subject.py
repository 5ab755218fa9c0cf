"""What is asked of a machine with the packages, over and over: install them, send an event, look at the log, at a unit, at what
must be kept. Rows is what every group of rows begins as: the machine, and the packages that it gets.

A row is a public method of such a group: the first line of its text is what it shows, its answer what was seen, and a Failure
what was seen in place of it. A row leaves the machine as it found it, unless it says otherwise, so each counts for itself."""

import json
import pathlib
import shutil
import time

from installed.booted_machine import Failure, Machine, wait_until

SERVICES = ["sentrel-bus", "sentrel-hvbd", "sentrel-settings-keeper", "sentreld"]
UNITS = ["sentrel.target", "sentrel-bus.socket", "sentreld-restart.path", *(name + ".service" for name in SERVICES)]
HVB = "/usr/local/Orvanta/hvb"
VAR = "/usr/local/Orvanta/Sentrel/var"
SETTINGS = "/Users/Shared/.orvanta/product.db"
NOBODY = "setpriv --reuid=65534 --regid=65534 --clear-groups"
BACK_SECONDS = 2
GAP_SECONDS = 2


def expect(holds: bool, seen: object) -> None:
    if not holds:
        raise Failure(str(seen))


def debs_in(directory: pathlib.Path) -> list[pathlib.Path]:
    return sorted(deb for deb in directory.glob("sentrel*.deb") if "dbgsym" not in deb.name)


def names_of(packages: pathlib.Path) -> str:
    return " ".join(deb.name.split("_")[0] for deb in debs_in(packages))


def install(machine: Machine, packages: pathlib.Path) -> float:
    target = machine.path("/packages")
    shutil.rmtree(target, ignore_errors=True)
    target.mkdir()
    for package in debs_in(packages):
        shutil.copy(package, target)
    begin = time.monotonic()
    machine.do("apt-get install --yes --quiet --allow-downgrades /packages/*.deb", 300)
    return time.monotonic() - begin


def settle(machine: Machine, seconds: float = 10) -> float:
    return wait_until("bus, hvbd and sentreld answer", lambda: machine.ok("sentrelctl hub ping"), seconds)


def send_event(machine: Machine, host: str) -> None:
    machine.do(f"{NOBODY} sentrelctl event send --url http://{host}/x --rating 60 --action block")


def logged(machine: Machine, host: str) -> int:
    return machine.do("sentrelctl log --limit 0 --json=short").count(f'"SourceURL":"http://{host}/')


def wait_for_report(machine: Machine, host: str) -> None:
    wait_until(f"the report of {host} is in the log", lambda: logged(machine, host) == 1, 10)


def unit_property(machine: Machine, unit: str, name: str) -> str:
    return machine.do(f"systemctl show --property={name} --value {unit}")


def kept(machine: Machine) -> dict[str, str]:
    """What an upgrade, a removal or a reboot must not change."""
    return {
        "preferences": machine.do("sentrelctl prefs show --json=short"),
        "list": machine.do("sentrelctl list export -"),
        "files": machine.do(f"cd {HVB}/config; sha256sum Sentrel/HVConfig.xml $(ls agent.json agent.key) 2>/dev/null; "
                            "cat /etc/machine-id", 10),
    }


def expect_kept(machine: Machine, before: dict[str, str]) -> None:
    after = kept(machine)
    for name, text in before.items():
        expect(after[name] == text, f"{name} changed: {text} is now {after[name]}")


def exposure_of(machine: Machine, unit: str) -> float:
    """As systemd-analyze sees the unit that is loaded: 0 is held in, 10 is free."""
    line = machine.try_it(f"systemd-analyze security --no-pager {unit}").stdout.splitlines()[-1]
    return float(line.split(": ")[1].split()[0])


def restart_daemon(machine: Machine) -> None:
    machine.do("systemctl daemon-reload; systemctl restart sentreld")
    settle(machine)


def doctor_finds(machine: Machine) -> str:
    """What is amiss as the doctor sees it; nothing on a machine that is well."""
    checks = json.loads(machine.try_it("sentrelctl --json=short doctor").stdout)["checks"]
    return "; ".join(f"{check['check']} {check['result']}: {check['what']}" for check in checks if check["result"] != "ok")


def push_policy(machine: Machine, example: str) -> None:
    """Gives this machine, which is online or comes to be, a policy of the examples, and waits until it is in force."""
    wait_until("the machine is online", lambda: '"online"' in machine.try_it("sentrelctl state --json=short").stdout, 20)
    machine.do(f"timeout 30 sentrelctl policy push /usr/share/doc/sentrel/examples/{example} --machine desk-1 --wait")


def another_process(machine: Machine, unit: str, pid: str, seconds: float) -> float:
    """Waits until the unit runs as another process than pid. Returns how long that took."""
    return wait_until(f"{unit} is another process", lambda: unit_property(machine, unit, "MainPID") not in (pid, "0"), seconds)


class Rows:
    """A group of rows, tried in the order in which they stand."""

    def __init__(self, machine: Machine, root: pathlib.Path, packages: pathlib.Path, earlier: pathlib.Path):
        self.machine = machine
        self.base = root
        self.packages = packages
        self.earlier = earlier
