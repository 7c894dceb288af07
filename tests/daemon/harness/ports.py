"""Serial ports that the enumeration reports.

The enumeration reads udev and sysfs, which do not list ptys. In a private mount namespace, tests
fill the two folders of sysfs.
"""

import os
import pathlib
import shutil
import subprocess

CLASS = pathlib.Path("/sys/class/tty")
DEVICES = pathlib.Path("/sys/devices/virtual")

# By default, udev refuses a /sys that contains other file systems.
ENVIRONMENT = {"SYSTEMD_DEVICE_VERIFY_SYSFS": "0"}


def hide_the_machines_ports():
    """Empties the enumeration. Call it once per mount namespace."""
    for folder in (CLASS, DEVICES):
        subprocess.run(["mount", "-t", "tmpfs", "-o", "mode=755", "ports", folder], check=True)


class FakePorts:
    """The enumerated ports, in the given order: the system sorts them by adapter, not by name."""

    def __init__(self, *names):
        self.names = []
        for name in names:
            self.add(name)

    def add(self, name):
        adapter = DEVICES / "fakeusb" / f"{len(self.names):02}-{name}"
        port = adapter / "tty" / name
        port.mkdir(parents=True)
        (adapter / "uevent").write_text("DRIVER=usbfake\n")
        (adapter / "driver").symlink_to("/sys/devices")
        (adapter / "subsystem").symlink_to("/sys/devices")
        (port / "uevent").write_text(f"MAJOR=188\nMINOR={len(self.names)}\nDEVNAME={name}\n")
        (port / "subsystem").symlink_to(CLASS)
        (port / "device").symlink_to("../../")
        (CLASS / name).symlink_to(port)
        self.names.append(name)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for name in self.names:
            (CLASS / name).unlink()
        subprocess.run(["rm", "-rf", DEVICES / "fakeusb"], check=True)


def install_fuser(folder, script):
    """Puts a ./fuser into the folder: the system's ("system"), or one that runs these commands."""
    program = pathlib.Path(folder) / "fuser"
    if script == "system":
        program.symlink_to(shutil.which("fuser"))
        return
    # The program must be complete before the daemon can run it.
    partial = program.with_name("fuser.new")
    partial.write_text(f"#!/bin/sh\n{script}\n")
    partial.chmod(0o755)
    partial.replace(program)


def is_not_open(path):
    """Returns whether no process has this device open.

    Parallel tests have ptys with the same device number, so the function compares the files.
    """
    target = os.stat(path)
    for process in pathlib.Path("/proc").glob("[0-9]*/fd/*"):
        try:
            if os.path.samestat(os.stat(process), target):
                return False
        except OSError:
            continue
    return True
