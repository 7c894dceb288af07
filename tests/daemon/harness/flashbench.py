"""Daemon, flasher and a simulated gripper that can really be flashed."""

from .flashing import make_image
from .simulator import Simulator
from .upgrades import put_real_flasher
from .waiting import eventually

FINGERS = ("TA3-1.6.13", "TA3-1.6.14")
VACUUM = ("TE1-2.0.1", "TE1-2.0.2")


class FlashBench:
    """Started in `folder`, which holds ./romflasher and the image."""

    def __init__(self, versions, bits, size, start_daemon, connect, folder):
        before, self.after = versions
        options = ["--boot-ms=200", "--bootloader-boot-ms=100", f"--bootloader-bps={bits}"]
        self.line = Simulator(f"9={before}", *options)
        put_real_flasher(folder)
        (folder / "firmware").mkdir()
        self.image = make_image(folder / "firmware", self.after, size)
        self.daemon = start_daemon(cwd=folder)
        self.connect = connect

    def ready(self):
        self.daemon.wait_until_found(9)
        self.client = self.connect()
        self.log_mark = self.daemon.mark()
        return self

    def start(self):
        assert self.client.set("UPG 1", timeout=15) == "ack"
        self.daemon.wait_for_line("Erasing", self.log_mark)

    def wait_for_the_end(self):
        self.daemon.wait_for_line("unmuteOnUpgradeFinished", self.log_mark, timeout=40)

    def messages(self):
        return self.daemon.messages(self.log_mark)

    def wait_for_the_new_version(self):
        eventually(lambda: self.client.get("FWV") == self.after, 10, "the new version")
        self.line.wait_until_polled(9, 2)
