"""A healthy machine for gripperctl doctor: a real daemon and line, the files of an adapter, and
stand-ins for systemctl and journalctl."""

import contextlib
import json
import os
import pathlib
import subprocess
import time

from . import protocoltable
from .gripperctl import ctl
from .line import Line, Slave
from .ports import DEVICES, FakePorts
from .upgrades import put_real_flasher

LIMIT_SECONDS = 5
UNIT = {
    "LoadState": "loaded",
    "ActiveState": "active",
    "SubState": "running",
    "Result": "success",
    "UnitFileState": "enabled",
    "NRestarts": "0",
    "User": "root",
    "DevicePolicy": "closed",
    "DeviceAllow": "char-ttyUSB rw",
    "IPAddressAllow": "127.0.0.0/8 ::1/128 10.0.0.0/8",
    "IPAddressDeny": "0.0.0.0/0 ::/0",
    "NeedDaemonReload": "no",
}
SYSTEMCTL = """#!/bin/sh
case $1 in
show) exec cat {folder}/unit.show ;;
*) exec cat {folder}/unit.files ;;
esac
"""
JOURNALCTL = "#!/bin/sh\nexec cat {folder}/journal\n"
# As the service, the daemon opens only ports that its user may open.
WITHOUT_RIGHTS = ["setpriv", "--bounding-set=-all", "--inh-caps=-all"]


def put_program(path, text):
    path.write_text(text, encoding="ascii")
    path.chmod(0o755)


@contextlib.contextmanager
def private_run():
    """An empty /run in this mount namespace, with the present /run/lock."""
    kept = pathlib.Path("/sys/devices/virtual/lock")
    kept.mkdir()
    for words in (
        ["--bind", "/run/lock", kept],
        ["-t", "tmpfs", "-o", "mode=755", "doctor", "/run"],
    ):
        subprocess.run(["mount", *words], check=True)
    pathlib.Path("/run/lock").mkdir()
    subprocess.run(["mount", "--move", kept, "/run/lock"], check=True)
    pathlib.Path("/run/udev/data").mkdir(parents=True)
    try:
        yield
    finally:
        subprocess.run(["umount", "--lazy", "/run/lock", "/run"], check=True)
        kept.rmdir()


class DoctorBench:
    """`unit`, `udev` and the files are those of a healthy machine; a test changes them."""

    def __init__(self, start_daemon, folder):
        self.start_daemon = start_daemon
        self.folder = folder
        self.unit = dict(UNIT)
        self.programs = folder / "programs"
        self.programs.mkdir()
        self.work = folder / "work"
        (self.work / "firmware").mkdir(parents=True)
        put_real_flasher(self.work)
        for row in protocoltable.rows("families"):
            (self.work / row["firmwareImage"]).write_bytes(b"image")
        put_program(self.programs / "systemctl", SYSTEMCTL.format(folder=folder))
        put_program(self.programs / "journalctl", JOURNALCTL.format(folder=folder))
        (folder / "unit.files").write_text("[Service]\nEnvironment=TOKEN=hidden\\\n more\nUser=root\n")
        self.journal = folder / "journal"
        self.journal.write_text("Info: (9) ((null):0, (null))\n")
        self.adapter = DEVICES / "fakeusb" / "00-ttyUSB0"
        self._put_adapter()
        self.line = Line(Slave(9), link="/dev/ttyUSB0")

    def __enter__(self):
        # A daemon that does not start must leave no link for the next attempt.
        with contextlib.ExitStack() as links:
            links.enter_context(self.line)
            os.symlink("ttyUSB0", "/dev/ttyTool")
            links.callback(os.unlink, "/dev/ttyTool")
            self.start()
            self._links = links.pop_all()
        return self

    def __exit__(self, *_):
        self._links.close()

    def _put_adapter(self):
        (self.adapter / "power").mkdir()
        for name, value in {
            "idVendor": "0403",
            "idProduct": "6001",
            "latency_timer": "1",
            "dev": "189:1",
            "power/control": "on",
            "power/autosuspend_delay_ms": "2000",
            "tty/ttyUSB0/dev": "188:0",
        }.items():
            (self.adapter / name).write_text(value + "\n")
        self.put_udev(tty="ID_MM_DEVICE_IGNORE=1", usb="ID_MODEL=adapter")

    @staticmethod
    def put_udev(tty="", usb=""):
        for number, entry in (("188:0", tty), ("189:1", usb)):
            pathlib.Path(f"/run/udev/data/c{number}").write_text(f"E:{entry}\n")

    def start(self):
        self.daemon = self.start_daemon(cwd=self.work, under=WITHOUT_RIGHTS).wait_until_found(9)
        self.unit["MainPID"] = str(self.daemon.pid)

    def environment(self):
        return {**os.environ, "PATH": f"{self.programs}:{os.environ['PATH']}"}

    def put_unit(self):
        lines = [f"{name}={value}\n" for name, value in self.unit.items()]
        (self.folder / "unit.show").write_text("".join(lines))

    def run(self, *words, **options):
        """Runs gripperctl --json doctor. Returns its exit code and its object."""
        self.put_unit()
        options.setdefault("env", self.environment())
        begin = time.monotonic()
        run = ctl("--json", "doctor", *words, **options)
        assert time.monotonic() - begin < LIMIT_SECONDS
        assert run.stdout, run.stderr
        return run.returncode, json.loads(run.stdout)

    @contextlib.contextmanager
    def changed_unit(self, **properties):
        before = dict(self.unit)
        self.unit |= properties
        yield
        self.unit = before


def named(report, *levels):
    """Returns the names of the checks with findings of these levels."""
    return {finding["check"] for finding in report["findings"] if finding["level"] in levels}


@contextlib.contextmanager
def changed(path, text):
    """Another content of a file."""
    before = path.read_bytes()
    path.write_text(text)
    yield
    path.write_bytes(before)


@contextlib.contextmanager
def ports():
    with private_run(), FakePorts("ttyUSB0"):
        yield
