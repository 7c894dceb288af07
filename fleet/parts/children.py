"""Programs that end with this process."""

import os
import pathlib
import subprocess


class Failed(Exception):
    """A program ended by itself, or did not do what it should."""


class Child:
    """A program that the kernel kills when the thread that started it ends. Start it in the main thread."""

    def __init__(self, name, words, log, **options):
        self.name = name
        self.log = log
        options = {"stdin": subprocess.DEVNULL, "stdout": subprocess.DEVNULL, **options}
        with open(log, "wb") as errors:
            self.process = subprocess.Popen(
                ["setpriv", "--pdeathsig", "KILL", *words],
                stderr=errors,
                # Ctrl-C reaches only this process, which ends the others in order.
                start_new_session=True,
                **options,
            )

    @property
    def pid(self):
        return self.process.pid

    def check(self):
        if self.process.poll() is not None:
            lines = self.log.read_text("utf-8", "replace").splitlines()[-5:]
            raise Failed("\n  ".join([f"{self.name} has ended with status {self.process.returncode}", *lines]))


class Children:
    """Groups of programs. A group ends before the groups that were started earlier."""

    def __init__(self, folder):
        self.folder = folder
        self.groups = {}

    def spawn(self, group, name, words, **options):
        child = Child(name, words, self.folder / f"{name}.log", **options)
        self.groups.setdefault(group, []).append(child)
        return child

    def check(self):
        for group in self.groups.values():
            for child in group:
                child.check()

    def end(self):
        for group in reversed(self.groups.values()):
            for child in group:
                child.process.terminate()
            for child in group:
                try:
                    child.process.wait(10)
                except subprocess.TimeoutExpired:
                    child.process.kill()
                    child.process.wait()


def processor_seconds(pid):
    stats = pathlib.Path(f"/proc/{pid}/task").glob("*/schedstat")
    return sum(int(stat.read_text("ascii").split()[0]) for stat in stats) / 1e9


def resident_bytes(pid):
    pages = pathlib.Path(f"/proc/{pid}/statm").read_text("ascii").split()[1]
    return int(pages) * os.sysconf("SC_PAGE_SIZE")
