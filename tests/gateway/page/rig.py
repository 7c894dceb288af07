"""The real gateway, daemon and simulator, with one line."""

import contextlib
import time

from gatewayrig import ORIGIN, Gateway
from harness.daemon import Daemon
from harness.flashing import make_image
from harness.simulator import Simulator
from harness.upgrades import put_real_flasher

URL = ORIGIN + "/"
GRIPPERS = ("9=TA3-1.6.13", "2=TE1-2.0.2")
QUICK = ("--boot-ms=200", "--bootloader-boot-ms=100", "--activation-ms=300")
BITS = "--bootloader-bps=19200"


class Rig:
    """Runs in `folder`, where the daemon finds its flasher and an image for gripper 9."""

    def __init__(self, folder, flash_bytes=4099):
        self.folder = folder
        put_real_flasher(folder)
        (folder / "firmware").mkdir()
        make_image(folder / "firmware", "TA3-1.6.14", flash_bytes)
        self._line = contextlib.ExitStack()
        self.line = self._line.enter_context(Simulator(*GRIPPERS, *QUICK, BITS))
        self.start_daemon()
        self.start_gateway()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.gateway.kill()
        self.daemon.kill()
        self._line.close()

    def start_daemon(self):
        self.daemon = Daemon(cwd=self.folder).wait_until_listening()

    def start_gateway(self):
        self.gateway = Gateway(self.folder).wait_until_ready()

    def show_position(self, slave_id, position):
        """The gripper measures this position, whatever it does."""
        self.line.command(f"pin {slave_id} 2002 {position << 8}")


def wall_ms():
    """The clock that the browser and this process share."""
    return time.time_ns() / 1e6
