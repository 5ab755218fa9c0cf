"""The machine comes up with the earlier packages, is enrolled and is used. What it has then the upgrade must keep."""

import json
import pathlib
import shutil

from installed.subject import HVB, NOBODY, Rows, expect, install, push_policy, restart_daemon, send_event, settle, wait_for_report

HERE = pathlib.Path(__file__).parent


class BeforeUpgrade(Rows):
    def boots(self) -> str:
        """boots without the packages"""
        seconds = self.machine.boot()
        self.machine.files_before = self.machine.files()
        return f"multi-user.target after {seconds:.1f} s; {len(self.machine.files_before)} files"

    def installs(self) -> str:
        """apt installs the packages, and they run"""
        seconds = install(self.machine, self.earlier)
        return f"{seconds:.1f} s; everybody answers {settle(self.machine):.1f} s later"

    def protected(self) -> str:
        """the machine is protected at once"""
        status = json.loads(self.machine.do(f"{NOBODY} sentrelctl status --json=short"))
        expect(status["status"] == "enabled" and not status["managed"], status)
        return f"{status['status']}: {status['reason']}"

    def ordinary_user(self) -> str:
        """an ordinary user's event is stored; the log and the settings are not his to read and change"""
        send_event(self.machine, "first.example")
        wait_for_report(self.machine, "first.example")
        for command in ("log", "prefs set safe-search on"):
            refused = self.machine.try_it(f"{NOBODY} sentrelctl {command}")
            expect(refused.returncode == 4, f"{command}: {refused.returncode} {refused.stdout}")
        self.machine.do(f"{NOBODY} sentrelctl prefs show")
        return "stored; log and prefs set refused with 4; prefs show answered"

    def two_users(self) -> str:
        """two users report, and a member of sentrel-admin changes a setting that another sees"""
        self.machine.do("useradd --groups sentrel-admin anna; useradd bert")
        for user in ("anna", "bert"):
            self.machine.do(f"runuser -u {user} -- sentrelctl event send --url http://{user}.example/x")
            wait_for_report(self.machine, f"{user}.example")
        self.machine.do("runuser -u anna -- sentrelctl prefs set safe-search on")
        shown = self.machine.do("runuser -u bert -- sentrelctl prefs get safe-search")
        expect("on" in shown, shown)
        expect(self.machine.try_it("runuser -u bert -- sentrelctl prefs set safe-search off").returncode == 4, "bert may")
        self.machine.do("runuser -u anna -- sentrelctl list block http://bets.example/")
        return "anna changes, bert sees it and is refused"

    def enrols(self) -> str:
        """it is enrolled, a policy comes over MQTT with TLS, and it gets a key for secrets"""
        shutil.copy(HERE / "fleet.sh", self.machine.path("/fleet.sh"))
        self.machine.do("bash /fleet.sh")
        network = self.machine.do("sentrelctl agent keygen > /dev/null; sentrelctl agent network")
        restart_daemon(self.machine)
        push_policy(self.machine, "policy.example.json")
        status = json.loads(self.machine.do("sentrelctl status --json=short"))
        expect(status["managed"], status)
        key = self.machine.do(f"stat -c '%U %a' {HVB}/config/agent.key")
        expect(key == "sentrel 600", key)
        return f"in force, managed; {network.splitlines()[0]}"
