"""The packages under test take the place of the earlier ones: what they keep, how they hold each process in, and that all still
works from inside: the policy and the console user, the log and the debug switch, under a flood as well.

From here to the end nothing but the packages under test is installed."""

import json
import time

from installed.booted_machine import Failure, wait_until
from installed.subject import (GAP_SECONDS, HVB, NOBODY, SERVICES, UNITS, VAR, Rows, doctor_finds, expect, expect_kept,
                               exposure_of, install, kept, push_policy, restart_daemon, send_event, settle,
                               unit_property, wait_for_report)


# A client of a socket that connects so many times, says nothing, and goes when it is told to or has lost its last connection.
SILENT = """perl -MSocket -e '
    for (1..$ARGV[1]) { my $s; socket($s, PF_UNIX, SOCK_STREAM, 0) && connect($s, sockaddr_un($ARGV[0])) or die "$!\n"; push @all, $s }
    $| = 1; print "held\n"; my $in = ""; vec($in, fileno($all[-1]), 1) = 1;
    until (-e "/stop") { last if select(my $r = $in, undef, undef, 0.1) > 0 && !sysread($all[-1], my $text, 1) }' %s %d"""
SILENT_CLIENTS = 200
STORM_SECONDS = 70 # three health checks of 20 s that are missed in it have the daemon restarted


