"""Notices when the machine itself cannot keep the times that the tests rely on."""

import os
import threading
import time
import tty


class StallWatch:
    """Sends a byte through a pty of its own every 10 ms and keeps the longest way it took."""

    def __init__(self):
        self._worst = 0.0
        self._master, self._slave = os.openpty()
        tty.setraw(self._slave)
        threading.Thread(target=self._watch, daemon=True).start()

    def start_over(self):
        self._worst = 0.0

    def worst(self):
        """The longest stall since start_over(), in seconds."""
        return self._worst

    def _watch(self):
        while True:
            asked = time.monotonic()
            time.sleep(0.01)
            os.write(self._master, b"x")
            os.read(self._slave, 1)
            self._worst = max(self._worst, time.monotonic() - asked - 0.01)
