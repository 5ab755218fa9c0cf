"""A Debian machine that boots: a root with systemd, in a container of systemd-nspawn. Requires root.

The root is made once by debootstrap, with what the packages under test depend on, and kept in a cache under a name that
tells its contents. A machine lives in a file system of its own in memory over it, of a bounded size, so a full disk is a full
disk and nothing outlives the test. It has no network but its own loopback.

Commands run inside by nsenter, as root: the container is not registered with anybody who could start them. Every wait has a
deadline."""

import hashlib
import os
import pathlib
import shlex
import shutil
import signal
import subprocess
import tempfile
import time

MIRROR = "http://deb.debian.org/debian"
IN_EVERY_ROOT = ["systemd", "systemd-sysv", "dbus", "dbus-daemon", "libnss-myhostname", "logrotate", "mosquitto", "openssl",
                 "procps", "util-linux", "ca-certificates", "ucf", "libpam-systemd"]
DISK_SIZE = "1G"
BOOT_SECONDS = 90
COMMAND_SECONDS = 120


class Failure(Exception):
    """What was seen in place of what should be."""


def run(*command: str, **options) -> str:
    """The output of a command. Raises Failure when it fails."""
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, **options)
    if done.returncode != 0:
        raise Failure(f"{shlex.join(command)} ended with {done.returncode}: {done.stdout.strip()[-2000:]}")
    return done.stdout


def wait_until(what: str, condition, seconds: float) -> float:
    """Waits until the condition holds. Returns how long that took, in seconds."""
    begin = time.monotonic()
    while not condition():
        if time.monotonic() - begin > seconds:
            raise Failure(f"{what}: not within {seconds} s")
        time.sleep(0.05)
    return time.monotonic() - begin


def dependencies_of(packages: list[pathlib.Path]) -> list[str]:
    """What the packages depend on, but for one another."""
    fields = [run("dpkg-deb", "--field", str(package), "Package", "Depends") for package in packages]
    own = {line.removeprefix("Package: ") for field in fields for line in field.splitlines() if line.startswith("Package:")}
    names = {part.strip().split()[0] for field in fields for line in field.splitlines() if line.startswith("Depends:")
             for part in line.removeprefix("Depends:").split("|")[0].split(",")}
    return sorted(names - own)


def cached_root(cache: pathlib.Path, suite: str, packages: list[pathlib.Path]) -> pathlib.Path:
    """A root with systemd and the packages' dependencies, made when there is none of these in the cache."""
    wanted = sorted({*IN_EVERY_ROOT, *dependencies_of(packages)})
    root = cache / f"{suite}-{hashlib.sha256(' '.join(wanted).encode()).hexdigest()[:12]}"
    if root.exists():
        return root
    cache.mkdir(parents=True, exist_ok=True)
    making = pathlib.Path(tempfile.mkdtemp(dir=cache, prefix="making-"))
    try:
        run("debootstrap", "--variant=minbase", f"--include={','.join(wanted)}", suite, str(making), MIRROR)
        for unit in ("mosquitto.service", "apt-daily.timer", "apt-daily-upgrade.timer", "logrotate.timer"):
            run("systemctl", f"--root={making}", "disable", unit)
        (making / "etc/hostname").write_text("desk\n")
        (making / "etc/hosts").write_text("127.0.0.1 localhost\n127.0.1.1 desk\n")
        making.chmod(0o755)
        making.rename(root)
    finally:
        shutil.rmtree(making, ignore_errors=True)
    return root