class AfterUpgrade(Rows):
    def upgrades(self) -> str:
        """an upgrade keeps everything, and the gap is short"""
        before = kept(self.machine)
        count = self.machine.do("sentrelctl log --limit 0 --json=short").count('"SourceURL"')
        pulse = self.machine.start(
            f"while [ ! -e /stop ]; do if {NOBODY} sentrelctl event send --url http://up.example/$((++i)) >/dev/null 2>&1; "
            "then date +%s.%N; fi; sleep 0.02; done")
        install(self.machine, self.packages)
        settle(self.machine)
        self.machine.do("touch /stop")
        times = [float(line) for line in pulse.communicate(timeout=30)[0].split()]
        self.machine.do("rm /stop")
        gap = max(later - earlier for earlier, later in zip(times, times[1:]))
        expect_kept(self.machine, before)
        after = self.machine.do("sentrelctl log --limit 0 --json=short").count('"SourceURL"')
        expect(after >= count, f"{after} reports of {count}")
        expect(gap <= GAP_SECONDS, f"{gap:.2f} s without an answer")
        version = self.machine.do("dpkg-query --show --showformat='${Version}' sentrel")
        return f"to {version}; longest gap {gap:.2f} s; settings, list, enrolment and {count} reports kept"

    def downgrade(self) -> str:
        """a downgrade is refused, and what is installed goes on"""
        try:
            install(self.machine, self.earlier)
        except Failure as refused:
            expect("is older than" in str(refused), refused)
        else:
            raise Failure("it was installed")
        install(self.machine, self.packages)
        settle(self.machine)
        return "refused; the newer one goes on"

    def managed(self) -> str:
        """a policy comes over MQTT with TLS into the sandbox of the new daemon"""
        push_policy(self.machine, "policy.example.json")
        figure = exposure_of(self.machine, "sentreld")
        expect(figure <= 1.0, figure)
        send_event(self.machine, "managed.example")
        wait_for_report(self.machine, "managed.example")
        return f"in force; an event is stored; exposure {figure}"

    def secret(self) -> str:
        """a text encrypted with the managed machine's key is opened through the event socket"""
        clear = self.machine.do("printf 'open sesame\\n' | sentrelctl encrypt | sentrelctl decrypt")
        expect(clear == "open sesame", clear)
        return "agent.key is " + self.machine.do(f"stat -c '%U %a' {HVB}/config/agent.key")

    def broker_by_name(self) -> str:
        """the broker's name is found from inside the sandbox"""
        agent = f"{HVB}/config/agent.json"
        self.machine.do(f"echo 127.0.0.1 broker.fleet >> /etc/hosts; cp --preserve {agent} /fleet/agent.json.kept; "
                        f"sed -i s/127.0.0.1/broker.fleet/ {agent}")
        said = self.machine.do("sentrelctl agent network").splitlines()[0]
        restart_daemon(self.machine)
        push_policy(self.machine, "policy.example.json")
        figure = exposure_of(self.machine, "sentreld")
        expect(figure <= 1.0, figure)
        self.machine.do(f"cp --preserve /fleet/agent.json.kept {agent}; sentrelctl agent network")
        restart_daemon(self.machine)
        return f"{said} Its policy is in force; exposure {figure}"

    def console_user(self) -> str:
        """who sits at the machine is named in the report, seen from inside the sandbox"""
        self.machine.do("systemd-run --quiet --unit=desk-session --property=PAMName=login --property=User=anna "
                        "--setenv=XDG_SEAT=seat0 --setenv=XDG_SESSION_CLASS=user sleep infinity")
        wait_until("logind has anna at the seat",
                   lambda: self.machine.ok("grep -q ^ACTIVE_UID=$(id -u anna) /run/systemd/seats/seat0"), 10)
        send_event(self.machine, "console.example")
        wait_for_report(self.machine, "console.example")
        named = self.machine.do("sentrelctl log --user anna --url console.example --json=short")
        expect("console.example" in named, self.machine.do("sentrelctl log --limit 1"))
        self.machine.do("systemctl stop desk-session")
        return "the report names anna, who has a session of logind at seat0"

    def leaves_fleet(self) -> str:
        """a machine that is not enrolled any more has no network again"""
        said = self.machine.do(f"rm {HVB}/config/agent.json; sentrelctl agent network")
        restart_daemon(self.machine)
        return said.splitlines()[0]

    def units(self) -> str:
        """all units are up and none has failed"""
        for unit in UNITS:
            state = unit_property(self.machine, unit, "ActiveState")
            expect(state == "active", f"{unit} is {state}: " + self.machine.try_it(f"journalctl -u {unit} | tail -5").stdout)
        failed = self.machine.do("systemctl list-units --failed --no-legend 'sentrel*'")
        expect(not failed, failed)
        return f"{len(UNITS)} active, none failed"

    def doctor(self) -> str:
        """the doctor finds nothing"""
        amiss = doctor_finds(self.machine)
        expect(not amiss, amiss)
        return "all its checks are ok"

    def users(self) -> str:
        """three users without privileges run it"""
        seen = []
        for service in SERVICES:
            pid = unit_property(self.machine, service, "MainPID")
            status = dict(line.split(":\t", 1) for line in self.machine.do(f"cat /proc/{pid}/status").splitlines() if ":\t" in line)
            memory = int(status["VmRSS"].split()[0])
            user = self.machine.do(f"ps -o user:20= -p {pid}")
            expect(user != "root" and int(status["CapEff"], 16) == 0 and status["NoNewPrivs"] == "1" and status["Seccomp"] == "2",
                   f"{service}: {user} {status['CapEff']} {status['NoNewPrivs']} {status['Seccomp']}")
            seen.append(f"{service} as {user.strip()}, {memory} kB")
        return "; ".join(seen)

    def exposure(self) -> str:
        """the units are held in"""
        figures = {service: exposure_of(self.machine, service) for service in SERVICES}
        expect(all(figure < 1.0 for figure in figures.values()) and figures["sentreld"] <= 0.5, figures)
        return ", ".join(f"{service} {figure}" for service, figure in figures.items())

    def owners(self) -> str:
        """the fixed places belong to whom the operator's document names"""
        wanted = {"/Users/Shared/.orvanta": "sentrel 755", "/Users/Shared/.orvanta/STIPC": "sentrel 777",
                  "/Users/Shared/.orvanta/product.db": "sentrel 640", f"{VAR}": "sentrel 755", f"{HVB}/config": "sentrel 755",
                  f"{HVB}/config/Sentrel/HVConfig.xml": "sentrel 644", f"{HVB}/var": "sentrel-hub 755",
                  f"{HVB}/var/hvblog.db": "sentrel-hub 640", f"{HVB}/var/hvbdsocket64": "root 666",
                  "/etc/sentrel/hub-bus.conf": "root 644", HVB: "root 755"}
        seen = {path: self.machine.do(f"stat -c '%U %a' {path}") for path in wanted}
        expect(seen == wanted, {path: f"{seen[path]}, not {wanted[path]}" for path in wanted if seen[path] != wanted[path]})
        return f"{len(wanted)} places"

    def rating_list(self) -> str:
        """a rating list is imported, and an ordinary user's page is blocked by it"""
        self.machine.do("printf 'rated.example\\n' > /tmp/rated; sentrelctl ratings import bad /tmp/rated --format domains --rating 60")
        checked = json.loads(self.machine.try_it(f"{NOBODY} sentrelctl check http://rated.example/ --json=short").stdout)
        expect(checked["action"] == "block" and checked["decided_by"] == "rating", checked)
        self.machine.do("sentrelctl ratings remove bad")
        return f"{checked['action']}, by its rating {checked['rating']} {checked['rating_name']}"

    def debug_switch(self) -> str:
        """debug logging is switched on and off, and SIGUSR2 is no harm"""
        for word in ("on", "off"):
            shown = self.machine.do(f"sentrelctl debug {word}")
            expect(shown.split()[-1] == word, shown)
        pid = unit_property(self.machine, "sentreld", "MainPID")
        self.machine.do("systemctl kill --signal=USR2 sentreld")
        self.machine.do("sentrelctl hub ping")
        expect(unit_property(self.machine, "sentreld", "MainPID") == pid, "another process")
        return "on and off in HVConfig.xml; the same process after SIGUSR2"

    def journal(self) -> str:
        """the journal shows each process under its name"""
        agent = f"{HVB}/config/agent.json"
        self.machine.do(f"install -m 0644 -o sentrel -g sentrel /dev/null {agent}; systemctl restart sentreld; "
                        "systemctl kill --signal=HUP sentrel-bus")
        settle(self.machine)
        self.machine.do(f"rm {agent}")
        restart_daemon(self.machine)
        own = {"sentrel-bus", "hvbd", "sentrel-settings-keeper", "sentreld"}
        names = "journalctl --boot --output=json -u 'sentrel*' | grep -o '\"SYSLOG_IDENTIFIER\":\"[^\"]*\"' | sort -u"
        seen = {line.split('"')[3] for line in self.machine.do(names).splitlines()}
        expect(own <= seen, f"{sorted(own - seen)} say nothing; {sorted(seen)}")
        return ", ".join(sorted(seen))

    def trace_log(self) -> str:
        """the trace log is rotated while the daemon goes on writing"""
        levels = f"{VAR}/traceValues.xml"
        self.machine.do(f"cp /usr/share/doc/sentrel/examples/traceValues.example.xml {levels}; systemctl restart sentreld")
        settle(self.machine)
        send_event(self.machine, "traced.example")
        wait_for_report(self.machine, "traced.example")
        self.machine.do("logrotate --force /etc/logrotate.d/sentrel")
        rotated = self.machine.do(f"ls {VAR} | grep STTrace")
        size = f"stat -c %s {VAR}/STTrace.log"
        before = int(self.machine.do(size))
        send_event(self.machine, "traced2.example")
        wait_for_report(self.machine, "traced2.example")
        expect("STTrace.log.1.gz" in rotated and 0 < int(self.machine.do(size)), f"{rotated}, {before}")
        self.machine.do(f"rm {levels} {VAR}/STTrace.log*; systemctl restart sentreld")
        settle(self.machine)
        return rotated.replace("\n", " ") + f"; {before} bytes after it, and more with the next event"

    def held_socket(self) -> str:
        """a client that holds the event socket and says nothing does not hold up a restart"""
        silent = self.machine.start(SILENT % ("/Users/Shared/.orvanta/STIPC", 1))
        expect(silent.stdout.readline() == "held\n", "no connection can be made")
        begin = time.monotonic()
        self.machine.do("systemctl restart sentreld")
        settle(self.machine)
        seconds = time.monotonic() - begin
        silent.communicate(timeout=120)
        expect(seconds < 13, f"{seconds:.1f} s")
        send_event(self.machine, "held.example")
        wait_for_report(self.machine, "held.example")
        return f"started again and answering after {seconds:.1f} s"

    def storm(self) -> str:
        """under a storm of everybody nobody reaches half of a limit, and none is taken for hung"""
        self.machine.do("seq -f 'http://storm-%g.example/' 10000 > /tmp/storm; sentrelctl list import --replace /tmp/storm", 300)
        pids = {service: unit_property(self.machine, service, "MainPID") for service in SERVICES}
        gets = f"{NOBODY} sentrelctl list export - >/dev/null 2>&1"
        events = f"{NOBODY} sentrelctl event send --url http://s-$i-$((++n)).example/x >/dev/null 2>&1"
        storm = self.machine.start(f"for i in $(seq 12); do (while [ ! -e /stop ]; do {gets}; done) & done; "
                                   f"for i in $(seq 12); do (while [ ! -e /stop ]; do {events}; done) & done; wait")
        silent = self.machine.start(SILENT % (f"{HVB}/var/hvbdsocket64", SILENT_CLIENTS))
        expect(silent.stdout.readline() == "held\n", "no connections can be made")
        threads = dict.fromkeys(SERVICES, 0)
        begin = time.monotonic()
        while time.monotonic() - begin < STORM_SECONDS:
            for service, pid in pids.items():
                threads[service] = max(threads[service], len(self.machine.do(f"ls /proc/{pid}/task").split()))
        self.machine.do("touch /stop")
        for users in (storm, silent):
            users.communicate(timeout=120)
        self.machine.do("rm /stop")
        seen = [self.within_limits(service, pids[service], threads[service]) for service in SERVICES]
        settle(self.machine, 30)
        self.machine.do("sentrelctl list remove --all", 300)
        return f"{STORM_SECONDS} s; " + "; ".join(seen)

    def within_limits(self, service: str, pid: str, tasks: int) -> str:
        expect(unit_property(self.machine, service, "MainPID") == pid, f"{service} is another process")
        memory = int(self.machine.do(f"grep VmHWM /proc/{pid}/status").split()[1])
        memory_limit = int(unit_property(self.machine, service, "MemoryMax")) // 1024
        tasks_limit = int(unit_property(self.machine, service, "TasksMax"))
        seen = f"{service} {memory // 1024} of {memory_limit // 1024} MiB, {tasks} of {tasks_limit} tasks"
        expect(0 < memory < memory_limit / 2 and 0 < tasks <= tasks_limit / 2, seen)
        return seen
