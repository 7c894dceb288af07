"""Serial ports that the enumeration reports: a /sys/class/tty of our own.

The enumeration knows what udev and sysfs know, so ptys never appear in it. In a
private mount namespace the two folders it reads are ours to fill.
"""

import os
import pathlib
import shutil
import subprocess

CLASS = pathlib.Path("/sys/class/tty")
DEVICES = pathlib.Path("/sys/devices/virtual")

# udev refuses a /sys that is not sysfs throughout unless told otherwise.
ENVIRONMENT = {"SYSTEMD_DEVICE_VERIFY_SYSFS": "0"}


def hide_the_machines_ports():
    """Once per mount namespace: an empty enumeration."""
    for folder in (CLASS, DEVICES):
        subprocess.run(["mount", "-t", "tmpfs", "-o", "mode=755", "ports", folder], check=True)


class FakePorts:
    """The ports that are enumerated, in the order given: that of their adapters, not of their names."""

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
    """Puts a ./fuser into the folder: the system's own ("system"), or one that runs these commands."""
    program = pathlib.Path(folder) / "fuser"
    if script == "system":
        program.symlink_to(shutil.which("fuser"))
    else:
        program.write_text(f"#!/bin/sh\n{script}\n")
        program.chmod(0o755)


def open_by_nobody(path):
    """Whether no process has this device open.

    The tests beside this one have pty instances of their own, with the same numbers: it is the
    file that tells them apart, not the device number.
    """
    target = os.stat(path)
    for process in pathlib.Path("/proc").glob("[0-9]*/fd/*"):
        try:
            if os.path.samestat(os.stat(process), target):
                return False
        except OSError:
            continue
    return True
