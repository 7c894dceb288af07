"""A real terminal, with what a program shows in it."""

import os
import re
import subprocess

from .waiting import eventually

ROWS, COLUMNS = 12, 110


class Terminal:
    """A real terminal: a tmux server for this test only."""

    def __init__(self, folder):
        self.socket = str(folder / "tmux")
        self.tmux("-f", "/dev/null", "new-session", "-d", "-x", str(COLUMNS), "-y", str(ROWS),
                  "env PS1='$ ' sh")
        self.wait_for(r"^\$")

    def close(self):
        self.tmux("kill-server")

    def resize(self, columns):
        self.tmux("resize-window", "-x", str(columns), "-y", str(ROWS))

    def tmux(self, *words):
        return subprocess.run(
            ["tmux", "-S", self.socket, *words], check=True, capture_output=True, text=True,
            timeout=10, env={**os.environ, "TERM": "xterm", "LC_ALL": "C.UTF-8", "SHELL": "/bin/sh"},
        ).stdout

    def type(self, text):
        self.tmux("send-keys", text, "Enter")

    def press(self, key):
        self.tmux("send-keys", key)

    def shown(self, *options):
        return self.tmux("capture-pane", "-p", *options).splitlines()

    def state(self):
        """Returns (is on the alternate screen, has a cursor)."""
        flags = self.tmux("display-message", "-p", "#{alternate_on} #{cursor_flag}").split()
        return tuple(word == "1" for word in flags)

    def wait_for(self, pattern, timeout=5.0):
        expression = re.compile(pattern)
        return eventually(
            lambda: next((found for line in self.shown() if (found := expression.search(line))), None),
            timeout, lambda: f"{pattern} in {self.shown()}",
        )
