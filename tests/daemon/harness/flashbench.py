"""A daemon, the real flasher and a simulated gripper that accepts a flash."""

from .benches import Bench
from .flashing import make_image
from .upgrades import put_real_flasher
from .waiting import eventually

FINGERS = ("TA3-1.6.13", "TA3-1.6.14")
VACUUM = ("TE1-2.0.1", "TE1-2.0.2")


class FlashBench(Bench):
    """Starts the daemon in `folder` with ./romflasher and the image."""

    def __init__(
        self, start_daemon, connect, folder, versions=FINGERS, *others, bits=0, size=4099, **options
    ):
        before, self.after = versions
        put_real_flasher(folder)
        (folder / "firmware").mkdir()
        self.image = make_image(folder / "firmware", self.after, size)
        speed = [f"--bootloader-bps={bits}"]
        super().__init__(
            start_daemon, connect, f"9={before}", *others, options=speed, cwd=folder, **options
        )

    def start(self):
        assert self.client.set("UPG 1", timeout=15) == "ack"
        self.daemon.wait_for_line("Erasing", self.log_mark)

    def wait_for_the_end(self):
        self.daemon.wait_for_line("unmuteOnUpgradeFinished", self.log_mark, timeout=40)

    def wait_for_the_new_version(self):
        eventually(lambda: self.client.get("FWV") == self.after, 10, "the new version")
        self.line.wait_until_polled(9, 2)