class Machine:
    """One machine, booted or not. Its directory goes with it."""

    def __init__(self, root: pathlib.Path):
        self.place = pathlib.Path(tempfile.mkdtemp(prefix="machine."))
        run("mount", "-t", "tmpfs", "-o", f"size={DISK_SIZE},mode=0755", "machine", str(self.place))
        for name in ("upper", "work", "root"):
            (self.place / name).mkdir()
        self.root = self.place / "root"
        options = f"lowerdir={root},upperdir={self.place / 'upper'},workdir={self.place / 'work'}"
        run("mount", "-t", "overlay", "machine", "-o", options, str(self.root))
        self.container: subprocess.Popen | None = None
        self.files_before: set[str] = set()
        self.console = open(self.place / "console", "ab")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.cut_power()
        self.console.close()
        run("umount", "--lazy", str(self.root))
        run("umount", "--lazy", str(self.place))
        self.place.rmdir()

    def path(self, inside: str) -> pathlib.Path:
        return self.root / inside.lstrip("/")

    def boot(self) -> float:
        """Starts the machine. Returns after how many seconds it has reached multi-user.target."""
        self.container = subprocess.Popen(
            ["systemd-nspawn", "--quiet", f"--directory={self.root}", "--boot", "--register=no", "--keep-unit", "--private-network",
             f"--machine=desk-{os.getpid()}", "--hostname=desk", "--link-journal=no", "--console=pipe"],
            stdin=subprocess.DEVNULL, stdout=self.console, stderr=self.console)
        return self.wait_for_boot()

    def wait_for_boot(self) -> float:
        return wait_until("multi-user.target is reached", lambda: self.leader() and self.ok(
            "systemctl is-active --quiet multi-user.target && [ -z \"$(systemctl list-jobs --no-legend)\" ]"), BOOT_SECONDS)

    def leader(self) -> int | None:
        """The process that is number 1 inside."""
        try:
            children = pathlib.Path(f"/proc/{self.container.pid}/task/{self.container.pid}/children").read_text().split()
        except FileNotFoundError:
            return None
        return int(children[0]) if children else None

    def command(self, script: str) -> list[str]:
        return ["nsenter", f"--target={self.leader()}", "--mount", "--uts", "--ipc", "--net", "--pid", "--root", "--wdns=/",
                "env", "-i", "PATH=/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL=C.UTF-8", "HOME=/root", "DEBIAN_FRONTEND=noninteractive",
                "/bin/bash", "-c", script]

    def try_it(self, script: str, seconds: float = COMMAND_SECONDS) -> subprocess.CompletedProcess:
        try:
            return subprocess.run(self.command(script), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                  stderr=subprocess.STDOUT, text=True, errors="replace", timeout=seconds)
        except subprocess.TimeoutExpired as late:
            raise Failure(f"{script}: not within {seconds} s") from late

    def ok(self, script: str) -> bool:
        return self.try_it(script).returncode == 0

    def do(self, script: str, seconds: float = COMMAND_SECONDS) -> str:
        """The output of a script inside, which must succeed."""
        done = self.try_it(script, seconds)
        if done.returncode != 0:
            raise Failure(f"{script}: ended with {done.returncode}: {done.stdout.strip()[-1500:]}")
        return done.stdout.strip()

    def start(self, script: str) -> subprocess.Popen:
        """A script inside that goes on beside the test."""
        return subprocess.Popen(self.command(script), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                stderr=subprocess.STDOUT, text=True, errors="replace")

    def reboot(self) -> float:
        before = self.leader()
        self.do("systemctl --no-block reboot")
        wait_until("the machine goes down", lambda: self.leader() != before, BOOT_SECONDS)
        if self.container.poll() is not None:
            return self.boot()
        return self.wait_for_boot()

    def cut_power(self) -> None:
        """Ends every process of the machine at once."""
        if self.container is None:
            return
        leader = self.leader()
        if leader is not None:
            os.kill(leader, signal.SIGKILL)
        try:
            self.container.wait(20)
        except subprocess.TimeoutExpired:
            self.container.kill()
            self.container.wait()
        self.container = None

    def files(self) -> set[str]:
        """Every path of the machine's own disk with its owner and mode, but for what a running system makes."""
        passing = ("./proc", "./sys", "./dev", "./run", "./tmp", "./var/tmp", "./var/log", "./var/cache", "./var/lib/systemd",
                   "./var/lib/private", "./packages")
        prune = " -o ".join(f"-path {name}" for name in passing)
        listing = run("find", ".", "-xdev", "(", *shlex.split(prune), ")", "-prune", "-o", "-printf", "%p %U:%G %m\n", cwd=self.root)
        return set(listing.splitlines())
