"""The end of an installation, and what comes after it; and one that was made by hand before."""

import pathlib
import shutil

from installed.booted_machine import Machine, run
from installed.subject import (HVB, SETTINGS, Rows, debs_in, doctor_finds, expect, install, logged, names_of, settle)

HERE = pathlib.Path(__file__).parent


class Ending(Rows):
    def removes(self) -> str:
        """removing takes the units and keeps the data"""
        self.machine.do(f"apt-get remove --yes --quiet {names_of(self.packages)}", 300)
        running = self.machine.try_it("pgrep -a 'sentrel|hvbd' ; systemctl list-units --no-legend 'sentrel*'").stdout
        expect(not running.strip(), running)
        for file in (SETTINGS, f"{HVB}/var/hvblog.db", f"{HVB}/config/Sentrel/HVConfig.xml"):
            expect(self.machine.path(file).exists(), f"{file} is gone")
        install(self.machine, self.packages)
        settle(self.machine)
        expect(logged(self.machine, "first.example") == 1, "the reports are gone")
        return "no unit, no process; installed again it has the old reports"

    def purges(self) -> str:
        """purging leaves nothing but the locked users"""
        self.machine.do("userdel anna; userdel bert; sed -i /broker.fleet/d /etc/hosts; rm -rf /fleet /fleet.sh /packages /etc/sentrel/fleet-ca.pem; pkill mosquitto; true")
        self.machine.do(f"apt-get purge --yes --quiet {names_of(self.packages)}", 300)
        before = own_files(self.machine.files_before)
        after = own_files(self.machine.files())
        expect(after == before, "left: " + "; ".join(sorted(after - before)) + " gone: " + "; ".join(sorted(before - after)))
        locked = self.machine.do("getent passwd | grep ^sentrel | cut -d: -f1,7; getent group sentrel-admin").replace("\n", " ")
        install(self.machine, self.packages)
        settle(self.machine)
        amiss = doctor_finds(self.machine)
        expect(not amiss, amiss)
        return f"no file more than before; users that stay: {locked}; installed again the doctor finds nothing"

    def by_hand(self) -> str:
        """an installation by hand is taken over, and none of its files is written over"""
        with Machine(self.base) as other:
            other.boot()
            other.path("/packages").mkdir()
            shutil.copy(HERE / "by-hand.sh", other.path("/by-hand.sh"))
            for package in debs_in(self.packages):
                run("dpkg-deb", "--extract", str(package), str(other.path("/programs")))
            other.do("bash /by-hand.sh")
            config = other.do(f"sha256sum {HVB}/config/agent.json {HVB}/config/Sentrel/HVConfig.xml")
            install(other, self.packages)
            settle(other)
            expect(other.do(f"sha256sum {HVB}/config/agent.json {HVB}/config/Sentrel/HVConfig.xml") == config, "a file was changed")
            listed = other.do("sentrelctl list export -")
            expect("byhand.example" in listed, listed)
            other.do("sentrelctl list allow http://more.example/")
            owners = other.do(f"stat -c '%U' {SETTINGS} {HVB}/var/hvblog.db {HVB}/config/agent.json").split()
            expect(owners == ["sentrel", "sentrel-hub", "sentrel"], owners)
            expect(logged(other, "byhand.example") == 1, "the report is gone")
        return "its list, its reports, agent.json and HVConfig.xml are there, the users' names are the package's"


def own_files(files: set[str]) -> set[str]:
    """Without what useradd, sysusers, dpkg, ucf and logrotate keep for themselves."""
    others = ("./etc/passwd", "./etc/shadow", "./etc/group", "./etc/gshadow", "./etc/subuid", "./etc/subgid", "./etc/.pwd.lock",
              "./var/lib/dpkg", "./var/lib/apt", "./var/lib/ucf", "./var/lib/logrotate", "./root", ". ", "./etc/machine-id",
              "./var/lib/dbus")
    return {line for line in files if not line.startswith(others)}
