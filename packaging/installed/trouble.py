"""What goes wrong on a machine: processes that are killed, that hang and that crash, a disk without room, the power."""

import re

from installed.booted_machine import wait_until
from installed.subject import (BACK_SECONDS, NOBODY, SERVICES, SETTINGS, UNITS, Rows, another_process, expect, expect_kept, kept,
                               logged, send_event, settle, unit_property, wait_for_report)


class Trouble(Rows):
    def killed(self) -> str:
        """each process comes back within 2 s of kill -9, and nothing stored is lost"""
        seen = []
        for service in SERVICES:
            send_event(self.machine, f"{service}.example")
            wait_for_report(self.machine, f"{service}.example")
            pid = unit_property(self.machine, service, "MainPID")
            self.machine.do(f"kill -KILL {pid}")
            seconds = another_process(self.machine, service, pid, BACK_SECONDS)
            seconds += settle(self.machine, 5)
            expect(seconds <= BACK_SECONDS, f"{service}: {seconds:.1f} s")
            expect(logged(self.machine, f"{service}.example") == 1, f"{service}: the report is gone")
            seen.append(f"{service} {seconds:.1f} s")
        return ", ".join(seen)

    def never_gives_up(self) -> str:
        """the twelfth kill in a row is answered as the first"""
        for _ in range(12):
            pid = unit_property(self.machine, "sentreld", "MainPID")
            self.machine.do(f"kill -KILL {pid}")
            another_process(self.machine, "sentreld", pid, BACK_SECONDS)
        settle(self.machine)
        return "12 restarts of sentreld, NRestarts " + unit_property(self.machine, "sentreld", "NRestarts")

    def events_over_restarts(self) -> str:
        """what is taken while hub or bus is started again is stored"""
        seen = []
        for service in ("sentrel-bus", "sentrel-hvbd"):
            stream = self.machine.start(
                f"for i in $(seq 60); do {NOBODY} sentrelctl event send --url http://{service}-$i.over/x >/dev/null "
                "|| echo refused $i; sleep 0.05; done")
            wait_until("the stream has begun", lambda: logged(self.machine, f"{service}-3.over") == 1, 10)
            self.machine.do(f"systemctl restart {service}")
            refused = stream.communicate(timeout=60)[0].count("refused")
            settle(self.machine)
            text = f'"SourceURL":"http://{service}-'
            count = lambda: self.machine.do("sentrelctl log --limit 0 --json=short").count(text)
            wait_until("all that was taken is in the log", lambda: count() + refused >= 60, 10)
            seen.append(f"{service}: {count()} of 60 stored, {refused} refused")
        return "; ".join(seen)

    def silent_daemon(self) -> str:
        """a daemon that hangs is started again after three missed health checks"""
        pid = unit_property(self.machine, "sentreld", "MainPID")
        self.machine.do(f"kill -STOP {pid}")
        seconds = another_process(self.machine, "sentreld", pid, 110)
        settle(self.machine)
        marks = self.machine.do("ls /run/sentrel-hvbd")
        expect(marks == "", marks)
        return f"after {seconds:.0f} s; the mark is gone"

    def restart_bound(self) -> str:
        """a daemon that stays silent is started again three times in ten minutes at the most"""
        mark = "/run/sentrel-hvbd/module-7"
        for _ in range(2):
            pid = unit_property(self.machine, "sentreld", "MainPID")
            self.machine.do(f"systemctl stop sentreld-restart.service; touch {mark}")
            another_process(self.machine, "sentreld", pid, 10)
            settle(self.machine)
            pid = unit_property(self.machine, "sentreld", "MainPID")
            self.machine.do(f"for i in $(seq 30); do touch {mark}; sleep 0.1; done; rm -f {mark}")
            expect(unit_property(self.machine, "sentreld", "MainPID") == pid, "it was started again for a mark right behind another")
        rest = int(re.search(r"argv\[\]=/usr/bin/sleep (\d+)", unit_property(self.machine, "sentreld-restart", "ExecStart")).group(1))
        expect(3 * rest >= 600, rest)
        self.machine.do("systemctl stop sentreld-restart.service; systemctl restart sentreld-restart.path")
        return f"a mark is answered by one start, and no other counts in the {rest} s behind it"

    def hung_hub(self) -> str:
        """an hvbd that hangs is started again by the watchdog"""
        pid = unit_property(self.machine, "sentrel-hvbd", "MainPID")
        self.machine.do(f"kill -STOP {pid}")
        seconds = another_process(self.machine, "sentrel-hvbd", pid, 60)
        return f"after {seconds:.0f} s; everybody answers {settle(self.machine):.1f} s later"

    def no_core(self) -> str:
        """a crash leaves no core dump"""
        self.machine.do("echo core > /tmp/pattern; for s in %s; do systemctl kill --signal=SEGV $s; done" % " ".join(SERVICES))
        settle(self.machine)
        found = self.machine.do("find / -xdev -name 'core*' -type f -newer /tmp/pattern -not -path '/proc/*' -not -path '/sys/*'")
        expect(not found, found)
        return "none after SIGSEGV of all four"

    def full_disk(self) -> str:
        """on a full disk everybody goes on, and what is sent then is stored when there is room"""
        self.machine.do("dd if=/dev/zero of=/ballast bs=1M status=none; dd if=/dev/zero of=/ballast2 bs=1k status=none; true")
        free = self.machine.do("df --output=avail / | tail -1").strip()
        doctor = self.machine.try_it("sentrelctl doctor").stdout
        expect("disk-full" in doctor, doctor)
        pids = [unit_property(self.machine, service, "MainPID") for service in SERVICES]
        for i in range(20):
            self.machine.try_it(f"{NOBODY} sentrelctl event send --url http://full-{i}.example/x")
        expect(pids == [unit_property(self.machine, service, "MainPID") for service in SERVICES], "a process ended")
        self.machine.do("rm /ballast /ballast2")
        settle(self.machine)
        send_event(self.machine, "room.example")
        wait_for_report(self.machine, "room.example")
        count = sum(logged(self.machine, f"full-{i}.example") for i in range(20))
        expect(count == 20, f"{count} of the 20 that were sent meanwhile are stored")
        return f"{free} kB free: the doctor says so, nobody ended; with room again events are stored, of those sent meanwhile {count} of 20"

    def power_cut(self) -> str:
        """a list that is being replaced when the power goes is the old one or the new one"""
        write = "seq -f 'http://%s-%%g.example/' %d > /tmp/%s"
        self.machine.do(write % ("old", 300, "old") + "; sentrelctl list import --replace /tmp/old")
        self.machine.do(write % ("new", 20000, "new"))
        replacing = self.machine.start("sentrelctl list import --replace /tmp/new")
        wal = self.machine.path(SETTINGS + "-wal")
        wait_until("the replacement is under way", lambda: wal.exists() and wal.stat().st_size > 200_000
                   or replacing.poll() is not None, 30)
        expect(replacing.poll() is None, "the list was replaced before the power could go")
        self.machine.cut_power()
        replacing.wait()
        seconds = self.machine.boot()
        settle(self.machine)
        entries = self.machine.do("sentrelctl list export -").splitlines()
        old = sum("old-" in entry for entry in entries)
        new = len(entries) - old
        expect((old, new) in ((300, 0), (0, 20000)), f"{old} old and {new} new entries")
        self.machine.do("sentrelctl doctor; sentrelctl list remove --all")
        return f"cut while it was replaced; booted in {seconds:.1f} s with {old} old, {new} new entries"

    def reboots(self) -> str:
        """a reboot changes nothing"""
        before = kept(self.machine)
        send_event(self.machine, "reboot.example")
        wait_for_report(self.machine, "reboot.example")
        seconds = self.machine.reboot()
        answer = settle(self.machine)
        expect_kept(self.machine, before)
        expect(logged(self.machine, "reboot.example") == 1, "the report is gone")
        for unit in UNITS:
            expect(unit_property(self.machine, unit, "ActiveState") == "active", f"{unit} is not active")
        return f"{seconds:.1f} s, everybody answers {answer:.1f} s later; settings, list and log are there"
